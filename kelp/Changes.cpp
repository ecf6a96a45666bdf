#include <fmt/format.h>

#include "kelp/AgentClient.h"
#include "kelp/Commands.h"
#include "kelp/LogView.h"
#include "kelp/PlainJson.h"

namespace Kelp {

void showChanges(Session& session) {
  const Options& options = session.options();
  const std::size_t only = options.table.empty() ? Common::kTables : tableOf(options.table);
  AgentClient agent(inspectPath(options));
  const Json versions = agent.call("versions", {{"seconds", options.since.value_or(60)}});
  std::uint64_t changes = 0;
  for (const Json& one : versions["tables"]) {
    const std::size_t table = tableOf(one["table"].get<std::string>());
    const std::uint64_t from = one["from"];
    const std::uint64_t to = one["to"];
    if ((only != Common::kTables && table != only) || from >= to) {
      continue;
    }
    changes += to - from;
    Common::withTable(table, [&](auto tag) {
      LogView<typename decltype(tag)::Table> view(session, true);
      view.showVersions(from, to);
    });
  }
  session.out().flush();
  session.note(fmt::format("{} change{} since {}, {} ago", changes, changes == 1 ? "" : "s",
                           plainText(versions["since"]), durationText(versions["seconds"])));
}

}  // namespace Kelp
