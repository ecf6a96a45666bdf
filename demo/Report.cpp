#include "demo/Report.h"

#include <fmt/format.h>

#include <fstream>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <utility>

namespace Demo {
namespace {

using Json = nlohmann::json;

Json readJsonFile(const std::string& file) {
  std::ifstream in(file);
  try {
    return Json::parse(in);
  } catch (const Json::exception& error) {
    throw std::runtime_error(file + ": the summary is missing or cut off: " + error.what());
  }
}

// A verdict on one comparison, with examples of what differs.
void appendVerdict(std::string& out, const char* what, const Comparison& result) {
  if (result.same()) {
    fmt::format_to(std::back_inserter(out), "check: {}: {} entries, one by one\n", what,
                   result.equal);
    return;
  }
  fmt::format_to(std::back_inserter(out),
                 "check FAILED: {}: {} equal, {} different, {} missing, {} surplus\n", what,
                 result.equal, result.different, result.missing, result.surplus);
  for (const std::string& example : result.examples) {
    fmt::format_to(std::back_inserter(out), "    {}\n", example);
  }
}

void appendRestart(std::string& out, const Restarted& restarted) {
  const std::uint64_t owed = restarted.differing + restarted.cutOff;
  if (restarted.good()) {
    fmt::format_to(
        std::back_inserter(out),
        "check: the restart halfway told the chip {} changes, just those that the killed "
        "agent still owed; the other {} entries were left alone\n",
        owed, restarted.there);
  } else {
    fmt::format_to(std::back_inserter(out),
                   "check FAILED: the restart halfway told the chip {} changes, where the killed "
                   "agent owed {}\n",
                   restarted.changes, owed);
  }
}

void appendProfiles(std::string& out, const ProfileFigures& profiles) {
  const auto verdict = [](bool good) { return good ? "check" : "check FAILED"; };
  fmt::format_to(
      std::back_inserter(out),
      "{}: a VLAN edit profile changed: the chip was told {} changes, its users are {}\n",
      verdict(profiles.users != 0 && profiles.rewritten == profiles.users), profiles.rewritten,
      profiles.users);
  fmt::format_to(
      std::back_inserter(out),
      "{}: {} VLAN edits more were asked for: {} writes found no profile, {} of them came "
      "through when others had gone\n",
      verdict(profiles.failed != 0 && profiles.cameThrough == profiles.failed), profiles.asked,
      profiles.failed, profiles.cameThrough);
  fmt::format_to(
      std::back_inserter(out),
      "{}: the agent was started once more: every entry has the indexes that it had, the "
      "chip was told {} changes\n",
      verdict(profiles.changes == 0), profiles.changes);
}

}  // namespace

void Report::readSummaries(const std::string& agentFile, const std::string& chipFile) {
  const Json agent = readJsonFile(agentFile);
  const Json chip = readJsonFile(chipFile);
  std::map<std::pair<std::string, unsigned>, std::uint64_t> entries;
  for (const Json& table : chip.at("tables")) {
    heldBack += table.at("heldBack").get<std::uint64_t>();
    resyncs += table.at("resyncs").get<std::uint64_t>();
    for (const Json& unit : table.at("units")) {
      entries[{table.at("table").get<std::string>(), unit.at("unit").get<unsigned>()}] =
          unit.at("entries").get<std::uint64_t>();
    }
  }
  const Json& check = chip.at("check");
  for (const Json& unit : check.at("units")) {
    equalToCollections += unit.at("equal").get<std::uint64_t>();
  }
  chipDiffers = check.at("examples").get<std::vector<std::string>>();
  for (const Json& table : agent.at("tables")) {
    Row row;
    row.table = table.at("table").get<std::string>();
    row.unit = table.at("unit").get<unsigned>();
    row.written = table.at("written").get<std::uint64_t>();
    row.removed = table.at("removed").get<std::uint64_t>();
    row.suppressed = table.at("suppressed").get<std::uint64_t>();
    row.entries = table.at("entries").get<std::uint64_t>();
    if (rows.empty() || rows.back().table != row.table) {
      row.inLog = table.at("inLog").get<std::uint64_t>();
    }
    row.pending = table.at("pending").get<bool>();
    row.onChip = entries[{row.table, row.unit}];
    rows.push_back(std::move(row));
  }
}

bool Report::good() const noexcept {
  // What had to be tried twice is a failure to the agent.
  constexpr int kSomeFailed = 3;
  const bool agentEndedWell =
      agentStatus == 0 || (agentStatus == kSomeFailed && outcomes.cameThrough != 0);
  return agentEndedWell && chipEqual && outcomes.succeeded == intents && chipAndIntents.same() &&
         collectionsAndIntents.same() && equalToCollections == expectedEntries &&
         (!restarted || restarted->good()) && (!profiles || profiles->good());
}

std::string Report::text() const {
  std::string out;
  const auto line = [&](auto&&... values) {
    fmt::format_to(std::back_inserter(out),
                   "{:<14} {:>5} {:>9} {:>9} {:>11} {:>9} {:>9} {:>9} {:>8}\n", values...);
  };
  line("table", "unit", "written", "removed", "suppressed", "entries", "on chip", "in log",
       "pending");
  Row sum;
  sum.inLog = 0;
  for (const Row& row : rows) {
    line(row.table, row.unit, row.written, row.removed, row.suppressed, row.entries, row.onChip,
         row.inLog ? fmt::format("{}", *row.inLog) : std::string(), row.pending ? "yes" : "no");
    sum.written += row.written;
    sum.removed += row.removed;
    sum.suppressed += row.suppressed;
    sum.entries += row.entries;
    *sum.inLog += row.inLog.value_or(0);
    sum.onChip += row.onChip;
    sum.pending = sum.pending || row.pending;
  }
  line("all", "", sum.written, sum.removed, sum.suppressed, sum.entries, sum.onChip, *sum.inLog,
       sum.pending ? "yes" : "no");
  fmt::format_to(std::back_inserter(out),
                 "\n{} intents: {} carried out{}, {} failed; {:.1f} s, {:.0f} a second; {} records "
                 "waited for another table's\n",
                 intents, outcomes.succeeded,
                 outcomes.cameThrough == 0
                     ? std::string()
                     : fmt::format(" ({} at a second try)", outcomes.cameThrough),
                 outcomes.failed, seconds,
                 seconds > 0 ? static_cast<double>(intents) / seconds : 0.0, heldBack);
  if (chipEqual) {
    fmt::format_to(std::back_inserter(out),
                   "check: the chip equals the configuration collections: {} entries, one by one\n",
                   equalToCollections);
  } else {
    out += "check FAILED: the chip differs from the configuration collections\n";
    for (const std::string& example : chipDiffers) {
      fmt::format_to(std::back_inserter(out), "    {}\n", example);
    }
  }
  appendVerdict(out, "the chip equals what the intents add up to", chipAndIntents);
  appendVerdict(out, "so do the configuration collections, with the resource keys",
                collectionsAndIntents);
  if (restarted) {
    appendRestart(out, *restarted);
  }
  if (profiles) {
    appendProfiles(out, *profiles);
  }
  return out;
}

}  // namespace Demo
