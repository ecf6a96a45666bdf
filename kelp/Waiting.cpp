#include <fmt/format.h>

#include <algorithm>
#include <vector>

#include "common/Json.h"
#include "common/Tables.h"
#include "kelp/LiveCommands.h"
#include "kelp/PlainJson.h"
#include "kelp/TextTable.h"

namespace Kelp {
namespace {

constexpr std::uint64_t kUsualShown = 100;

// All operations that are asked for, those that have waited longest first.
std::vector<Json> waitingOf(Live& live) {
  const Options& options = live.options();
  const bool oneKey = !options.key.empty();
  const Json key = oneKey ? keyArgument(options.key) : Json();
  Json params = {{"limit", 1000}};
  if (!options.table.empty()) {
    params["table"] = Common::tableName(tableOf(options.table));
  }
  if (options.unit) {
    params["unit"] = *options.unit;
  }
  std::vector<Json> all;
  Json page;
  do {
    page = live.agent().call("waiting", params);
    for (Json& one : page["waiting"]) {
      if (!oneKey || Common::Json(one["key"]) == Common::Json(key)) {
        all.push_back(std::move(one));
      }
    }
    params["cursor"] = page["cursor"];
  } while (!page["cursor"].is_null());
  std::stable_sort(all.begin(), all.end(), [](const Json& a, const Json& b) {
    return a["seconds"].get<double>() > b["seconds"].get<double>();
  });
  return all;
}

// The first reason, and how many there are besides.
std::string reasonText(const Json& reasons) {
  if (reasons.empty()) {
    return "its resources, which it is about to have";
  }
  std::string text = plainText(reasons[0]["text"]);
  return reasons.size() == 1 ? text : fmt::format("{} (and {} more)", text, reasons.size() - 1);
}

}  // namespace

void showWaiting(Live& live) {
  std::vector<Json> all = waitingOf(live);
  const std::size_t count = all.size();
  all.resize(std::min<std::size_t>(count, live.options().limit.value_or(kUsualShown)));
  if (live.json()) {
    live.printJson({{"waiting", all}, {"count", count}});
    return;
  }
  if (count == 0) {
    live.out().line("nothing waits");
    return;
  }
  // One with a key tells all there is to it.
  const bool allReasons = !live.options().key.empty();
  TextTable table({"for", "operation", "from", "waits for"});
  for (const Json& one : all) {
    std::string what =
        fmt::format("{}{} {} unit {}", one["again"] == true ? "second " : "", plainText(one["op"]),
                    plainText(one["table"]), plainText(one["unit"]));
    what += one.contains("key") ? fmt::format(" {}", plainText(one["key"])) : "";
    const std::string from = fmt::format("{}:{}", plainText(one["source"]), plainText(one["line"]));
    const Json& reasons = one["waitsFor"];
    table.row(
        {durationText(one["seconds"]), what, from,
         allReasons && !reasons.empty() ? plainText(reasons[0]["text"]) : reasonText(reasons)});
    for (std::size_t i = 1; allReasons && i < reasons.size(); ++i) {
      table.row({"", "", "", plainText(reasons[i]["text"])});
    }
  }
  table.print(live.out());
  if (count > all.size()) {
    live.out().line(
        fmt::format("{} of {}, the longest first; --limit N shows more", all.size(), count));
  }
}

}  // namespace Kelp
