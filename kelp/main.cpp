#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <exception>

#include "BrioSharedMem/StoreError.h"
#include "Lumen/Exception.h"
#include "common/Json.h"
#include "kelp/Commands.h"

// kelp: shows what is in a store.

namespace {

using Kelp::Exit;
using Command = void (*)(Kelp::Session&);

constexpr const char* kFooter =
    "Nothing is changed or locked, so a store may be looked at while its programs run, when none "
    "runs, and after one has been killed.\n\n"
    "Exit status: 0 what was asked for was done (check: all is sound); 1 there is no such store, "
    "unit or entry, or something could not be read or written; 2 the command line is wrong; 3 "
    "damage was met, and what is whole was shown; 141 the reader of the output went away before "
    "its end. log --follow ends with 0 when it is interrupted or its reader goes away.";

struct Line {
  Kelp::Options options;
  Command command = nullptr;
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
}

int run(const Line& line) {
  int status = Kelp::kDone;
  const auto fail = [&](int with, const char* what) {
    fmt::print(stderr, "kelp: {}\n", what);
    status = with;
  };
  try {
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
  CLI::App app("Shows what is in the store of a kelp-agent: its tables, entries and logs.");
  Line line;
  describe(app, line);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? Kelp::kDone : Kelp::kUsage;
  }
  return run(line);
}
