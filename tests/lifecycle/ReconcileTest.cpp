#include <filesystem>
#include <fstream>

#include "LifecycleFixture.h"

// Units of an earlier run for which no table is made in this one, and all that looks like such a
// unit and is none.

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

template <class T>
class Reconcile : public TestSupport::LifecycleFixture<T> {
 public:
  using Fixture = TestSupport::LifecycleFixture<T>;
  using Constants = typename Fixture::Constants;

 protected:
  // A file that begins like the configuration collection of unit 1.
  void copyUnit1(const std::string& file) {
    std::filesystem::create_directories(std::filesystem::path(file).parent_path());
    std::ifstream from(this->configFile(this->unit1), std::ios::binary);
    std::string head(20000, 0);
    from.read(head.data(), static_cast<std::streamsize>(head.size()));
    std::ofstream(file, std::ios::binary) << head;
  }
  static std::string content(const std::string& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
  }
  std::vector<Asic::UnitId> units() {
    std::vector<Asic::UnitId> all;
    for (const auto& table : this->intf()->swTableSet()->swTables()) {
      all.push_back(table->unitId());
    }
    return all;
  }
};
TYPED_TEST_SUITE(Reconcile, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(Reconcile, AUnitThatNobodyAsksForIsClearedByOneTableDelete) {
  this->earlierRun(3);
  this->start(true);
  const auto table = this->table(this->unit0);
  TestSupport::TraceCapture traces("*KelpInterface/2,3,8");
  this->intf()->reconcile();
  const auto& lines = traces.lines();
  ASSERT_EQ(lines.size(), 5U + this->linkages());
  EXPECT_EQ(lines[0].level, 8U);
  EXPECT_EQ(lines[0].text, "");
  EXPECT_EQ(lines[1].level, 3U);
  EXPECT_EQ(lines[1].text, " No. of config entities found: 2, in quilt path: " +
                               TestFixture::Constants::configQuiltPathBase());
  EXPECT_EQ(lines[2].level, 3U);
  EXPECT_EQ(lines[2].text, " Found inactive unit id: 1 ");
  EXPECT_EQ(lines[3].text, "unitId: 1");
  EXPECT_EQ(lines.back().level, 2U);
  EXPECT_EQ(lines.back().text, this->named(" Clearing entries for table: ", "Kelp, unitId: 1"));

  EXPECT_EQ(this->changes().back(), this->cleared(7, this->unit1));
  EXPECT_EQ(this->tableVersion(), 7U);
  const auto cleared = this->table(this->unit1);
  EXPECT_EQ(cleared->entrys(), 0U);
  EXPECT_FALSE(cleared->inMarkingState());
  EXPECT_NE(cleared->swTableHelper(), nullptr);
  EXPECT_THAT(this->view(table), ElementsAre(0, 1, 2)) << "the other unit is left alone";
  EXPECT_TRUE(table->inMarkingState());
}

TYPED_TEST(Reconcile, ASecondCallMakesNothing) {
  this->earlierRun(3);
  this->start(true);
  (void)this->table(this->unit0);
  this->intf()->reconcile();
  const auto changes = this->changes();
  TestSupport::TraceCapture traces("*KelpInterface/2,3");
  this->intf()->reconcile();
  ASSERT_EQ(traces.lines().size(), 1U);
  EXPECT_EQ(traces.lines()[0].text, " No. of config entities found: 2, in quilt path: " +
                                        TestFixture::Constants::configQuiltPathBase());
  EXPECT_EQ(this->changes(), changes);
}

TYPED_TEST(Reconcile, UnitsInUseAreLeftAlone) {
  this->earlierRun(3);
  this->start(true);
  (void)this->table(this->unit0);
  (void)this->table(this->unit1);
  const auto changes = this->changes();
  this->intf()->reconcile();
  EXPECT_EQ(this->changes(), changes);
  EXPECT_THAT(this->view(this->table(this->unit1)), ElementsAre(0, 1, 2));
}

TYPED_TEST(Reconcile, AnInactiveUnitWithoutEntriesLogsNothing) {
  this->earlierRun(3);
  this->start();
  (void)this->table(this->unit0);
  this->intf()->reconcile();
  this->report(this->tableVersion());
  this->restart(true);
  (void)this->table(this->unit0);
  const std::uint64_t version = this->tableVersion();
  TestSupport::TraceCapture traces("*KelpInterface/3");
  this->intf()->reconcile();
  EXPECT_TRUE(traces.has(3, " Found inactive unit id: 1 ")) << "its collection is still there";
  EXPECT_EQ(this->tableVersion(), version);
}

TYPED_TEST(Reconcile, NothingIsThereAndNothingIsMade) {
  TestSupport::TraceCapture traces("*KelpInterface/3");
  this->intf()->reconcile();
  EXPECT_TRUE(traces.has(3, " No. of config entities found: 0, in quilt path: " +
                                TestFixture::Constants::configQuiltPathBase()));
  EXPECT_THAT(this->units(), IsEmpty());
}

TYPED_TEST(Reconcile, ManyUnitsAreClearedOneByOne) {
  this->earlierRun(2, {Asic::UnitId{0}, Asic::UnitId{7}, Asic::UnitId{10}, Asic::UnitId{65535}});
  this->start(true);
  (void)this->table(Asic::UnitId{10});
  this->intf()->reconcile();
  EXPECT_THAT(this->units(), testing::UnorderedElementsAre(Asic::UnitId{0}, Asic::UnitId{7},
                                                           Asic::UnitId{10}, Asic::UnitId{65535}));
  EXPECT_EQ(this->tableVersion(), 8U + 3U);
  EXPECT_THAT(this->view(this->table(Asic::UnitId{10})), ElementsAre(0, 1));
  EXPECT_EQ(this->table(Asic::UnitId{7})->entrys(), 0U);
}

TYPED_TEST(Reconcile, WhatHoldsNoUnitIsNeverClearedAsOne) {
  this->earlierRun(3);
  const std::string base =
      this->fileOf(TestFixture::Constants::configQuiltPathBase());  // "....quilt"
  const std::string config = base.substr(0, base.size() - std::string(".quilt").size());
  const std::string table = std::filesystem::path(config).parent_path().native();
  const std::vector<std::string> others{
      // Set aside, begun, or of somebody else's making, in the folder of the units.
      config + "/2.quilt.aside.1", config + "/3.quilt.new", config + "/4.register",
      config + "/05.quilt", config + "/+6.quilt", config + "/7x.quilt", config + "/65536.quilt",
      config + "/%38.quilt", config + "/-9.quilt", config + "/unit.quilt", config + "/11",
      // Deeper, and beside it.
      config + "/deeper/12.quilt", config + "/1/13.quilt", base, table + "/14.quilt",
      table + "/config2/15.quilt", table + "/configs/16.quilt",
      // Tables whose names start alike.
      table + "X/config/17.quilt", table + "/config/18/config/19.quilt"};
  for (const std::string& file : others) {
    this->copyUnit1(file);
  }
  std::vector<std::string> before;
  for (const std::string& file : others) {
    before.push_back(this->content(file));
  }
  this->start(true);
  (void)this->table(this->unit0);
  TestSupport::TraceCapture traces("*KelpInterface/3");
  this->intf()->reconcile();
  EXPECT_TRUE(traces.has(3, " Found inactive unit id: 1 "));
  EXPECT_THAT(this->units(), testing::UnorderedElementsAre(this->unit0, this->unit1));
  EXPECT_EQ(this->tableVersion(), 7U);
  for (std::size_t i = 0; i < others.size(); ++i) {
    EXPECT_TRUE(before[i] == this->content(others[i])) << others[i];
  }
}

TYPED_TEST(Reconcile, TheFileOfAWipedCollectionIsNoUnit) {
  // Unit 1 is damaged and taken over, which sets its file aside; then the unit goes altogether.
  this->earlierRun(3);
  std::filesystem::resize_file(this->configFile(this->unit1), 100);
  {
    const TestSupport::LogTexts messages;
    (void)this->table(this->unit1);
    EXPECT_EQ(messages.texts().size(), 1U);
  }
  this->stop();
  std::filesystem::remove(this->configFile(this->unit1));
  std::size_t aside = 0;
  for (const auto& file : std::filesystem::directory_iterator(
           std::filesystem::path(this->configFile(this->unit0)).parent_path())) {
    aside += file.path().native().find(".aside.") != std::string::npos ? 1U : 0U;
  }
  EXPECT_EQ(aside, 1U);
  this->start(true);
  (void)this->table(this->unit0);
  this->intf()->reconcile();
  EXPECT_THAT(this->units(), ElementsAre(this->unit0));
}

TYPED_TEST(Reconcile, ADamagedUnitThatNobodyAsksForIsTakenOverAndCleared) {
  this->earlierRun(20);
  this->start();
  {
    bool found = false;
    (void)this->table(this->unit1);
    const auto& map = this->log()->tableConfigQuilt(this->unit1)->swTableEntries();
    const auto& record = map.find(this->key(4), found);
    TestSupport::flipByte(this->root_.path(), map, &record.version);
  }
  this->restart(true);
  const TestSupport::LogTexts messages;
  (void)this->table(this->unit0);
  this->intf()->reconcile();
  EXPECT_EQ(messages.texts().size(), 1U);
  EXPECT_EQ(this->changes().back(), this->cleared(41, this->unit1));
  EXPECT_EQ(this->table(this->unit1)->entrys(), 0U);
}

// A table of the group whose name begins like this one's.
TEST(Neighbours, ATableWhoseNameStartsAlikeKeepsItsUnits) {
  class Tables : public TestSupport::LifecycleFixture<KelpEmServer::EsemFodo> {
   public:
    void TestBody() override {}
    void run() {
      using Other = KelpEmServer::EsemFodoVd;
      start();
      auto other = KelpEmServer::KelpInterface<Other>::getIntf(agent_)->makeSwTable(Asic::UnitId{5},
                                                                                    nullptr, false);
      using OtherEntry = Other::Entry;
      const auto key = TestSupport::sampleKey<OtherEntry::Key>(1);
      (void)other->entryWrite(key, TestSupport::sampleEntry<OtherEntry>(key, 1), nullptr);
      writeAll(table(Asic::UnitId{4}), 0, 2);
      other = nullptr;
      restart(true);
      (void)KelpEmServer::KelpInterface<Other>::getIntf(agent_);
      intf()->reconcile();
      EXPECT_TRUE(intf()->swTableSet()->swTableHas(Asic::UnitId{4}));
      EXPECT_FALSE(intf()->swTableSet()->swTableHas(Asic::UnitId{5}));
      other = KelpEmServer::KelpInterface<Other>::getIntf(agent_)->makeSwTable(Asic::UnitId{5},
                                                                               nullptr, false);
      EXPECT_TRUE(other->entryHas(key));
      other = nullptr;
      stop();
    }
  };
  Tables tables;
  tables.run();
}

}  // namespace
