#include <gmock/gmock.h>

#include "ChipFixture.h"

// The hardware side follows an agent, on every table.

namespace {

using testing::HasSubstr;

template <class T>
class ChipFollows : public TestSupport::ChipFixture<T> {};
TYPED_TEST_SUITE(ChipFollows, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(ChipFollows, WritesOverwritesAndRemovesInTheOrderOfTheirVersions) {
  this->startChip();
  const auto table = this->table();
  this->settle();
  this->commit(table, 1);
  this->commit(table, 2);
  this->commit(table, 1, 5);
  (void)table->entryRemove(this->key(2), nullptr);
  this->pass();
  int responses = 0;
  const auto handle = table->entryWriteWithResponseHandler(this->key(3), this->entry(3), nullptr,
                                                           [&](const auto&) { ++responses; });
  this->pass();
  this->settle();
  EXPECT_EQ(this->chipTable().reached(), 5U);
  EXPECT_EQ(this->onChip(), 2U);
  EXPECT_EQ(handle->entryState(), Asic::EntryState::entryStateSuccess);
  EXPECT_EQ(responses, 1);
  EXPECT_FALSE(table->hasPendingHwWrites());
  const Chip::UnitCounts changes = this->chipTable().changes();
  EXPECT_EQ(changes.programmed, 3U);
  EXPECT_EQ(changes.overwritten, 1U);
  EXPECT_EQ(changes.deleted, 1U);
  const Chip::CheckResult check = this->chip_->check();
  EXPECT_TRUE(check.same()) << check.text();
}

TYPED_TEST(ChipFollows, UnitsAreKeptApart) {
  this->startChip();
  const auto table0 = this->table(this->unit0);
  const auto table1 = this->table(this->unit1);
  this->commit(table0, 1);
  this->commit(table1, 1, 3);
  this->commit(table1, 2);
  this->settle();
  EXPECT_EQ(this->onChip(this->unit0), 1U);
  EXPECT_EQ(this->onChip(this->unit1), 2U);
  EXPECT_TRUE(this->chip_->check().same());
}

TYPED_TEST(ChipFollows, ARemoveAllTakesWhatIsOlderAndLeavesWhatIsWrittenAfter) {
  this->startChip();
  const auto table0 = this->table(this->unit0);
  const auto table1 = this->table(this->unit1);
  this->settle();
  for (std::uint64_t i = 0; i < 50; ++i) {
    this->commit(table0, i);
    this->commit(table1, i);
  }
  (void)table0->entryRemoveAll(nullptr);
  this->pass();
  this->commit(table0, 7);
  this->commit(table0, 60);
  this->settle();
  EXPECT_EQ(this->onChip(this->unit0), 2U);
  EXPECT_EQ(this->onChip(this->unit1), 50U);
  const Chip::CheckResult check = this->chip_->check();
  EXPECT_TRUE(check.same()) << check.text();
}

TYPED_TEST(ChipFollows, ANewChipReadsTheCollectionsAndReportsWhatIsPublished) {
  const auto table = this->table();
  for (std::uint64_t i = 0; i < 30; ++i) {
    this->commit(table, i);
  }
  (void)table->entryRemove(this->key(3), nullptr);
  this->pass();
  EXPECT_TRUE(table->hasPendingHwWrites());
  this->startChip();
  this->settle();
  EXPECT_EQ(this->onChip(), 29U);
  EXPECT_EQ(this->chipTable().counts().records, 0U);
  EXPECT_EQ(this->chipTable().counts().resyncs, 1U);
  EXPECT_FALSE(table->hasPendingHwWrites());
  this->commit(table, 40);
  this->settle();
  EXPECT_EQ(this->onChip(), 30U);
  EXPECT_EQ(this->chipTable().counts().records, 1U);
  EXPECT_TRUE(this->chip_->check().same());
}

TYPED_TEST(ChipFollows, AnAgentThatComesBackIsFollowedOn) {
  this->startChip();
  auto table = this->table();
  this->commit(table, 1);
  this->commit(table, 2);
  this->settle();
  table = nullptr;
  this->stop();
  this->settle();
  table = this->table();
  EXPECT_FALSE(table->hasPendingHwWrites());
  this->commit(table, 3);
  this->settle();
  EXPECT_EQ(this->chipTable().reached(), 3U);
  EXPECT_EQ(this->chipTable().counts().resyncs, 1U);
  EXPECT_EQ(this->onChip(), 3U);
  EXPECT_FALSE(table->hasPendingHwWrites());
}

TYPED_TEST(ChipFollows, TheCheckNamesWhatDiffers) {
  this->startChip();
  const auto table = this->table();
  this->commit(table, 1);
  this->commit(table, 2);
  this->commit(table, 3);
  this->settle();
  // Behind the chip's back: one record changed, one gone, one added.
  const auto config = this->intf()->entryLog()->tableConfigQuilt(this->unit0);
  bool found = false;
  auto changed = config->swTableEntries().find(this->key(1), found);
  ASSERT_TRUE(found);
  auto other = this->entry(1, 77);
  if (other.logEntry.isEq(changed.entry.logEntry)) {
    // Entries of this table differ in resource keys only, and the log has what those resolve to.
    if constexpr (requires { other.logEntry.inLif0Index; }) {
      other.logEntry.inLif0Index = 77;
    }
  }
  changed.entry = other;
  config->swTableEntriesIs(changed);
  config->swTableEntriesDel(this->key(2));
  changed.entry = this->entry(9);
  config->swTableEntriesIs(changed);
  const Chip::CheckResult check = this->chip_->check();
  EXPECT_FALSE(check.same());
  std::uint64_t different = 0;
  std::uint64_t missing = 0;
  std::uint64_t surplus = 0;
  std::uint64_t equal = 0;
  for (const Chip::TableCheck& one : check.tables) {
    for (const Chip::UnitCheck& unit : one.units) {
      different += unit.different;
      missing += unit.missing;
      surplus += unit.surplus;
      equal += unit.equal;
    }
  }
  EXPECT_EQ(different, 1U);
  EXPECT_EQ(missing, 1U);
  EXPECT_EQ(surplus, 1U);
  EXPECT_EQ(equal, 1U);
  EXPECT_THAT(check.text(), HasSubstr("is not on the chip"));
  EXPECT_THAT(check.text(), HasSubstr("the collection has none of that key"));
  EXPECT_THAT(check.text(), HasSubstr("THE CHIP DIFFERS"));
}

TYPED_TEST(ChipFollows, ALogMadeAnewIsReadFromItsCollections) {
  this->startChip();
  auto table = this->table();
  for (std::uint64_t i = 0; i < 10; ++i) {
    this->commit(table, i);
  }
  this->settle();
  const std::uint64_t before = this->chipTable().incarnation();
  table = nullptr;
  this->stop();
  this->removeFile("log");
  table = this->table();
  EXPECT_EQ(this->intf()->entryLog()->tableVersion().value, 0U);
  // Versions start over, below those that the collection still carries.
  this->commit(table, 2, 9);
  (void)table->entryRemove(this->key(4), nullptr);
  this->pass();
  this->settle();
  EXPECT_NE(this->chipTable().incarnation(), before);
  EXPECT_EQ(this->chipTable().reached(), 2U);
  EXPECT_EQ(this->onChip(), 9U);
  Chip::CheckResult check = this->chip_->check();
  EXPECT_TRUE(check.same()) << check.text();
  // And go on, with versions below those that old records of the same keys carry.
  for (std::uint64_t i = 10; i-- > 0;) {
    this->commit(table, i, i + 20);
    this->settle();
  }
  check = this->chip_->check();
  EXPECT_TRUE(check.same()) << check.text();
  EXPECT_FALSE(table->hasPendingHwWrites());
}

TYPED_TEST(ChipFollows, ACollectionMadeAnewIsReadAgain) {
  this->startChip();
  auto table = this->table();
  for (std::uint64_t i = 0; i < 10; ++i) {
    this->commit(table, i);
  }
  this->settle();
  table = nullptr;
  this->stop();
  this->removeFile("config/0");
  table = this->table();
  EXPECT_EQ(table->entrys(), 0U);
  this->commit(table, 3);
  this->settle();
  EXPECT_GE(this->chip_->relaunchGeneration(), 1U);
  EXPECT_EQ(this->onChip(), 1U);
  EXPECT_TRUE(this->chip_->check().same());
}

}  // namespace
