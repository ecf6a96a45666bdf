#include "agent/Options.h"

#include <CLI/CLI.hpp>

#include "common/InspectionPath.h"
#include "common/Intent.h"

namespace Agent {
namespace {

std::chrono::milliseconds milliseconds(double seconds) {
  return std::chrono::milliseconds(static_cast<std::int64_t>(seconds * 1000));
}

// What is wrong with a file mode; empty if nothing is.
std::string wrongMode(const std::string& text) {
  const bool octal =
      !text.empty() && text.size() <= 4 && text.find_first_not_of("01234567") == std::string::npos;
  return octal && std::stoul(text, nullptr, 8) <= 0777
             ? std::string()
             : text + " is no mode: write an octal number such as 0660";
}

}  // namespace

std::optional<int> readOptions(int argc, char** argv, Options& options) {
  CLI::App app(
      "Takes intents, drives the tables of all chip units with them, and tells how each one ended. "
      "docs/intents.md tells how intents are written.");
  app.footer(
      "Exit status: 0 all that was asked for was done; 1 could not start, or could not write "
      "outcomes; 2 lines of a file were wrong and skipped; 3 intents failed; 4 gave up waiting; 5 "
      "stopped by a signal while intents had no outcome. The largest that applies is given, 1 "
      "before "
      "all others. SIGTERM and SIGINT stop it cleanly; SIGUSR1 makes it write the summary.");
  double timeout = 0;
  double peerTimeout = 30;
  std::string inspectMode = "0660";
  app.add_option("--name", options.name, "Name of the store")->capture_default_str();
  app.add_option("--root", options.root, "Folder in which stores lie")->capture_default_str();
  app.add_option("--intents", options.intents,
                 "A file of intents, one on a line; - is the standard input. May be repeated")
      ->type_name("FILE")
      ->allow_extra_args(false);
  app.add_option("--socket", options.socket,
                 "Listen on a Unix socket: intents in, their outcomes out, one on a line")
      ->type_name("PATH");
  auto* inspectOption =
      app.add_option("--inspect", options.inspect,
                     "Listen on a Unix socket for requests to read and drive objects by name; "
                     "docs/inspection.md tells how. Without a path, on inspect.sock in the store's "
                     "folder, where kelp looks for it")
          ->type_name("PATH")
          ->expected(0, 1);
  app.add_option("--inspect-mode", inspectMode,
                 "Mode of that socket's file, octal. What changes state is for the agent's own "
                 "user and for root, whatever the mode")
      ->type_name("MODE")
      ->check(CLI::Validator(&wrongMode, "0-777"))
      ->capture_default_str();
  app.add_option("--units", options.units, "Number of chip units, from unit 0")
      ->check(CLI::Range(1U, Common::kMostUnits))
      ->capture_default_str();
  app.add_option("--outcomes", options.outcomes,
                 "Where the outcomes of files go: a file, - (the standard output) or none")
      ->type_name("FILE")
      ->capture_default_str();
  app.add_option("--summary", options.summary,
                 "Write a JSON summary at the end, and on SIGUSR1; - is the standard output")
      ->type_name("FILE");
  app.add_option("--brisk", options.brisk, "Write a ring-buffer trace; kelp-brisk prints it")
      ->type_name("FILE");
  app.add_flag("--exit-when-done", options.exitWhenDone,
               "End once all files are read, every intent has reached its end and the hardware "
               "side has taken in all changes");
  app.add_flag("--no-sweep", options.noSweep,
               "Keep entries of earlier runs that the intents of this one do not ask for again. "
               "Without it --exit-when-done removes them when all files are read, and "
               "{\"op\":\"replayComplete\"} does at any time");
  app.add_flag("--forget", options.forget,
               "Start without what peers of the socket sent in earlier runs");
  auto* timeoutOption =
      app.add_option("--timeout", timeout,
                     "With --exit-when-done: give up when nothing has moved for so many seconds, "
                     "and say what is pending")
          ->type_name("SECONDS")
          ->check(CLI::Range(0.001, 1e6))
          ->needs("--exit-when-done");
  app.add_option("--in-flight", options.inFlight,
                 "Read on only while fewer intents than this are without an outcome")
      ->check(CLI::Range(std::size_t{1}, std::size_t{10000000}))
      ->capture_default_str();
  app.add_option("--resource-deadline", options.resourceDeadline,
                 "A resource that is not ready after so many seconds fails, and with it what waits "
                 "for it; 0: never")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.0, 1e6))
      ->capture_default_str();
  app.add_option("--peer-timeout", peerTimeout,
                 "Drop a peer of a socket that takes no output for so many seconds")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.001, 1e6))
      ->capture_default_str();
  app.add_flag("--progress", options.progress, "Tell on stderr how far it is");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kDone : kNotStarted;
  }
  if (timeoutOption->count() != 0) {
    options.timeout = milliseconds(timeout);
  }
  options.peerTimeout = milliseconds(peerTimeout);
  if (inspectOption->count() != 0 && options.inspect.empty()) {
    options.inspect = Common::inspectionPath(options.root, options.name);
  }
  options.inspectMode = static_cast<unsigned>(std::stoul(inspectMode, nullptr, 8));
  return std::nullopt;
}

}  // namespace Agent
