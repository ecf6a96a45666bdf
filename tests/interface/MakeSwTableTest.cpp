#include <map>

#include "Asic/CanonicalTableName.h"
#include "InterfaceFixture.h"

// Making the software table of a unit: the first time, over what an earlier run left, and again.

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

template <class T>
class MakeSwTable : public TestSupport::InterfaceFixture<T> {
 public:
  using Helper = KelpEmServer::KelpSwTableHelperBase<T>;

 protected:
  auto make(Asic::UnitId unit, bool reset, const Lumen::Ptr<Helper>& helper = nullptr) {
    return this->intf()->makeSwTable(unit, helper, reset);
  }
};
TYPED_TEST_SUITE(MakeSwTable, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(MakeSwTable, ANewTableIsWiredToItsInterface) {
  const auto table = this->make(Asic::UnitId{6}, false);
  const auto intf = this->intf();
  EXPECT_EQ(table->unitId(), Asic::UnitId{6});
  EXPECT_EQ(table->tableId(), TypeParam::tableId);
  EXPECT_EQ(table->canonicalName()->name(),
            this->tableText("OrderedSwTable.KelpEmServerGroup.", "Kelp"));
  EXPECT_EQ(table->entryLog(), intf->entryLog());
  EXPECT_EQ(table->groupResolver(), this->group()->groupResolver());
  EXPECT_EQ(table->swTableSet(), intf->swTableSet().get());
  EXPECT_EQ(table->status(), intf->swTableStatus());
  EXPECT_EQ(intf->swTableSet()->swTable(Asic::UnitId{6}), table);
  EXPECT_THAT(this->group()->sweepableSwTables(), ElementsAre(table));
  EXPECT_NE(table->swTableHelper(), nullptr) << "a table always has a helper";
  EXPECT_FALSE(table->transientRemoveAllVersion().valid());
  EXPECT_EQ(table->entrys(), 0U);
  EXPECT_NE(intf->entryLog()->tableConfigQuilt(Asic::UnitId{6}), nullptr);
}

TYPED_TEST(MakeSwTable, ASecondCallGivesTheSameTableAndDoesNothingElse) {
  this->start(true);
  const auto table = this->make(this->unit0, false);
  EXPECT_TRUE(table->inMarkingState());
  table->sweep();
  EXPECT_FALSE(table->inMarkingState());
  TestSupport::TraceCapture traces("*Kelp*/1-9");
  EXPECT_EQ(this->make(this->unit0, false), table);
  EXPECT_FALSE(table->inMarkingState());
  ASSERT_EQ(traces.lines().size(), 2U) << "no mount, no restore, no mark, no report";
  EXPECT_EQ(traces.lines()[0].level, 8U);
  EXPECT_EQ(traces.lines()[0].text, "unitId: 0");
  EXPECT_EQ(traces.lines()[1].level, 3U);
  EXPECT_EQ(traces.lines()[1].text, "swTable with unitId: 0 exists");
  EXPECT_EQ(traces.lines()[1].handle, this->tableText("", "KelpInterface"));
  EXPECT_EQ(this->group()->sweepableSwTables().size(), 1U);
}

TYPED_TEST(MakeSwTable, EachUnitHasItsOwnTable) {
  const auto table0 = this->make(this->unit0, false);
  const auto table1 = this->make(this->unit1, false);
  EXPECT_NE(table0, table1);
  EXPECT_EQ(table0->status(), table1->status());
  EXPECT_EQ(this->intf()->swTableSet()->swTables().size(), 2U);
  this->commit(table0, 1);
  EXPECT_TRUE(table0->entryHas(this->key(1)));
  EXPECT_FALSE(table1->entryHas(this->key(1)));
}

TYPED_TEST(MakeSwTable, AHelperIsTakenAndReplacedAndANullOneKeepsTheFirst) {
  using Helper = typename TestFixture::Helper;
  const auto first = Lumen::makeNode<Helper>();
  const auto second = Lumen::makeNode<Helper>();
  const auto table = this->make(this->unit0, false, first);
  EXPECT_EQ(table->swTableHelper(), first);
  TestSupport::TraceCapture traces("*KelpInterface/2");
  (void)this->make(this->unit0, false, nullptr);
  EXPECT_EQ(table->swTableHelper(), first);
  EXPECT_THAT(traces.lines(), IsEmpty());
  (void)this->make(this->unit0, false, second);
  EXPECT_EQ(table->swTableHelper(), second);
  EXPECT_TRUE(traces.has(2, "Update software table helper"));
}

TYPED_TEST(MakeSwTable, AHelperOfANewTableIsThereWhenItIsCleared) {
  // The helper is set before the clear and the restore.
  using Helper = typename TestFixture::Helper;
  this->earlierRun(2);
  const auto helper = Lumen::makeNode<Helper>();
  EXPECT_EQ(this->make(this->unit0, true, helper)->swTableHelper(), helper);
}

TYPED_TEST(MakeSwTable, WithoutAStatusRowTheConfigurationIsMountedWithVersion0) {
  auto table = this->table();
  this->commit(table, 1);
  (void)table->entryRemove(this->key(1), nullptr);
  this->pass();
  table = nullptr;
  this->restart();
  (void)this->intf();
  TestSupport::TraceCapture traces("*KelpEntryLog/8");
  table = this->table();
  EXPECT_TRUE(traces.has(8, " unitId:0, logVersion: 0"));
  EXPECT_EQ(this->intf()->entryLog()->entrysInDeletion(this->unit0), 1U);
}

TYPED_TEST(MakeSwTable, TheConfigurationIsMountedWithTheVersionOfTheStatusRow) {
  auto table = this->table();
  for (std::uint64_t i = 0; i < 3; ++i) {
    this->commit(table, i);
  }
  (void)table->entryRemove(this->key(0), nullptr);
  (void)table->entryRemove(this->key(1), nullptr);
  this->pass();
  const std::uint64_t incarnation = this->incarnation();
  table = nullptr;
  this->stop();
  this->leaveRow(4, incarnation);
  (void)this->intf();
  {
    TestSupport::TraceCapture traces("*KelpEntryLog/8:*KelpSwTable/8");
    table = this->table();
    EXPECT_TRUE(traces.has(8, " unitId:0, logVersion: 4"));
    EXPECT_TRUE(traces.has(8, "tableVersion: 4"));
  }
  EXPECT_EQ(this->intf()->entryLog()->entrysInDeletion(this->unit0), 1U)
      << "the delete at version 5 is not covered";
  EXPECT_EQ(this->intf()->entryLog()->entryLogVersion(this->key(0), this->unit0).value, 0U);
  EXPECT_TRUE(table->hasPendingHwWrites());
  this->report(5);
  EXPECT_EQ(this->intf()->entryLog()->entrysInDeletion(this->unit0), 0U);
  EXPECT_FALSE(table->hasPendingHwWrites());
}

TYPED_TEST(MakeSwTable, AnEarlierRunsEntriesAreTakenOver) {
  this->earlierRun(5);
  (void)this->intf();
  TestSupport::TraceCapture traces("*KelpInterface/2");
  const auto table = this->make(this->unit0, false);
  EXPECT_EQ(table->entrys(), 5U);
  for (std::uint64_t i = 0; i < 5; ++i) {
    EXPECT_TRUE(TestSupport::isAsked(table->entryRead(this->key(i)), this->entry(i)));
  }
  EXPECT_EQ(table->transientAddEntry().size(), 0U) << "no entry is held in memory";
  ASSERT_EQ(traces.lines().size(), 1U + this->linkages());
  EXPECT_EQ(traces.lines().back().text,
            this->tableText(" Restored 5 entries for table: ", "Kelp, unitId: 0"));
  EXPECT_EQ(this->intf()->entryLog()->tableVersion().value, 5U);
}

TYPED_TEST(MakeSwTable, WithMarkingANewTableMarksAndASweepRemovesWhatWasNotWritten) {
  this->earlierRun(3);
  this->start(true);
  const auto table = this->make(this->unit0, false);
  EXPECT_TRUE(table->inMarkingState());
  this->commit(table, 1);
  EXPECT_EQ(this->intf()->entryLog()->tableVersion().value, 3U) << "an identical write";
  EXPECT_EQ(table->stats()->suppressedWriteCnt(), 1U);
  TestSupport::TraceCapture traces("*KelpSwTable/6");
  table->sweep();
  EXPECT_TRUE(traces.has(6, "Swept 2 entries"));
  EXPECT_FALSE(table->inMarkingState());
  this->pass();
  EXPECT_EQ(table->entrys(), 1U);
  EXPECT_TRUE(table->entryHas(this->key(1)));
}

TYPED_TEST(MakeSwTable, WithSkipMarkOnRestoreANewTableDoesNotMarkAndASweepRemovesNothing) {
  this->earlierRun(3);
  this->start();
  EXPECT_TRUE(this->agent_->skipMarkOnRestore());
  const auto table = this->make(this->unit0, false);
  EXPECT_FALSE(table->inMarkingState());
  TestSupport::TraceCapture traces("*KelpSwTable/6");
  table->sweep();
  EXPECT_TRUE(traces.has(6, "Swept 0 entries"));
  EXPECT_EQ(this->pass(), 0U);
  EXPECT_EQ(table->entrys(), 3U);
}

TYPED_TEST(MakeSwTable, WithResetANewTableIsEmptyAndDoesNotMark) {
  this->earlierRun(4);
  this->start(true);
  (void)this->intf();
  TestSupport::TraceCapture traces("*KelpInterface/2");
  const auto table = this->make(this->unit0, true);
  EXPECT_FALSE(table->inMarkingState());
  EXPECT_EQ(table->entrys(), 0U);
  EXPECT_FALSE(table->entryHas(this->key(1)));
  EXPECT_EQ(table->stats()->tableClearCnt(), 1U);
  EXPECT_THAT(this->logVersions(), ElementsAre(1, 2, 3, 4, 5));
  EXPECT_TRUE(table->hasPendingHwWrites());
  ASSERT_EQ(traces.lines().size(), 1U + this->linkages());
  EXPECT_EQ(traces.lines().back().text,
            this->tableText(" Clearing entries for table: ", "Kelp, unitId: 0"));
  EXPECT_THAT(this->group()->sweepableSwTables(), ElementsAre(table));
}

TYPED_TEST(MakeSwTable, WithResetAFreshTableLogsNothing) {
  const auto table = this->make(this->unit0, true);
  EXPECT_THAT(this->logVersions(), IsEmpty());
  EXPECT_EQ(table->stats()->tableClearCnt(), 0U);
  EXPECT_FALSE(table->hasPendingHwWrites());
}

TYPED_TEST(MakeSwTable, WithResetATableThatExistsIsCleared) {
  this->start(true);
  const auto table = this->make(this->unit0, false);
  this->commit(table, 1);
  const auto waiting = table->entryWrite(this->key(2), this->entry(2), nullptr);
  TestSupport::TraceCapture traces("*KelpInterface/2");
  EXPECT_EQ(this->make(this->unit0, true), table);
  ASSERT_EQ(traces.lines().size(), 1U);
  EXPECT_EQ(traces.lines().back().text,
            fmt::format(" Clearing entries for table id: {}", TypeParam::tableId));
  EXPECT_TRUE(table->inMarkingState()) << "nothing else happens";
  EXPECT_FALSE(table->entryHas(this->key(1)));
  EXPECT_TRUE(table->entryHas(this->key(2))) << "what is in flight stays in flight";
  this->pass();
  EXPECT_EQ(waiting->logVersion().value, 3U) << "and commits after the clear";
}

// Where the table stands while its steps run.
TYPED_TEST(MakeSwTable, NobodySeesTheTableBeforeItIsClearedOrRestored) {
  this->earlierRun(3);
  (void)this->intf();
  const auto set = this->intf()->swTableSet();
  for (const bool reset : {true, false}) {
    SCOPED_TRACE(reset);
    const Asic::UnitId unit = reset ? this->unit0 : this->unit1;
    std::vector<std::pair<std::string, bool>> steps;
    const TestSupport::TraceCapture on("*Kelp*/2,8");
    const auto previous = Lumen::traceSinkIs([&](const Lumen::TraceRecord& record) {
      for (const char* step :
           {" Mounted config", "releaseResources: false", " neededEntry:{}, unitId", " Restored",
            " Clearing", "tableVersion: 0"}) {
        if (record.text.find(step) != std::string_view::npos) {
          steps.emplace_back(step, set->swTableHas(unit));
        }
      }
    });
    (void)this->make(unit, reset);
    Lumen::traceSinkIs(previous);
    using Steps = std::vector<std::pair<std::string, bool>>;
    if (reset) {
      EXPECT_EQ(steps, (Steps{{" Mounted config", false},
                              {" Clearing", false},
                              {"releaseResources: false", false},
                              {" neededEntry:{}, unitId", false},
                              {"tableVersion: 0", true}}));
    } else {
      EXPECT_EQ(
          steps,
          (Steps{{" Mounted config", false}, {" Restored", false}, {"tableVersion: 0", true}}));
    }
  }
}

TYPED_TEST(MakeSwTable, CallsAreTraced) {
  (void)this->intf();
  TestSupport::TraceCapture traces("*KelpInterface/8");
  (void)this->make(Asic::UnitId{77}, false);
  ASSERT_EQ(traces.lines().size(), 1U);
  EXPECT_EQ(traces.lines().back().text, "unitId: 77");
}

template <class T>
class MakeSwTableDeathTest : public TestSupport::InterfaceFixture<T> {};
TYPED_TEST_SUITE(MakeSwTableDeathTest, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(MakeSwTableDeathTest, AGroupWithoutTheTablesSetEndsTheProcess) {
  const auto intf = this->intf();
  this->agent_->groupIntfColl()->groupIntfIs(Lumen::makeNode<Asic::GroupInterface>(
      this->group()->canonicalName(), this->vault_, std::uint16_t{0x2908}));
  EXPECT_DEATH((void)intf->makeSwTable(this->unit0, nullptr, false),
               HasSubstr("Assertion `groupIntf->swTableSetHas( tableId() )' failed"));
}

TYPED_TEST(MakeSwTableDeathTest, AnAgentWithoutTheGroupEndsTheProcess) {
  using Groups = std::map<Lumen::String, Lumen::Ptr<Asic::GroupInterface>>;
  const auto intf = this->intf();
  EXPECT_DEATH(
      {
        // No operation takes a group out of an agent: this is what one is left with that lost it.
        const_cast<Groups&>(this->agent_->groupIntfColl()->groupIntfs()).clear();
        (void)intf->makeSwTable(this->unit0, nullptr, false);
      },
      HasSubstr("Assertion `groupIntf' failed"));
}

TYPED_TEST(MakeSwTableDeathTest, ATableOfAnotherClassInTheSetEndsTheProcess) {
  using Other = std::conditional_t<std::is_same_v<TypeParam, KelpEmServer::IsemMpls>,
                                   KelpEmServer::Isem2Tag, KelpEmServer::IsemMpls>;
  const auto intf = this->intf();
  intf->swTableSet()->swTableIs(KelpEmServer::KelpInterface<Other>::getIntf(this->agent_)
                                    ->makeSwTable(this->unit1, nullptr, false));
  EXPECT_DEATH((void)intf->makeSwTable(this->unit1, nullptr, false),
               HasSubstr("Assertion `existingTbl' failed"));
  // The foreign table must not be swept or reported to on the way out.
  this->group()->swTableSetIs(
      Lumen::makeNode<Asic::OrderedSwTableSet>(TypeParam::tableId, intf->swTableStatus()));
}

}  // namespace
