#include "IterationFixture.h"

// Walks that meet a record which does not add up. Whatever operation met it, it is reported to the
// collection; what the walk does then depends on the operation.

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Optional;

template <class T>
class Corruption : public TestSupport::IterationFixture<T> {
 protected:
  // Twenty records; gives them in their order.
  std::vector<std::uint64_t> fill(const Lumen::Ptr<typename Corruption::Table>& table) {
    this->commitAll(table, 0, 20);
    EXPECT_FALSE(this->records().damaged());
    return this->recordsInOrder();
  }
  void expectReported() {
    EXPECT_TRUE(this->records().damaged());
    ASSERT_EQ(messages_.texts().size(), 1U) << "once";
    EXPECT_THAT(messages_.texts()[0], HasSubstr("corruption in collection swTableEntries"));
    EXPECT_THAT(messages_.texts()[0],
                HasSubstr(KelpEmServer::KelpConstants<T>::configQuiltPath(this->unit0)));
  }

  TestSupport::QuietLog messages_;
};
TYPED_TEST_SUITE(Corruption, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(Corruption, InTheFirstRecordItEndsTheWalk) {
  const auto table = this->table();
  const auto order = this->fill(table);
  this->garble(order[0]);
  const auto walk = this->begin(table);
  TestSupport::TraceCapture traces("SwTableIter/9");
  EXPECT_EQ(this->step(walk), std::nullopt);
  EXPECT_TRUE(traces.has(9, "  no more entries"));
  EXPECT_EQ(this->bits(walk), 0U);
  this->expectReported();
}

TYPED_TEST(Corruption, InTheFirstRecordItLeavesTheWritesInFlight) {
  const auto table = this->table();
  const auto order = this->fill(table);
  this->write(table, 100);
  this->garble(order[0]);
  EXPECT_THAT(this->shown(table), ElementsAre(100));
  this->expectReported();
}

TYPED_TEST(Corruption, InTheLookupOfTheBookmarkItCountsAsAMissAndTheNextRecordComes) {
  const auto table = this->table();
  const auto order = this->fill(table);
  const auto walk = this->begin(table);
  for (std::size_t i = 0; i < 5; ++i) {
    EXPECT_THAT(this->step(walk), Optional(order[i]));
  }
  this->garble(order[5]);
  EXPECT_EQ(this->rest(walk), TestSupport::without(order, 6));
  this->expectReported();
}

TYPED_TEST(Corruption, InTheLookupOfTheLastRecordItEndsTheWalk) {
  const auto table = this->table();
  const auto order = this->fill(table);
  const auto walk = this->begin(table);
  for (std::size_t i = 0; i < 19; ++i) {
    EXPECT_THAT(this->step(walk), Optional(order[i]));
  }
  this->garble(order[19]);
  EXPECT_EQ(this->step(walk), std::nullopt);
  this->expectReported();
}

TYPED_TEST(Corruption, InTheRecordAfterAMissingBookmarkItEndsTheWalk) {
  const auto table = this->table();
  const auto order = this->fill(table);
  const auto walk = this->begin(table);
  EXPECT_THAT(this->step(walk), Optional(order[0]));
  this->remove(table, order[1]);
  this->pass();
  this->report(this->tableVersion());
  ASSERT_EQ(this->records().size(), 19U);
  this->garble(order[2]);
  EXPECT_EQ(this->step(walk), std::nullopt);
  EXPECT_EQ(this->step(walk), std::nullopt) << "for good";
  this->expectReported();
}

TYPED_TEST(Corruption, InARecordAfterOneThatIsPassedOverItEndsTheWalk) {
  const auto table = this->table();
  const auto order = this->fill(table);
  const auto walk = this->begin(table);
  EXPECT_THAT(this->step(walk), Optional(order[0]));
  this->remove(table, order[1]);
  this->garble(order[2]);
  EXPECT_EQ(this->step(walk), std::nullopt);
  this->expectReported();
}

TYPED_TEST(Corruption, InTheLookAheadItEndsThePhaseAfterTheEntryThatIsShown) {
  const auto table = this->table();
  const auto order = this->fill(table);
  const auto walk = this->begin(table);
  for (std::size_t i = 0; i < 5; ++i) {
    EXPECT_THAT(this->step(walk), Optional(order[i]));
  }
  this->garble(order[6]);
  TestSupport::TraceCapture traces("SwTableIter/9");
  EXPECT_THAT(this->step(walk), Optional(order[5]));
  ASSERT_EQ(traces.lines().size(), 3U);
  EXPECT_EQ(traces.lines()[1].text, "  found entry: " + this->text(order[5]));
  EXPECT_EQ(traces.lines()[2].text, "  done with cfgQuilt");
  EXPECT_EQ(this->bits(walk), this->kValid);
  EXPECT_EQ(this->step(walk), std::nullopt);
  this->expectReported();
}

TYPED_TEST(Corruption, AWalkFromAKeyThatIsCorruptIsEmpty) {
  const auto table = this->table();
  const auto order = this->fill(table);
  this->garble(order[7]);
  EXPECT_FALSE(table->entryIteratorConst(this->key(order[7])));
  this->expectReported();
}

TYPED_TEST(Corruption, ManyWalksOverOneDamageReportItOnceAndWritesGoOn) {
  const auto table = this->table();
  const auto order = this->fill(table);
  this->garble(order[10]);
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(this->shown(table).size(), 10U);
  }
  this->expectReported();
  this->commit(table, order[10], 3);
  EXPECT_EQ(this->shown(table), order) << "an overwrite heals the record";
}

}  // namespace
