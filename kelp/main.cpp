#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <exception>

#include "BrioSharedMem/StoreError.h"
#include "Lumen/Exception.h"
#include "common/Json.h"
#include "kelp/Commands.h"
#include "kelp/LiveCommands.h"

// kelp: shows what is in a store, and asks a running agent.

namespace {

using Kelp::Exit;
using Command = void (*)(Kelp::Session&);
using LiveCommand = void (*)(Kelp::Live&);

constexpr const char* kFooter =
    "tables, entries, entry, log, pending, resources and check read the store themselves. Nothing "
    "is changed or locked, so a store may be looked at while its programs run, when none runs, and "
    "after one has been killed. All other commands ask a running kelp-agent that was started with "
    "--inspect; changes does both.\n\n"
    "Exit status: 0 what was asked for was done (check: all is sound); 1 there is no such store, "
    "unit, entry or agent, the agent could not do it, or something could not be read or written; 2 "
    "the command line is wrong, or does not fit what is at a path; 3 "
    "damage was met, and what is whole was shown; 141 the reader of the output went away before "
    "its end. log --follow ends with 0 when it is interrupted or its reader goes away.";

struct Line {
  Kelp::Options options;
  Command command = nullptr;
  LiveCommand live = nullptr;
};

void describe(CLI::App& app, Line& line) {
  Kelp::Options& options = line.options;
  app.footer(kFooter);
  app.require_subcommand(1);
  app.fallthrough();
  app.add_option("--name", options.name, "Name of the store")->capture_default_str();
  app.add_option("--root", options.root, "Folder in which stores lie")->capture_default_str();
  app.add_flag("--json", options.json, "One JSON document; of log, one JSON object a line");

  const auto add = [&](const char* name, const char* what, Command command) {
    CLI::App* sub = app.add_subcommand(name, what);
    sub->callback([&line, command] { line.command = command; });
    return sub;
  };
  const auto addTable = [&](CLI::App* sub) {
    sub->add_option("TABLE", options.table, "Name of a table, such as Isem1Tag")->required();
  };
  const auto addUnit = [&](CLI::App* sub) {
    sub->add_option("--unit", options.unit, "Only this chip unit")->type_name("U");
  };

  add("tables", "The tables with the entries of each unit", &Kelp::showTables);
  CLI::App* entries = add("entries", "The entries of a table", &Kelp::showEntries);
  addTable(entries);
  addUnit(entries);
  entries
      ->add_option("--where", options.where,
                   "Only entries that have this value in a field, named as in --json: "
                   "key.vlan=100, or vlan=100 where that is clear. May be repeated")
      ->type_name("FIELD=VALUE")
      ->allow_extra_args(false);
  CLI::App* entry = add("entry", "All that is known of one entry", &Kelp::showEntry);
  addTable(entry);
  entry->add_option("KEY", options.key, R"(The key: {"port":3,"vlan":100}, or port=3,vlan=100)")
      ->required();
  addUnit(entry);
  CLI::App* log = add("log", "The changes that a table's log holds, by version", &Kelp::showLog);
  addTable(log);
  log->add_flag("--follow,-f", options.follow, "Go on with the changes to come, until interrupted");
  add("pending", "How far the changes of each table are", &Kelp::showPending);
  add("resources", "What the resource tables have given out, to whom, and what waits to be free",
      &Kelp::showResources);
  add("check", "Whether every collection of the store is sound", &Kelp::check);
  CLI::App* changes =
      add("changes", "What has changed of late, in all tables or one", &Kelp::showChanges);
  changes->add_option("TABLE", options.table, "Name of a table");
  changes->add_option("--since", options.since, "In so many seconds; 60 if left out")
      ->type_name("SECONDS")
      ->check(CLI::Range(1, 3600));
}

void describeLive(CLI::App& app, Line& line) {
  Kelp::Options& options = line.options;
  app.add_option("--inspect", options.inspect,
                 "Socket of the agent's --inspect; $KELP_INSPECT if left out, and without that "
                 "inspect.sock in the store's folder")
      ->type_name("PATH");
  const auto add = [&](const char* name, const char* what, LiveCommand command) {
    CLI::App* sub = app.add_subcommand(name, what);
    sub->callback([&line, command] { line.live = command; });
    return sub;
  };
  const auto addPath = [&](CLI::App* sub) {
    return sub->add_option(
        "PATH", options.path,
        "A place, such as ROOT/swTableSet[0]/transientAddEntry[port=3,vlan=100]");
  };
  const auto addLimit = [&](CLI::App* sub, const char* what) {
    sub->add_option("--limit", options.limit, what)->type_name("N");
  };
  CLI::App* ls = add("ls",
                     "What is at a place: the roots, the attributes of an object, the "
                     "members of a collection",
                     &Kelp::listPlace);
  addPath(ls);
  addLimit(ls, "So many members; 100 if left out");
  ls->add_flag("--complete", options.complete,
               "What the path may go on with, one on a line, for completion in a shell");
  CLI::App* get = add("get", "The value at a place, or all that an object or collection holds",
                      &Kelp::getValue);
  addPath(get)->required();
  addLimit(get, "So many members; 1000 if left out");
  CLI::App* set = add("set", "Writes an attribute", &Kelp::setValue);
  addPath(set)->required();
  set->add_option("VALUE", options.arguments,
                  "JSON, or a string that is none; several where it takes as many")
      ->required()
      ->allow_extra_args(false);
  CLI::App* call = add("call", "Calls an operation, and prints its result", &Kelp::callOperation);
  addPath(call)->required();
  call->add_option("ARGS", options.arguments, "Each as VALUE of set")->allow_extra_args(false);
  CLI::App* watch =
      add("watch", "Prints the changes of a place, until interrupted", &Kelp::watchPlace);
  addPath(watch)->required();
  CLI::App* trace = add("trace", "The trace handles and their levels", &Kelp::showTrace);
  trace->add_option("HANDLE", options.handle, "Only this one; * stands for any text");
  trace->add_option("LEVELS", options.levels, "Set them first: 1-3,8, * for all, or none");
  CLI::Option* read = trace->add_flag("--read", options.read, "Print the ring buffer instead");
  trace->add_option("--since", options.since, "With --read: only of the last so many seconds")
      ->type_name("SECONDS")
      ->needs(read);
  CLI::App* waiting = add("waiting", "The operations that have no outcome, and what they wait for",
                          &Kelp::showWaiting);
  waiting->add_option("--table", options.table, "Only of this table")->type_name("T");
  waiting->add_option("--unit", options.unit, "Only of this chip unit")->type_name("U");
  waiting->add_option("--key", options.key, "Only of this key, with all that they wait for")
      ->type_name("KEY");
  addLimit(waiting, "So many; 100 if left out");
  CLI::App* users = add("users", "Who uses a resource, and who waits for it", &Kelp::showUsers);
  users->add_option("RESOURCE", options.resource, "inLifIndex, vlanEditProfile or remarkProfile")
      ->required();
  users
      ->add_option("KEY", options.key,
                   R"(As in events: {"attachmentCircuit":7}, attachmentCircuit=7, Ethernet3/1)")
      ->required();
  addLimit(users, "So many keys of a client, and operations; 100 if left out");
  CLI::App* stats = add("stats", "Every counter", &Kelp::showStats);
  stats->add_flag("--prometheus", options.prometheus, "In the text format of Prometheus");
  CLI::App* top = add("top", "What moves, on a screen; q ends it", &Kelp::showTop);
  top->add_option("--interval", options.interval, "Between two looks")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.01, 3600.0))
      ->capture_default_str();
  top->add_flag("--once", options.once,
                "Print it once, as where the output is no terminal: the rates of one interval");
}

