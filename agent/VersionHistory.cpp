#include "agent/VersionHistory.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "BriskTrace/Reader.h"
#include "agent/ReportParams.h"

namespace Agent {

VersionHistory::VersionHistory(const Intake& intake) : intake_(intake) {
  steps_.push_back({Clock::now(), versions()});
}

// Of the first unit of each: all share one log.
std::vector<std::uint64_t> VersionHistory::versions() const {
  std::vector<std::uint64_t> versions;
  for (std::size_t place = 0; place < intake_.tables().size(); place += intake_.units()) {
    versions.push_back(intake_.tables()[place]->tableVersion());
  }
  return versions;
}

void VersionHistory::look(Clock::time_point now) {
  if (now - steps_.back().time < kStep) {
    return;
  }
  steps_.push_back({now, versions()});
  if (steps_.size() > kMost) {
    steps_.pop_front();
  }
}

nlohmann::ordered_json VersionHistory::report(const Common::Json& params) const {
  checkParams(params, {"seconds"});
  constexpr std::uint64_t kMostSeconds = kMost * kStep.count();
  const std::chrono::seconds asked(readParam(params, "seconds", kMostSeconds).value_or(60));
  const auto now = Clock::now();
  const auto after =
      std::upper_bound(steps_.begin(), steps_.end(), now - asked,
                       [](Clock::time_point time, const Step& step) { return time < step.time; });
  const Step& step = after == steps_.begin() ? *after : *std::prev(after);
  const auto ago = now - step.time;
  const auto wall = std::chrono::system_clock::now() - ago;
  nlohmann::ordered_json tables = nlohmann::ordered_json::array();
  const std::vector<std::uint64_t> last = versions();
  for (std::size_t table = 0; table < last.size(); ++table) {
    tables.push_back(
        {{"table", Common::tableName(table)}, {"from", step.versions[table]}, {"to", last[table]}});
  }
  return {
      {"seconds", std::round(std::chrono::duration<double>(ago).count() * 1000) / 1000},
      {"since",
       BriskTrace::timeText(
           std::chrono::duration_cast<std::chrono::nanoseconds>(wall.time_since_epoch()).count())},
      {"tables", std::move(tables)}};
}

}  // namespace Agent
