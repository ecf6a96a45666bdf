#include <gmock/gmock.h>

#include <set>
#include <string>
#include <vector>

#include "Asic/CanonicalTableName.h"
#include "Asic/DependencyEntryHandle.h"
#include "Asic/EntryFlags.h"
#include "Asic/EntryState.h"
#include "Asic/EntryVersion.h"
#include "Asic/LogVersion.h"
#include "Asic/NeededEntry.h"
#include "Asic/SwTableId.h"
#include "Asic/SwTableStats.h"
#include "Asic/UnitId.h"

namespace {

using Asic::EntryVersion;
using Asic::LogVersion;
using Asic::MajorVersion;
using Asic::SwTableId;
using Asic::TableVersion;
using testing::ElementsAre;

TEST(SwTableId, PrintsAgentGroupAndTableInHexadecimal) {
  EXPECT_EQ(fmt::format("{}", SwTableId{0x29080abc}), "29:08:0abc");
  EXPECT_EQ(fmt::format("{}", SwTableId{0}), "00:00:0000");
  EXPECT_EQ(fmt::format("{}", SwTableId{0xffffffff}), "ff:ff:ffff");
}

TEST(SwTableId, ComesApartIntoAgentGroupAndTable) {
  constexpr SwTableId id{0x29080abc};
  EXPECT_EQ(id.agentId(), 0x29);
  EXPECT_EQ(id.groupId(), 0x08);
  EXPECT_EQ(id.tblId(), 0x0abc);
  EXPECT_EQ(id.agentAndGroupId(), 0x2908);
  static_assert(sizeof(SwTableId) == 4 && sizeof(id.agentId()) == 1 && sizeof(id.groupId()) == 1 &&
                sizeof(id.tblId()) == 2);
}

TEST(UnitId, IsA16BitNumber) {
  static_assert(sizeof(Asic::UnitId) == 2);
  EXPECT_EQ(fmt::format("{}", Asic::UnitId{65535}), "65535");
  EXPECT_TRUE(Asic::UnitId{1}.isEq(Asic::UnitId{1}));
  EXPECT_FALSE(Asic::UnitId{1}.isEq(Asic::UnitId{2}));
}

TEST(LogVersion, IsOrderedWithoutASign) {
  static_assert(sizeof(LogVersion) == 8);
  EXPECT_TRUE(LogVersion{0x8000000000000000} > LogVersion{1});
  EXPECT_FALSE(LogVersion{1} > LogVersion{1});
  EXPECT_EQ(LogVersion{}.value, 0U);
}

TEST(EntryVersion, TheDefaultIsZeroAndValid) {
  const EntryVersion version;
  EXPECT_EQ(version.majorVersion, 0U);
  EXPECT_EQ(version.minorVersion, 0U);
  EXPECT_TRUE(version.valid());
}

TEST(EntryVersion, OnlyAllOnesIsInvalid) {
  EXPECT_EQ(EntryVersion::invalid().majorVersion, 0xFFFFFFFFFFFFFFFFU);
  EXPECT_EQ(EntryVersion::invalid().minorVersion, 0xFFFFU);
  EXPECT_FALSE(EntryVersion::invalid().valid());
  EXPECT_TRUE((EntryVersion{0xFFFFFFFFFFFFFFFF, 0}).valid());
  EXPECT_TRUE((EntryVersion{0, 0xFFFF}).valid());
}

TEST(EntryVersion, TheNextCountsTheMajorAndCarriesTheMinor) {
  EXPECT_TRUE((EntryVersion{6, 3}).next().isEq(EntryVersion{7, 3}));
  EXPECT_TRUE(EntryVersion{}.next().isEq(EntryVersion{1, 0}));
}

TEST(EntryVersion, EqualityComparesBothFields) {
  EXPECT_TRUE((EntryVersion{1, 2}).isEq(EntryVersion{1, 2}));
  EXPECT_FALSE((EntryVersion{1, 2}).isEq(EntryVersion{1, 3}));
  EXPECT_FALSE((EntryVersion{1, 2}).isEq(EntryVersion{2, 2}));
}

TEST(MajorVersion, AllOnesIsInvalidAndZeroIsValid) {
  EXPECT_EQ(MajorVersion::kInvalid, 0xFFFFFFFFFFFFFFFFU);
  EXPECT_FALSE(MajorVersion{}.valid());
  EXPECT_FALSE(MajorVersion{MajorVersion::kInvalid}.valid());
  EXPECT_TRUE(MajorVersion{0}.valid());
  EXPECT_TRUE(MajorVersion{MajorVersion::kInvalid - 1}.valid());
}

TEST(EntryFlags, HaveTheValuesThatResolverEntriesCarry) {
  EXPECT_EQ(static_cast<unsigned>(Asic::EntryFlags::none), 0U);
  EXPECT_EQ(static_cast<unsigned>(Asic::EntryFlags::entryDeleted), 1U);
  EXPECT_EQ(static_cast<unsigned>(Asic::EntryFlags::tableDeleted), 2U);
  EXPECT_EQ(static_cast<unsigned>(Asic::EntryFlags::suppressIdenticalWrites), 4U);
  static_assert(sizeof(Asic::EntryFlags) == 1);
}

TEST(EntryState, ThreeFiveAndSixAreFailures) {
  static_assert(sizeof(Asic::EntryState) == 1);
  std::vector<unsigned> failed;
  for (unsigned value = 0; value <= 6; ++value) {
    if (isFailed(static_cast<Asic::EntryState>(value))) {
      failed.push_back(value);
    }
  }
  EXPECT_THAT(failed, ElementsAre(3, 5, 6));
  EXPECT_EQ(static_cast<unsigned>(Asic::EntryState::entryStateUnresolved), 0U);
  EXPECT_EQ(static_cast<unsigned>(Asic::EntryState::entryStateInLog), 1U);
  EXPECT_EQ(static_cast<unsigned>(Asic::EntryState::entryStateReserved), 2U);
  EXPECT_EQ(static_cast<unsigned>(Asic::EntryState::entryStateFailed3), 3U);
  EXPECT_EQ(static_cast<unsigned>(Asic::EntryState::entryStateSuccess), 4U);
  EXPECT_EQ(static_cast<unsigned>(Asic::EntryState::entryStateFailed), 5U);
  EXPECT_EQ(static_cast<unsigned>(Asic::EntryState::entryStateFailed6), 6U);
}

constexpr TableVersion at(std::uint32_t table, std::uint64_t version) {
  return {SwTableId{table}, LogVersion{version}};
}

TEST(NeededEntry, KeepsOneVersionPerTableTheHighest) {
  const auto needed = Lumen::makeNode<Asic::NeededEntry>();
  EXPECT_TRUE(needed->empty());
  needed->add(at(1, 5));
  needed->add(at(2, 1));
  needed->add(at(1, 9));
  needed->add(at(1, 7));
  EXPECT_THAT(needed->versions(), ElementsAre(at(1, 9), at(2, 1)));
}

TEST(NeededEntry, TakesAnyNumberOfTables) {
  const auto needed = Lumen::makeNode<Asic::NeededEntry>();
  for (std::uint32_t table = 1; table <= 8; ++table) {
    needed->add(at(table, table));
  }
  for (std::uint32_t table = 1; table <= 8; ++table) {
    needed->add(at(table, 10 * table));
  }
  EXPECT_THAT(needed->versions(), ElementsAre(at(1, 10), at(2, 20), at(3, 30), at(4, 40), at(5, 50),
                                              at(6, 60), at(7, 70), at(8, 80)));
}

TEST(NeededEntry, MergesAnotherSetAndIgnoresANullOne) {
  const auto needed = Lumen::makeNode<Asic::NeededEntry>();
  needed->add(at(1, 5));
  const auto other = Lumen::makeNode<Asic::NeededEntry>();
  other->add(at(1, 4));
  other->add(at(2, 6));
  needed->merge(other);
  needed->merge(nullptr);
  needed->merge(Lumen::makeNode<Asic::NeededEntry>());
  EXPECT_THAT(needed->versions(), ElementsAre(at(1, 5), at(2, 6)));
}

TEST(NeededEntry, PrintsItsVersionsAndNothingForANullOrEmptySet) {
  const auto needed = Lumen::makeNode<Asic::NeededEntry>();
  EXPECT_EQ(fmt::format("{}", needed), "{}");
  EXPECT_EQ(fmt::format("{}", Lumen::Ptr<const Asic::NeededEntry>()), "{}");
  needed->add(at(0x29080401, 3));
  needed->add(at(0x29080402, 4));
  EXPECT_EQ(fmt::format("{}", needed), "{29:08:0401@3, 29:08:0402@4}");
}

TEST(CanonicalTableName, IsBuiltByItsType) {
  const auto name = [](unsigned type) {
    return Lumen::makeNode<Asic::CanonicalTableName>(static_cast<Asic::OrderedTableType>(type),
                                                     "Group", "Space", "Table")
        ->name();
  };
  EXPECT_EQ(name(0), "OrderedSwTable.Group.Table");
  EXPECT_EQ(name(1), "PartiallyOrderedSwTable.Table");
  EXPECT_EQ(name(2), "ResourceTable.Space::Table");
}

TEST(CanonicalTableName, NamesAResourceTableByNamespaceAndTable) {
  EXPECT_EQ(
      Lumen::makeNode<Asic::CanonicalTableName>(Asic::OrderedTableType::resourceTable, "",
                                                "KelpTunnelNiLib", "InLifIndex.featureKelpEmServer")
          ->name(),
      "ResourceTable.KelpTunnelNiLib::InLifIndex.featureKelpEmServer");
}

TEST(CanonicalTableNameDeathTest, AnyOtherTypeIsAnAssertion) {
  const auto name = Lumen::makeNode<Asic::CanonicalTableName>(
      static_cast<Asic::OrderedTableType>(3), "Group", "Space", "Table");
  EXPECT_DEATH((void)name->name(), "Table type undefined!");
  EXPECT_DEATH((void)name->name(), "Assertion `\"false\" == nullptr' failed");
}

TEST(SwTableStats, EveryCounterStartsAtZeroAndMovesAlone) {
  struct Counter {
    void (Asic::SwTableStats::*inc)(unsigned long);
    std::uint64_t (Asic::SwTableStats::*read)() const;
  };
  using Stats = Asic::SwTableStats;
  const Counter counters[] = {
      {&Stats::entryWriteCntInc, &Stats::entryWriteCnt},
      {&Stats::entryRemoveCntInc, &Stats::entryRemoveCnt},
      {&Stats::commitCntInc, &Stats::commitCnt},
      {&Stats::resolveFailCntInc, &Stats::resolveFailCnt},
      {&Stats::updateCntInc, &Stats::updateCnt},
      {&Stats::updateWithFailedResourceCntInc, &Stats::updateWithFailedResourceCnt},
      {&Stats::suppressedWriteCntInc, &Stats::suppressedWriteCnt},
      {&Stats::suppressCheckDiffCntInc, &Stats::suppressCheckDiffCnt},
      {&Stats::tableClearCntInc, &Stats::tableClearCnt},
  };
  const auto stats = Lumen::makeNode<Stats>();
  std::uint64_t step = 1;
  for (const Counter& one : counters) {
    EXPECT_EQ((stats.get()->*one.read)(), 0U);
    (stats.get()->*one.inc)(step++);
  }
  step = 1;
  for (const Counter& one : counters) {
    EXPECT_EQ((stats.get()->*one.read)(), step++);
  }
  EXPECT_EQ(stats->lastCommitTime(), 0.0);
}

class Dependency final : public Asic::DependencyEntryHandle {
 public:
  [[nodiscard]] Lumen::Publisher* publisher() const override { return &publisher_; }
  [[nodiscard]] TableVersion entryTableVersion() const override { return {}; }
  void handleEntryState() override { ++handled; }