// What completes the command line of a shell must not disturb it, whatever is wrong.
int complete(const Kelp::Options& options) {
  try {
    Kelp::Live live(options, std::chrono::milliseconds(500));
    Kelp::completePath(live);
    live.out().flush();
  } catch (const std::exception&) {
  }
  return Kelp::kDone;
}

int runLive(const Line& line) {
  Kelp::Live live(line.options);
  try {
    line.live(live);
    live.out().flush();
  } catch (const Kelp::OutputGone&) {
    return Kelp::kOutputGone;
  }
  return Kelp::kDone;
}

int run(const Line& line) {
  int status = Kelp::kDone;
  const auto fail = [&](int with, const char* what) {
    fmt::print(stderr, "kelp: {}\n", what);
    status = with;
  };
  try {
    if (line.live != nullptr) {
      return runLive(line);
    }
    Kelp::Session session(line.options);
    try {
      line.command(session);
      session.out().flush();
      status = session.conclude();
    } catch (const Kelp::OutputGone&) {
      status = Kelp::kOutputGone;
    }
  } catch (const Kelp::CommandError& error) {
    fail(error.status(), error.what());
  } catch (const Common::InputError& error) {
    fail(Kelp::kUsage, error.what());
  } catch (const Lumen::Exception& error) {
    fail(Kelp::kDamage, error.msg().c_str());
  } catch (const std::exception& error) {
    fail(Kelp::kFailed, error.what());
  }
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  CLI::App app("Shows what is in the store of a kelp-agent, and asks a running one.");
  Line line;
  describe(app, line);
  describeLive(app, line);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? Kelp::kDone : Kelp::kUsage;
  }
  return line.options.complete ? complete(line.options) : run(line);
}
