#include <gmock/gmock.h>

#include <array>
#include <initializer_list>
#include <utility>

#include "ChipFixture.h"

// Records that wait for another table.

namespace {

using KelpEmServer::Isem1Tag;
using KelpEmServer::LemVpwsAc;

class ChipWaits : public TestSupport::ChipFixture<Isem1Tag> {
 protected:
  using Needs = std::initializer_list<std::pair<Asic::SwTableId, std::uint64_t>>;
  static constexpr Asic::SwTableId kIsem = Isem1Tag::tableId;
  static constexpr Asic::SwTableId kLem = LemVpwsAc::tableId;

  // The agent's half by hand: a record of unit 0 with its dependencies, and what becomes visible
  // when, as the test wants it.
  template <class T>
  struct Log {
    Lumen::Ptr<KelpEmServer::KelpEntryLog<T>> log;
    Lumen::Ptr<Asic::NeededQuilt> needed;
    std::uint64_t last = 0;

    void store(Needs needs = {}) {
      ++last;
      const auto entry = TestSupport::sampleEntry<typename T::Entry>(
          TestSupport::sampleKey<typename T::Entry::Key>(last), last);
      using Config = typename T::ConfigQuilt::Record;
      using Record = typename T::EntryLogQuilt::Record;
      const Asic::LogVersion version{last};
      log->tableConfigQuilt(Asic::UnitId{0})->swTableEntriesIs(Config(entry, version, false));
      log->tableEntryLog()->entryLogConfigIs(Record(version, entry.logEntry, Asic::UnitId{0}, 0));
      Asic::NeededQuiltEntry record;
      record.version = version;
      for (const auto& [table, at] : needs) {
        record.needed[record.count].tableId = table;
        record.needed[record.count].version = Asic::LogVersion{at};
        ++record.count;
      }
      if (record.count != 0) {
        needed->map().recordIs(record);
      }
    }
    void publish() { log->tableEntryLog()->collectionControl()->publishedIs(last); }
    void add(Needs needs = {}) {
      store(needs);
      publish();
    }
  };

  template <class T>
  Log<T> open() {
    const auto intf = KelpEmServer::KelpInterface<T>::getIntf(agent_);
    (void)intf->makeSwTable(unit0, nullptr, false);
    const auto path = Asic::Constants::groupNeededPath(
        Asic::Constants::canonicalizeGroupName("KelpTunnelNi", "KelpEmServerGroup"), T::tableId);
    return {intf->entryLog(), Lumen::dynamicPtrCast<Asic::NeededQuilt>(memory()->getEntity(path))};
  }
  void SetUp() override {
    start();
    isem_ = open<Isem1Tag>();
    lem_ = open<LemVpwsAc>();
    startChip();
    settle();
  }
  void TearDown() override {
    isem_ = {};
    lem_ = {};
    ChipFixture::TearDown();
  }
  void work() {
    while (chip_->work() != 0) {
    }
  }
  [[nodiscard]] std::uint64_t reached(Asic::SwTableId id) const { return chipTable(id).reached(); }

