#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "Asic/GroupQuilts.h"
#include "Asic/GroupResolver.h"
#include "Asic/InspectClasses.h"
#include "Asic/LogVersion.h"
#include "Asic/NeededEntry.h"
#include "Asic/OrderedSwTableSet.h"
#include "Brio/Attributes.h"
#include "BrioQuilt/CollectionControl.h"
#include "Lumen/Node.h"
#include "Lumen/String.h"
#include "Vault/EntityManager.h"

namespace Asic {

// What the tables of one group have in common: the queue, the sets of software tables, the way of a
// log version to the hardware side and the way of its report back.
class GroupInterface final : public Lumen::Node {
 public:
  static constexpr const char* className() { return "GroupInterface"; }
  static constexpr auto attributes() {
    using G = GroupInterface;
    return Brio::attributeList(130, Brio::stored("canonicalName", &G::canonicalName_),
                               Brio::stored("agentAndGroupId", &G::agentAndGroupId_),
                               Brio::stored("groupResolver", &G::groupResolver_),
                               Brio::collection("swTableSet", &G::sets_),
                               Brio::operation("publishedVersion", &G::publishedVersion),
                               Brio::operation("sweepAll", &G::sweepAll),
                               Brio::operation("pollStatus", &G::pollStatus));
  }
  static constexpr const Lumen::TypeData& classData() {
    return kInspectClass<16, "GroupInterface">;
  }
  [[nodiscard]] const Lumen::TypeData& typeData() const override { return classData(); }

  GroupInterface(Lumen::String canonicalName, const Lumen::Ptr<Vault::EntityManager>& entityManager,
                 std::uint16_t agentAndGroupId);
  ~GroupInterface() override;

  [[nodiscard]] const Lumen::String& canonicalName() const noexcept { return canonicalName_; }
  [[nodiscard]] std::uint16_t agentAndGroupId() const noexcept { return agentAndGroupId_; }
  [[nodiscard]] const Lumen::Ptr<GroupResolver>& groupResolver() const noexcept {
    return groupResolver_;
  }

  // Enters a set under its table id, in place of one that is there.
  void swTableSetIs(const Lumen::Ptr<OrderedSwTableSet>& set);
  [[nodiscard]] bool swTableSetHas(SwTableId tableId) const;
  // Null if there is none.
  [[nodiscard]] Lumen::Ptr<OrderedSwTableSet> swTableSet(SwTableId tableId) const;
  [[nodiscard]] const std::map<SwTableId, Lumen::Ptr<OrderedSwTableSet>>& swTableSets()
      const noexcept {
    return sets_;
  }
  // Enters a table among those that sweepAll() sweeps.
  void sweepableSwTableSetIs(const Lumen::Ptr<OrderedSwTableWithMarkSweep>& table);
  [[nodiscard]] const std::vector<Lumen::Ptr<OrderedSwTableWithMarkSweep>>& sweepableSwTables()
      const noexcept {
    return sweepables_;
  }
  // Sweeps every table entered. To be called once the features have written again what they want.
  void sweepAll();

  // A table's change log has been mounted: its control block carries the incarnation and the
  // published version. Mounts the table's dependencies. A log that is mounted anew takes the place
  // of the old one.
  void entryLogMounted(SwTableId tableId,
                       const Lumen::Ptr<BrioQuilt::CollectionControl>& changeLog);

  // The table has a change at `version`, which must wait for `needed` (null: for nothing). From
  // here on the hardware side may see it: the dependencies are stored first, then the table's
  // published version. Dependencies on the table itself are met by order, those on tables of
  // other groups, which the hardware side does not report, can't be waited for; neither is stored.
  void addLogEntry(SwTableId tableId, LogVersion version,
                   const Lumen::Ptr<const NeededEntry>& needed);

  // Whether the dependencies of a change at `version` could be stored.
  [[nodiscard]] bool hasRoomFor(SwTableId tableId, LogVersion version);

  // Up to which version of the table's log the hardware side has taken it in: the row of the log's
  // incarnation, no higher than what was published when the row was first seen; nothing if there is
  // no such row. A corrupt
  // status collection is told so, and counts as no row.
  [[nodiscard]] std::optional<LogVersion> statusVersion(SwTableId tableId);

  // The newest version of the table's log that the hardware side may see; 0 for a log that is not
  // mounted.
  [[nodiscard]] LogVersion publishedVersion(SwTableId tableId) const noexcept {
    const TableLog* log = tableLog(tableId);
    return log == nullptr ? LogVersion{} : LogVersion{log->changeLog->published()};
  }

  // Looks at the status of every table and hands what is new to every unit's table of its set.
  // Gives the number of tables that had news. To be called when the hardware side rings.
  std::size_t pollStatus();

  // Lets go of the sets and with them of the tables, as at the end of an agent.
  void stop();

  // Whether anything was published since the last call; the owner of the loop rings the bell then.
  [[nodiscard]] bool takePublished() noexcept { return std::exchange(published_, false); }

 private:
  struct TableLog {
    SwTableId tableId;
    Lumen::Ptr<BrioQuilt::CollectionControl> changeLog;
    Lumen::Ptr<NeededQuilt> needed;
    std::optional<LogVersion> delivered;
    // No dependencies are kept below; what an earlier process left may begin anywhere.
    LogVersion lowestNeeded{};
    // The last row that said more than was published, and what it counts as.
    LogVersion overreach{};
    LogVersion overreachCounts{};
  };
  static constexpr LogVersion kNoneNeeded{~std::uint64_t{0}};

  [[nodiscard]] const TableLog* tableLog(SwTableId tableId) const noexcept;
  [[nodiscard]] TableLog* tableLog(SwTableId tableId) noexcept {
    return const_cast<TableLog*>(std::as_const(*this).tableLog(tableId));
  }
  // Null if there is none that can be read.
  [[nodiscard]] Lumen::Ptr<StatusQuilt> statusQuilt();
  [[nodiscard]] static std::optional<LogVersion> rowOf(StatusQuilt& status, TableLog& log);
  void storeNeeded(TableLog& log, LogVersion version, const NeededEntry& needed);
  static void dropUnpublishedNeeded(TableLog& log);
  void dropNeeded(TableLog& log, LogVersion version);

  Lumen::String canonicalName_;
  Lumen::Ptr<Vault::EntityManager> entityManager_;
  std::uint16_t agentAndGroupId_;
  Lumen::Ptr<GroupResolver> groupResolver_;
  std::map<SwTableId, Lumen::Ptr<OrderedSwTableSet>> sets_;
  std::vector<Lumen::Ptr<OrderedSwTableWithMarkSweep>> sweepables_;
  std::vector<TableLog> logs_;
  Lumen::Ptr<StatusQuilt> statusQuilt_;  // null until the hardware side has made it
  bool otherLayoutTold_ = false;
  bool published_ = false;
};

}  // namespace Asic
