#include <memory>
#include <set>

#include "LifecycleFixture.h"

// The start of an agent as a whole, from nothing and from what an earlier run left, on two units.

namespace {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

template <class T>
class Restart : public TestSupport::LifecycleFixture<T> {
 public:
  using Fixture = TestSupport::LifecycleFixture<T>;
  using typename Fixture::Handle;
  using typename Fixture::Table;

 protected:
  void TearDown() override {
    handles_.clear();
    tables_.clear();
    Fixture::TearDown();
  }
  void restartMarking() {
    handles_.clear();
    tables_.clear();
    this->restart(true);
    tables_ = {this->table(this->unit0), this->table(this->unit1)};
  }
  // The features of a run write the numbers `from` to `to` - 1 on both units.
  void replay(std::uint64_t from, std::uint64_t to, std::uint64_t variant = 0) {
    for (std::uint64_t i = from; i < to; ++i) {
      for (const auto& table : tables_) {
        handles_.push_back(this->write(table, i, variant));
      }
    }
    this->pass();
  }
  // What an agent does when its features are done.
  void replayComplete() {
    this->intf()->reconcile();
    this->group()->sweepAll();
    this->pass();
    for (const auto& table : tables_) {
      EXPECT_FALSE(table->inMarkingState());
      EXPECT_TRUE(table->markedKey().empty());
    }
  }
  void run(std::uint64_t from, std::uint64_t to) {
    restartMarking();
    replay(from, to);
    replayComplete();
  }
  std::vector<unsigned> states() {
    std::vector<unsigned> all;
    for (const Handle& handle : handles_) {
      all.push_back(this->state(handle));
    }
    return all;
  }
  // All that the hardware side can see of the table.
  std::vector<std::string> everything() {
    auto lines = this->changes();
    for (const Asic::UnitId unit : {this->unit0, this->unit1}) {
      for (const std::string& line : this->records(unit)) {
        lines.push_back(fmt::format("{} on {}", line, unit));
      }
    }
    const auto control = this->log()->tableEntryLog()->collectionControl();
    lines.push_back(fmt::format("published {}, saved {}, incarnation {}", control->published(),
                                control->scratchpad(), control->incarnation()));
    return lines;
  }
  std::uint64_t suppressed() {
    return tables_[0]->stats()->suppressedWriteCnt() + tables_[1]->stats()->suppressedWriteCnt();
  }