  Log<Isem1Tag> isem_;
  Log<LemVpwsAc> lem_;
};

TEST_F(ChipWaits, ForTheVersionOfAnotherTableAndGoesOnWithTheRest) {
  lem_.add();
  isem_.add();
  // Published in this order, as no agent does it, so that the waiting can be seen.
  lem_.store();
  lem_.store();
  isem_.store({{kLem, 3}});
  isem_.add();
  work();
  // Version 3 of the other table is not published: there is no such version.
  EXPECT_EQ(chipTable(kIsem).counts().dependenciesLeft, 1U);
  EXPECT_EQ(reached(kIsem), 3U);
  EXPECT_EQ(reached(kLem), 1U);
  EXPECT_TRUE(wasSaid("Isem1Tag: version 2 waits for version 3 of LemVpwsAc, whose last one is 1"));
}

TEST_F(ChipWaits, InTheMiddleOfABatch) {
  // The tables are gone over in the order of the catalogue, Isem1Tag first: it has to come back.
  for (int i = 0; i < 700; ++i) {
    lem_.add();
  }
  isem_.add();
  isem_.add({{kLem, 650}});
  isem_.add();
  EXPECT_GT(chip_->work(), 0U);
  EXPECT_EQ(reached(kIsem), 1U);
  EXPECT_EQ(reached(kLem), 512U);
  ASSERT_TRUE(chipTable(kIsem).held().has_value());
  EXPECT_EQ(chipTable(kIsem).held()->version, 2U);
  EXPECT_EQ(chipTable(kIsem).held()->waitsFor, (Asic::TableVersion{kLem, Asic::LogVersion{650}}));
  // What is held back is not reported.
  bool found = false;
  const auto status = Lumen::dynamicPtrCast<Asic::StatusQuilt>(memory()->openReader(
      Asic::Constants::groupStatusPath(group()->canonicalName()), Asic::kStatusQuiltType));
  EXPECT_EQ(status->map().find(kIsem, found).version.value, 1U);
  work();
  EXPECT_EQ(reached(kIsem), 3U);
  EXPECT_EQ(reached(kLem), 700U);
  EXPECT_EQ(status->map().find(kIsem, found).version.value, 3U);
  EXPECT_EQ(chipTable(kIsem).counts().heldBack, 1U);
  EXPECT_EQ(chipTable(kIsem).counts().dependenciesLeft, 0U);
  EXPECT_TRUE(chip_->check().same());
}

TEST_F(ChipWaits, NotForItsOwnTable) {
  isem_.add({{kIsem, 9}});
  work();
  EXPECT_EQ(reached(kIsem), 1U);
  EXPECT_EQ(chipTable(kIsem).counts().heldBack, 0U);
}

TEST_F(ChipWaits, NotForATableThatItDoesNotKnowAndSaysSo) {
  isem_.add({{Asic::SwTableId{0x29080999}, 1}});
  work();
  EXPECT_EQ(reached(kIsem), 1U);
  EXPECT_EQ(chipTable(kIsem).counts().dependenciesLeft, 1U);
  EXPECT_TRUE(wasSaid("waits for version 1 of table 29:08:0999, which is none of the chip's"));
}

TEST_F(ChipWaits, NotInACircleAndSaysSo) {
  isem_.store({{kLem, 1}});
  lem_.store({{kIsem, 1}});
  isem_.store();
  lem_.store();
  isem_.publish();
  lem_.publish();
  work();
  EXPECT_EQ(reached(kIsem), 2U);
  EXPECT_EQ(reached(kLem), 2U);
  EXPECT_EQ(chip_->notices().countOf("circles of dependencies"), 1U);
  EXPECT_TRUE(
      wasSaid("Isem1Tag version 1 waits for version 1 of LemVpwsAc version 1 waits for "
              "version 1 of Isem1Tag: a circle; version 1 of Isem1Tag goes out without"));
  EXPECT_TRUE(chip_->check().same());
}

TEST_F(ChipWaits, TheAgentsOwnDependenciesAreKeptInOrder) {
  // Through the library: an entry that needs another one's.
  const auto lem =
      KelpEmServer::KelpInterface<LemVpwsAc>::getIntf(agent_)->makeSwTable(unit0, nullptr, false);
  const auto isem = table();
  const auto key = TestSupport::sampleKey<LemVpwsAc::Entry::Key>(1);
  const auto first =
      lem->entryWrite(key, TestSupport::sampleEntry<LemVpwsAc::Entry>(key, 1), nullptr);
  const auto second = isem->entryWrite(this->key(1), this->entry(1), first);
  pass();
  EXPECT_GT(chip_->work(), 0U);
  // Isem1Tag was looked at first, and could not go on before LemVpwsAc had.
  EXPECT_EQ(chipTable(kIsem).counts().heldBack, 1U);
  EXPECT_EQ(reached(kIsem), 0U);
  work();
  group()->pollStatus();
  EXPECT_EQ(second->entryState(), Asic::EntryState::entryStateSuccess);
  EXPECT_TRUE(chip_->check().same());
}

}  // namespace