  int handled = 0;

 private:
  mutable Lumen::Publisher publisher_;
};

class StateWatch final : public Lumen::Subscriber {
 public:
  StateWatch() : Subscriber(&StateWatch::changed) {}
  std::vector<unsigned> olds;
  std::set<std::uint16_t> fields;

 private:
  static void changed(Lumen::Publisher*, Lumen::Subscriber* self, Lumen::FieldId field, const void*,
                      const void* old) {
    auto* watch = static_cast<StateWatch*>(self);
    watch->olds.push_back(static_cast<unsigned>(*static_cast<const Asic::EntryState*>(old)));
    watch->fields.insert(field.attribute());
  }
};

TEST(DependencyEntryHandle, PublishesAChangeOfItsStateAndNoOther) {
  const auto handle = Lumen::makeNode<Dependency>();
  EXPECT_EQ(handle->entryState(), Asic::EntryState::entryStateUnresolved);
  StateWatch watch;
  handle->publisher()->subscriberAdd(&watch);
  handle->entryStateIs(Asic::EntryState::entryStateUnresolved);
  EXPECT_EQ(handle->handled, 0);
  handle->entryStateIs(Asic::EntryState::entryStateInLog);
  handle->entryStateIs(Asic::EntryState::entryStateInLog);
  handle->entryStateIs(Asic::EntryState::entryStateSuccess);
  EXPECT_THAT(watch.olds, ElementsAre(0, 1));
  EXPECT_THAT(watch.fields, ElementsAre(130));
  EXPECT_EQ(handle->handled, 2);
  handle->publisher()->subscriberRemove(&watch);
}

}  // namespace