  std::vector<Lumen::Ptr<Table>> tables_;
  std::vector<Handle> handles_;
};
TYPED_TEST_SUITE(Restart, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(Restart, FromNothing) {
  this->start(true);
  TestSupport::TraceCapture traces("*Kelp*/2,3,6,8");
  this->tables_ = {this->table(this->unit0), this->table(this->unit1)};
  EXPECT_TRUE(traces.has(
      2, fmt::format(" Entry log created for table id: {} at version: 0", TypeParam::tableId)));
  for (const auto& line : traces.lines()) {
    EXPECT_EQ(line.text.find("Cleaned entry log"), std::string::npos) << line.text;
    EXPECT_EQ(line.text.find("Turning ON"), std::string::npos) << line.text;
  }
  EXPECT_TRUE(traces.has(8, " unitId:0, logVersion: 0"));
  EXPECT_TRUE(traces.has(8, " unitId:1, logVersion: 0"));
  EXPECT_FALSE(this->intf()->swTableStatus()->pendingHwWrites());
  for (const auto& table : this->tables_) {
    EXPECT_TRUE(table->inMarkingState());
  }
  this->replay(0, 10);
  EXPECT_EQ(this->tables_[0]->markedKey().size(), 10U);
  traces.clear();
  this->replayComplete();
  EXPECT_TRUE(traces.has(6, "Swept 0 entries"));
  EXPECT_EQ(this->tableVersion(), 20U);
  EXPECT_EQ(this->tables_[0]->entrys() + this->tables_[1]->entrys(), 20U);
  EXPECT_EQ(this->suppressed(), 0U);
}

TYPED_TEST(Restart, FromAnExistingLogVersionsGoOn) {
  this->run(0, 10);
  this->report(12);
  this->restartMarking();
  EXPECT_EQ(this->tableVersion(), 20U);
  EXPECT_EQ(this->log()->lastCleanedVersion().value, 12U);
  EXPECT_EQ(this->changes().size(), 8U);
  EXPECT_TRUE(this->intf()->swTableStatus()->pendingHwWrites());
  this->replay(0, 11);
  this->replayComplete();
  EXPECT_EQ(this->tableVersion(), 22U);
  EXPECT_THAT(this->changes(),
              testing::IsSupersetOf({this->wrote(21, 10), this->wrote(22, 10, this->unit1)}));
  EXPECT_EQ(this->changes().size(), 10U);
}

TYPED_TEST(Restart, ASecondRunWithTheSameIntentsLeavesTheLogUntouched) {
  this->run(0, 40);
  this->report(50);
  const auto before = this->everything();
  for (int again = 0; again < 3; ++again) {
    this->run(0, 40);
    EXPECT_EQ(this->everything(), before);
    EXPECT_EQ(this->suppressed(), 80U);
    EXPECT_EQ(this->tables_[0]->stats()->suppressCheckDiffCnt(), 0U);
    EXPECT_EQ(this->tables_[0]->stats()->entryRemoveCnt(), 0U);
  }
}

TYPED_TEST(Restart, HandlesOfSuppressedWritesEndWhenTheirRecordHasBeenReported) {
  this->run(0, 5);
  this->report(6);
  this->run(0, 5);
  // Versions 1 to 10 belong to keys 0 to 4, two units each.
  EXPECT_THAT(this->states(), ElementsAre(4, 4, 4, 4, 4, 4, 1, 1, 1, 1));
  for (std::size_t i = 0; i < 10; ++i) {
    EXPECT_EQ(this->handles_[i]->logVersion().value, i + 1);
  }
  this->report(8);
  EXPECT_THAT(this->states(), ElementsAre(4, 4, 4, 4, 4, 4, 4, 4, 1, 1));
  this->report(10);
  EXPECT_THAT(this->states(), Each(4U));
  EXPECT_FALSE(this->tables_[0]->hasPendingHwWrites());
}

TYPED_TEST(Restart, AChangedRunLeavesExactlyTheDifference) {
  this->run(0, 20);
  this->report(40);
  ASSERT_THAT(this->changes(), IsEmpty());
  this->restartMarking();
  this->replay(0, 10);      // as they were
  this->replay(10, 13, 2);  // changed
  this->replay(30, 32);     // new; 13 to 19 are not wanted any more
  EXPECT_EQ(this->suppressed(), 20U);
  EXPECT_EQ(this->tables_[0]->stats()->suppressCheckDiffCnt(), 3U);
  this->replayComplete();
  std::vector<std::string> expected;
  std::uint64_t version = 40;
  for (const std::uint64_t number : {10, 11, 12, 30, 31}) {
    for (const Asic::UnitId unit : {this->unit0, this->unit1}) {
      expected.push_back(this->wrote(++version, number, unit));
    }
  }
  auto changes = this->changes();
  ASSERT_EQ(changes.size(), 24U);
  const std::vector<std::string> deletes(changes.begin() + 10, changes.end());
  changes.resize(10);
  EXPECT_EQ(changes, expected);
  // The order of a sweep is that of the collections; versions go up all the same.
  std::set<std::string> swept;
  for (const std::string& line : deletes) {
    EXPECT_TRUE(line.starts_with(fmt::format("{} delete ", ++version))) << line;
    swept.insert(line.substr(line.find(' ') + 1));
  }
  std::set<std::string> expectedSwept;
  for (std::uint64_t number = 13; number < 20; ++number) {
    for (const Asic::UnitId unit : {this->unit0, this->unit1}) {
      expectedSwept.insert(this->deleted(0, number, unit).substr(2));
    }
  }
  EXPECT_EQ(swept, expectedSwept);
  EXPECT_EQ(this->tableVersion(), 64U);
  for (const auto& table : this->tables_) {
    EXPECT_THAT(this->view(table), ElementsAre(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 30, 31));
    EXPECT_TRUE(TestSupport::isAsked(table->entryRead(this->key(11)), this->entry(11, 2)));
  }
}

TYPED_TEST(Restart, ASweepRemovesExactlyWhatNobodyWrote) {
  this->run(0, 60);
  this->restartMarking();
  for (std::uint64_t i = 0; i < 60; i += 3) {
    this->write(this->tables_[0], i);
  }
  for (std::uint64_t i = 0; i < 60; i += 5) {
    this->write(this->tables_[1], i);
  }
  this->pass();
  this->replayComplete();
  for (std::uint64_t i = 0; i < 60; ++i) {
    EXPECT_EQ(this->tables_[0]->entryHas(this->key(i)), i % 3 == 0) << i;
    EXPECT_EQ(this->tables_[1]->entryHas(this->key(i)), i % 5 == 0) << i;
  }
  EXPECT_EQ(this->tables_[0]->stats()->entryRemoveCnt(), 40U);
  EXPECT_EQ(this->tables_[1]->stats()->entryRemoveCnt(), 48U);
}

TYPED_TEST(Restart, ATableSweptTwiceLosesNothingMore) {
  this->run(0, 10);
  this->restartMarking();
  this->replay(0, 5);
  this->replayComplete();
  const auto before = this->everything();
  this->writeAll(this->tables_[0], 20, 25);
  const std::uint64_t version = this->tableVersion();
  this->replayComplete();
  EXPECT_EQ(this->tableVersion(), version);
  EXPECT_EQ(this->tables_[0]->entrys(), 10U);
  EXPECT_EQ(this->tables_[1]->entrys(), 5U);
  EXPECT_GT(this->everything().size(), before.size());
}

TYPED_TEST(Restart, AnAgentThatDiesBeforeItsSweepLosesNothing) {
  this->run(0, 20);
  const auto before = this->everything();
  this->restartMarking();
  this->replay(0, 7);  // and no further
  EXPECT_EQ(this->everything(), before);
  this->restartMarking();
  for (const auto& table : this->tables_) {
    this->write(table, 3);
    table->sweep();  // queued, and lost with the agent
    EXPECT_EQ(table->entrys(), 1U);
  }
  this->restartMarking();
  EXPECT_EQ(this->everything(), before);
  EXPECT_EQ(this->tables_[0]->entrys(), 20U);
  this->replay(0, 20);
  this->replayComplete();
  EXPECT_EQ(this->everything(), before);
}

TYPED_TEST(Restart, AUnitThatNobodyAsksForIsClearedAndStaysEmpty) {
  this->run(0, 5);
  this->report(10);
  const auto onlyUnit0 = [&] {
    this->handles_.clear();
    this->tables_.clear();
    this->restart(true);
    this->tables_ = {this->table(this->unit0)};
    this->replay(0, 5);
    this->replayComplete();
  };
  onlyUnit0();
  EXPECT_THAT(this->changes(), ElementsAre(this->cleared(11, this->unit1)));
  EXPECT_EQ(this->tables_[0]->entrys(), 5U);
  this->report(11);
  onlyUnit0();
  EXPECT_THAT(this->changes(), IsEmpty());
  EXPECT_EQ(this->tableVersion(), 11U);
  // Asked for again, it begins anew.
  this->restartMarking();
  EXPECT_EQ(this->tables_[1]->entrys(), 0U);
  this->replay(0, 5);
  this->replayComplete();
  EXPECT_EQ(this->changes().size(), 5U);
  EXPECT_EQ(this->tableVersion(), 16U);
}

TYPED_TEST(Restart, ADeadHardwareSideKeepsTheLogWholeOverManyStarts) {
  for (std::uint64_t run = 0; run < 5; ++run) {
    this->handles_.clear();
    this->tables_.clear();
    this->restart(true);
    EXPECT_FALSE(this->intf()->swTableStatus()->pendingHwWrites()) << "no row, no flag";
    this->tables_ = {this->table(this->unit0), this->table(this->unit1)};
    EXPECT_EQ(this->intf()->swTableStatus()->pendingHwWrites(), run != 0) << "the tables know";
    this->replay(0, 10 * (run + 1));
    this->replayComplete();
  }
  EXPECT_EQ(this->tableVersion(), 100U);
  EXPECT_EQ(this->changes().size(), 100U);
  this->report(100);
  EXPECT_THAT(this->changes(), IsEmpty());
  EXPECT_THAT(this->states(), Each(4U));
}

TYPED_TEST(Restart, WithoutMarkingARestartRewritesAndSweepsNothing) {
  this->run(0, 5);
  const std::uint64_t version = this->tableVersion();
  this->tables_.clear();
  this->handles_.clear();
  this->restart(false);
  this->tables_ = {this->table(this->unit0), this->table(this->unit1)};
  this->replayComplete();
  EXPECT_EQ(this->tableVersion(), version);
  this->replay(0, 5);
  EXPECT_EQ(this->tableVersion(), version + 10) << "no suppression outside the marking state";
}

// --- all tables in one agent

// What one table of an agent is asked for.
class AnyTable {
 public:
  AnyTable() = default;
  AnyTable(const AnyTable&) = delete;
  AnyTable& operator=(const AnyTable&) = delete;
  virtual ~AnyTable() = default;
  virtual void replay(std::uint64_t from, std::uint64_t to) = 0;
  virtual void reconcile() = 0;
  virtual std::string state() = 0;
};

template <class T>
class OneTable final : public AnyTable {
 public:
  explicit OneTable(const Lumen::Ptr<Asic::OrderedTableInterface>& agent)
      : intf_(KelpEmServer::KelpInterface<T>::getIntf(agent)) {
    for (std::uint16_t unit = 0; unit < 2; ++unit) {
      tables_.push_back(intf_->makeSwTable(Asic::UnitId{unit}, nullptr, false));
    }
  }
  void replay(std::uint64_t from, std::uint64_t to) override {
    using Entry = typename T::Entry;
    for (const auto& table : tables_) {
      for (std::uint64_t i = from; i < to; ++i) {
        const auto key = TestSupport::sampleKey<typename Entry::Key>(i);
        (void)table->entryWrite(key, TestSupport::sampleEntry<Entry>(key, i), nullptr);
      }
    }
  }
  void reconcile() override { intf_->reconcile(); }
  std::string state() override {
    return fmt::format("{} {} + {} at {} with {} changes", T::name.view(), tables_[0]->entrys(),
                       tables_[1]->entrys(), intf_->entryLog()->tableVersion(),
                       intf_->entryLog()->tableEntryLog()->entryLogConfig().size());
  }

 private:
  Lumen::Ptr<KelpEmServer::KelpInterface<T>> intf_;
  std::vector<Lumen::Ptr<KelpEmServer::KelpSwTable<T>>> tables_;
};

class WholeAgent : public TestSupport::TableFixture<KelpEmServer::Isem1Tag> {
 protected:
  void TearDown() override {
    tables_.clear();
    TableFixture::TearDown();
  }
  void run(std::uint64_t from, std::uint64_t to) {
    tables_.clear();
    restart(true);
    KelpEmServer::AllTables::forEach([&](auto tag) {
      tables_.push_back(std::make_unique<OneTable<typename decltype(tag)::Table>>(agent_));
    });
    for (const auto& table : tables_) {
      table->replay(from, to);
    }
    pass();
    for (const auto& table : tables_) {
      table->reconcile();
    }
    group()->sweepAll();
    pass();
  }
  std::vector<std::string> states() {
    std::vector<std::string> all;
    for (const auto& table : tables_) {
      // Without the table's name.
      const std::string state = table->state();
      all.push_back(state.substr(state.find(' ') + 1));
    }
    return all;
  }

  std::vector<std::unique_ptr<AnyTable>> tables_;
};

TEST_F(WholeAgent, AllTablesOfAnAgentStartTogether) {
  run(0, 30);
  ASSERT_EQ(states().size(), 8U);
  EXPECT_THAT(states(), Each("30 + 30 at 60 with 60 changes"));
  run(0, 30);
  EXPECT_THAT(states(), Each("30 + 30 at 60 with 60 changes"));
  run(10, 35);
  EXPECT_THAT(states(), Each("25 + 25 at 90 with 90 changes"));
}

}  // namespace
