#include "agent/StatsReport.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <set>
#include <type_traits>
#include <vector>

#include "Lumen/MemTrack.h"
#include "Lumen/SlabAlloc.h"

namespace Agent {
namespace {

using Clock = std::chrono::steady_clock;
using Json = nlohmann::ordered_json;

double secondsOf(Clock::duration duration) {
  return std::round(std::chrono::duration<double>(duration).count() * 1000) / 1000;
}

Json agentJson(const Options& options, const Intake& intake, const LoopFigures& loop) {
  const Intake::Totals& totals = intake.totals();
  return {{"name", options.name},
          {"root", std::filesystem::absolute(options.root).lexically_normal().string()},
          {"pid", ::getpid()},
          {"units", intake.units()},
          {"uptimeSeconds", secondsOf(Clock::now() - loop.started)},
          {"intentsAccepted", totals.accepted},
          {"intentsSucceeded", totals.succeeded},
          {"intentsFailed", totals.failed},
          {"intentsSucceededAgain", totals.cameThroughAgain},
          {"intentsInFlight", intake.inFlight()},
          {"intentsInFlightLimit", intake.limit()},
          {"linesSkipped", loop.linesSkipped},
          {"writesToTryAgain", intake.retries().size()},
          {"writesToTryAgainLimit", Retries::kMost},
          {"resourceEventsApplied", intake.events().totals().applied},
          {"resourceEventsFailed", intake.events().totals().failed},
          {"peers", loop.peers},
          {"inspectionPeers", loop.inspectionPeers},
          {"passes", loop.passes}};
}

// When the oldest intent of each place came that has no outcome.
std::vector<Clock::time_point> oldestOf(const Intake& intake) {
  std::vector<Clock::time_point> oldest(intake.tables().size(), Clock::time_point::max());
  for (const Intake::Slot& slot : intake.slots()) {
    if (slot.source) {
      oldest[slot.place] = std::min(oldest[slot.place], slot.since);
    }
  }
  return oldest;
}

Json tablesJson(const Intake& intake) {
  const std::vector<Clock::time_point> oldest = oldestOf(intake);
  const auto now = Clock::now();
  Json tables = Json::array();
  for (std::size_t place = 0; place < intake.tables().size(); ++place) {
    const Common::AnyTable& table = *intake.tables()[place];
    const Common::TableState state = table.state();
    const bool waits = oldest[place] <= now;
    tables.push_back(
        {{"table", table.name()},
         {"unit", table.unit().value},
         {"entries", state.entries},
         {"writesInFlight", state.writesInFlight},
         {"removesInFlight", state.removesInFlight},
         {"removeAllsInFlight", state.removeAllsInFlight},
         {"queued", state.queued},
         {"inLog", state.inLog},
         {"oldestWaitingSeconds", waits ? secondsOf(now - oldest[place]) : 0},
         {"failed", intake.failed(table)},
         {"writes", state.writes},
         {"removes", state.removes},
         {"commits", state.commits},
         {"suppressedWrites", state.suppressedWrites},
         {"differingWrites", state.differingWrites},
         {"resolveFailures", state.resolveFailures},
         {"updates", state.updates},
         {"updatesWithFailedResource", state.updatesWithFailedResource},
         {"tableClears", state.tableClears},
         {"lastCommit", state.lastCommit == 0 ? Json(nullptr) : Json(state.lastCommit)}});
  }
  return tables;
}

// The units share the logs.
Json logsJson(const Intake& intake) {
  Json logs = Json::array();
  for (std::size_t place = 0; place < intake.tables().size(); place += intake.units()) {
    const Common::AnyTable& table = *intake.tables()[place];
    const Common::TableState state = table.state();
    const std::uint64_t behind =
        state.published > state.reported ? state.published - state.reported : 0;
    logs.push_back({{"table", table.name()},
                    {"issued", state.issued},
                    {"published", state.published},
                    {"reported", state.reported},
                    {"behind", behind},
                    {"records", state.logRecords},
                    {"capacity", state.logCapacity}});
  }
  return logs;
}

// The resources that writes wait for in vain, of each kind.
std::vector<std::size_t> failedOf(const Intake& intake) {
  std::vector<std::set<const void*>> failed(Common::kResourceNames.size());
  intake.retries().forEach(0,
                           [&](std::uint64_t, const HeldWrite&, const Retries::Missing& missing) {
                             for (const Common::MissingResource& one : missing) {
                               if (one.failed()) {
                                 failed[one.resource].insert(one.handle->resource());
                               }
                             }
                             return true;
                           });
  std::vector<std::size_t> counts;
  for (const auto& resources : failed) {
    counts.push_back(resources.size());
  }
  return counts;
}

Json resourcesJson(const Store& store, const Intake& intake) {
  const std::vector<std::size_t> failed = failedOf(intake);
  Json resources = Json::array();
  store.resources().forEach([&](auto& table) {
    using Kind = typename std::decay_t<decltype(table)>::Kind;
    resources.push_back({{"resource", Common::resourceName<Kind>()},
                         {"known", table.entrys()},
                         {"allocated", table.indexesTaken()},
                         {"free", table.limit() - table.indexesTaken()},
                         {"failed", failed[Common::resourceNumber<Kind>()]},
                         {"releasesWaiting", table.releases()}});
  });
  return resources;
}

Json memoryJson() {
  Json classes = Json::array();
  Lumen::MemTrack::forEach([&](const Lumen::MemTrack& tracker) {
    if (tracker.allocations() != 0) {
      classes.push_back({{"class", tracker.typeName()},
                         {"objects", tracker.liveObjects()},
                         {"bytes", tracker.liveBytes()},
                         {"allocations", tracker.allocations()}});
    }
  });
  return {{"slabBytes", PoolSlab::slabChunkBytes()}, {"classes", std::move(classes)}};
}

}  // namespace

Json statsReport(const Options& options, const Store& store, const Intake& intake,
                 const LoopFigures& loop) {
  return {{"agent", agentJson(options, intake, loop)},
          {"tables", tablesJson(intake)},
          {"logs", logsJson(intake)},
          {"resources", resourcesJson(store, intake)},
          {"memory", memoryJson()}};
}

}  // namespace Agent
