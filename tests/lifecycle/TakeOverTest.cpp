#include <filesystem>
#include <fstream>

#include "LifecycleFixture.h"

// Starts over a store that lost something: a log that is made anew, and with it a new incarnation;
// a collection with damage, of which every whole record is taken over.

namespace {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

template <class T>
class TakeOver : public TestSupport::LifecycleFixture<T> {
 public:
  using Fixture = TestSupport::LifecycleFixture<T>;
  using typename Fixture::Constants;
  using typename Fixture::Handle;

 protected:
  std::string logFile() { return this->fileOf(Constants::tableEntryLogQuiltPath()); }
  // An earlier run, of whose configuration on unit 0 some records are damaged.
  void damage(std::uint64_t entries, const std::vector<std::uint64_t>& numbers) {
    this->earlierRun(entries);
    const auto table = this->table();
    const auto& map = this->log()->tableConfigQuilt(this->unit0)->swTableEntries();
    for (const std::uint64_t number : numbers) {
      bool found = false;
      const auto& record = map.find(this->key(number), found);
      ASSERT_TRUE(found);
      TestSupport::flipByte(this->root_.path(), map, &record.version);
    }
    this->stop();
  }
};
TYPED_TEST_SUITE(TakeOver, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(TakeOver, OfADamagedCollectionTheTableShowsEveryWholeRecord) {
  this->damage(50, {7, 33});
  this->start(true);
  const TestSupport::LogTexts messages;
  TestSupport::TraceCapture traces("*KelpInterface/2");
  const auto table = this->table();
  EXPECT_EQ(messages.texts().size(), 1U) << "the loss is said";
  EXPECT_TRUE(traces.has(2, this->named(" Restored 48 entries for table: ", "Kelp, unitId: 0")));
  std::size_t walked = 0;
  for (const auto& entry : table->entries()) {
    ++walked;
    EXPECT_TRUE(entry.isEq(table->entryRead(entry.logEntry.key)));
  }
  EXPECT_EQ(walked, 48U);
  for (std::uint64_t i = 0; i < 50; ++i) {
    EXPECT_EQ(table->entryHas(this->key(i)), i != 7 && i != 33) << i;
  }
  EXPECT_EQ(this->table(this->unit1)->entrys(), 50U);
  EXPECT_EQ(this->tableVersion(), 100U);
  EXPECT_EQ(messages.texts().size(), 1U);
}

TYPED_TEST(TakeOver, AReplayWritesAgainWhatWasDamagedAndNothingElse) {
  this->damage(50, {7, 33});
  this->start(true);
  const TestSupport::LogTexts messages;
  const auto table = this->table();
  const auto changes = this->changes();
  this->writeAll(table, 0, 50);
  this->writeAll(this->table(this->unit1), 0, 50);
  this->intf()->reconcile();
  this->group()->sweepAll();
  this->pass();
  auto expected = changes;
  expected.push_back(this->wrote(101, 7));
  expected.push_back(this->wrote(102, 33));
  EXPECT_EQ(this->changes(), expected);
  EXPECT_EQ(table->stats()->suppressedWriteCnt(), 48U);
  EXPECT_EQ(table->entrys(), 50U);
}

TYPED_TEST(TakeOver, DamageIsTakenOverOnce) {
  this->damage(20, {4});
  {
    const TestSupport::LogTexts messages;
    this->start();
    EXPECT_EQ(this->table()->entrys(), 19U);
    EXPECT_EQ(messages.texts().size(), 1U);
  }
  this->restart();
  const TestSupport::LogTexts messages;
  EXPECT_EQ(this->table()->entrys(), 19U);
  EXPECT_THAT(messages.texts(), IsEmpty());
}

TYPED_TEST(TakeOver, ALostConfigurationIsRestoredEmptyAndFilledByTheReplay) {
  this->earlierRun(10);
  std::filesystem::remove(this->configFile(this->unit0));
  this->start(true);
  const TestSupport::LogTexts messages;
  const auto table = this->table();
  EXPECT_EQ(messages.texts().size(), 1U);
  EXPECT_EQ(table->entrys(), 0U);
  this->writeAll(table, 0, 10);
  table->sweep();
  EXPECT_EQ(this->pass(), 0U);
  EXPECT_EQ(table->entrys(), 10U);
  EXPECT_EQ(this->tableVersion(), 30U) << "no version is used twice";
}

// --- incarnations

TYPED_TEST(TakeOver, ARowOfALostLogIsNoRow) {
  this->earlierRun(10);
  std::filesystem::remove(this->logFile());
  this->leaveRow(20);  // the hardware side had taken in all
  const TestSupport::LogTexts messages;
  TestSupport::TraceCapture traces("*KelpInterface/2,3:*KelpEntryLog/8");
  const auto table = this->table();
  EXPECT_EQ(messages.texts().size(), 1U);
  EXPECT_NE(this->incarnation(), this->incarnation_);
  EXPECT_EQ(this->tableVersion(), 0U);
  EXPECT_TRUE(traces.has(
      2, fmt::format(" Entry log created for table id: {} at version: 0", TypeParam::tableId)));
  EXPECT_TRUE(traces.has(8, " unitId:0, logVersion: 0"));
  for (const auto& line : traces.lines()) {
    EXPECT_EQ(line.text.find("Cleaned entry log"), std::string::npos) << line.text;
  }
  EXPECT_FALSE(this->intf()->swTableStatus()->pendingHwWrites());
  EXPECT_EQ(table->entrys(), 10U) << "the configuration is not lost with it";

  this->commit(table, 50);
  this->hardware().report(TypeParam::tableId, 20, this->incarnation_);
  this->group()->pollStatus();
  EXPECT_EQ(this->changes().size(), 1U) << "nor is a late report of the old log one of this";
  EXPECT_TRUE(table->hasPendingHwWrites());
  this->report(1);
  EXPECT_FALSE(table->hasPendingHwWrites());
}

TYPED_TEST(TakeOver, AfterALostLogEveryHandleOfAReplayEnds) {
  // A record's version of the lost log is one that no report of this one would cover.
  using Handle = typename TestFixture::Handle;
  this->earlierRun(10, {this->unit0});
  std::filesystem::remove(this->logFile());
  this->start(true);
  const TestSupport::LogTexts messages;
  auto table = this->table();
  std::vector<Handle> handles;
  for (std::uint64_t i = 0; i < 12; ++i) {
    handles.push_back(this->write(table, i));
  }
  this->pass();
  table->sweep();
  this->pass();
  EXPECT_EQ(table->entrys(), 12U);
  EXPECT_LE(handles.back()->logVersion().value, this->tableVersion());
  this->report(this->tableVersion());
  std::vector<unsigned> states;
  for (const Handle& handle : handles) {
    states.push_back(this->state(handle));
  }
  EXPECT_THAT(states, Each(4U));
  EXPECT_FALSE(table->hasPendingHwWrites());

  // From here on it is as ever.
  const std::uint64_t version = this->tableVersion();
  handles.clear();
  table = nullptr;
  this->restart(true);
  table = this->table();
  this->writeAll(table, 0, 12);
  EXPECT_EQ(this->tableVersion(), version);
  EXPECT_EQ(table->stats()->suppressedWriteCnt(), 12U);
}

TYPED_TEST(TakeOver, ARowBeyondThePublishedVersionIsCutToIt) {
  this->earlierRun(5, {this->unit0});
  this->leaveRow(1'000'000'000'000);
  const auto table = this->table();
  EXPECT_EQ(this->log()->lastCleanedVersion().value, 5U);
  EXPECT_THAT(this->changes(), IsEmpty());
  EXPECT_FALSE(table->hasPendingHwWrites());
  this->commit(table, 9);
  EXPECT_EQ(this->tableVersion(), 6U);
}

}  // namespace
