#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "kelp/LiveCommands.h"
#include "kelp/PlainJson.h"
#include "kelp/Prometheus.h"
#include "kelp/TextTable.h"

namespace Kelp {
namespace {

constexpr std::size_t kClassesShown = 15;

// A column of a table: a member of each row, and its heading.
struct Column {
  const char* member;
  const char* heading;
};

void showRows(Live& live, const Json& rows, const std::vector<Column>& columns) {
  std::vector<std::string> headings;
  for (const Column& column : columns) {
    headings.emplace_back(column.heading);
  }
  TextTable table(std::move(headings));
  for (const Json& row : rows) {
    std::vector<std::string> cells;
    for (const Column& column : columns) {
      const Json& value = row[column.member];
      cells.push_back(value.is_number_float() ? fmt::format("{:.0f}", value.get<double>())
                                              : plainText(value));
    }
    table.row(std::move(cells));
  }
  live.out().line("");
  table.print(live.out());
}

void showAgent(Live& live, const Json& agent) {
  const auto line = [&](const char* what, const std::string& text) {
    live.out().line(fmt::format("{:<10} {}", what, text));
  };
  const auto of = [&](const char* member) { return plainText(agent[member]); };
  line("agent", fmt::format("{} in {}, process {}, up {}", of("name"), of("root"), of("pid"),
                            durationText(agent["uptimeSeconds"])));
  line("intents",
       fmt::format("{} accepted, {} succeeded, {} failed, {} in flight (of {}), {} "
                   "lines skipped",
                   of("intentsAccepted"), of("intentsSucceeded"), of("intentsFailed"),
                   of("intentsInFlight"), of("intentsInFlightLimit"), of("linesSkipped")));
  line("retries", fmt::format("{} writes wait for resources, {} came through at a second try",
                              of("writesToTryAgain"), of("intentsSucceededAgain")));
  line("events", fmt::format("{} applied, {} failed", of("resourceEventsApplied"),
                             of("resourceEventsFailed")));
  line("peers",
       fmt::format("{} with intents, {} that inspect", of("peers"), of("inspectionPeers")));
  line("loop", fmt::format("{} passes", of("passes")));
}

}  // namespace

void showStats(Live& live) {
  const Json stats = live.agent().call("stats");
  if (live.options().prometheus) {
    appendMetrics(live.out().text(), stats);
    live.out().flush();
    return;
  }
  if (live.json()) {
    live.printJson(stats);
    return;
  }
  showAgent(live, stats["agent"]);
  showRows(live, stats["tables"],
           {{"table", "table"},
            {"unit", "unit"},
            {"entries", "entries"},
            {"writes", "writes"},
            {"removes", "removes"},
            {"commits", "commits"},
            {"suppressedWrites", "suppressed"},
            {"updates", "rewritten"},
            {"failed", "failed"},
            {"queued", "queued"},
            {"inLog", "in log"},
            {"oldestWaitingSeconds", "oldest (s)"}});
  showRows(live, stats["logs"],
           {{"table", "log of"},
            {"issued", "issued"},
            {"published", "published"},
            {"reported", "reported"},
            {"behind", "behind"},
            {"records", "records"},
            {"capacity", "room for"}});
  showRows(live, stats["resources"],
           {{"resource", "resource"},
            {"known", "known"},
            {"allocated", "allocated"},
            {"free", "free"},
            {"failed", "failed"},
            {"releasesWaiting", "releases waiting"}});
  std::vector<Json> classes = stats["memory"]["classes"].get<std::vector<Json>>();
  std::stable_sort(classes.begin(), classes.end(), [](const Json& a, const Json& b) {
    return a["bytes"].get<std::uint64_t>() > b["bytes"].get<std::uint64_t>();
  });
  classes.resize(std::min(classes.size(), kClassesShown));
  showRows(live, classes,
           {{"class", "most memory"},
            {"objects", "objects"},
            {"bytes", "bytes"},
            {"allocations", "made so far"}});
}

}  // namespace Kelp
