#include "IterationFixture.h"

// The steps of a walk: what the state byte says before and after each, and what is traced.

namespace {

using testing::ElementsAre;
using testing::Eq;
using testing::Optional;

template <class T>
class Step : public TestSupport::IterationFixture<T> {
 public:
  using Fixture = TestSupport::IterationFixture<T>;
  using Lines = std::vector<std::string>;

 protected:
  // What a step traces, as "LEVEL: TEXT".
  static Lines traced(const Lumen::Ptr<typename Fixture::IteratorState>& state) {
    TestSupport::TraceCapture traces("SwTableIter/1-9");
    (void)state->maybeUpdateCurrentEntry();
    Lines lines;
    for (const auto& line : traces.lines()) {
      EXPECT_EQ(line.handle, "SwTableIter");
      lines.push_back(fmt::format("{}: {}", line.level, line.text));
    }
    return lines;
  }
  static std::string found(std::uint64_t number) {
    return "9:   found entry: " + Fixture::text(number);
  }
};
TYPED_TEST_SUITE(Step, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(Step, TheBitsHaveTheirValues) {
  using State = typename TestFixture::State;
  EXPECT_EQ(State::kValid, 1);
  EXPECT_EQ(State::kInAddColl, 2);
  EXPECT_EQ(State::kInTblCfg, 4);
  EXPECT_EQ(State::kSkipTblCfg, 8);
  EXPECT_EQ(State::kHasBookmark, 16);
  State state;
  EXPECT_EQ(state.bits(), 0);
  state.set(State::kInTblCfg, true);
  state.set(State::kValid, true);
  EXPECT_EQ(state.bits(), 5);
  EXPECT_TRUE(state.valid() && state.inTblCfg());
  EXPECT_FALSE(state.inAddColl() || state.skipTblCfg() || state.hasBookmark());
  state.set(State::kInTblCfg, false);
  EXPECT_EQ(state.bits(), 1);
}

TYPED_TEST(Step, AFreshStateStandsAtTheWritesInFlightWithNothingFetched) {
  const auto table = this->table();
  const auto state = this->begin(table);
  EXPECT_EQ(this->bits(state), this->kInAddColl) << "even without any";
  EXPECT_EQ(state->table(), table.get());
  EXPECT_TRUE(state->bookmarkKey() == typename TestFixture::Key{});
  this->commit(table, 1);
  EXPECT_EQ(this->bits(this->begin(table)), this->kInAddColl);
  table->entryRemoveAll(nullptr);
  EXPECT_EQ(this->bits(this->begin(table)), this->kInAddColl | this->kSkipTblCfg);
  this->pass();
  EXPECT_EQ(this->bits(this->begin(table)), this->kInAddColl);
}

TYPED_TEST(Step, AFreshStateFromAKeyStandsWhereTheKeyIs) {
  const auto table = this->table();
  this->commit(table, 1);
  this->commit(table, 2);
  this->commit(table, 3);
  this->write(table, 2);
  this->remove(table, 3);
  this->write(table, 4);
  const auto bitsFrom = [&](std::uint64_t number) {
    const auto state = this->begin(table, number);
    EXPECT_TRUE(state->bookmarkKey() == this->key(number));
    EXPECT_EQ(state->table(), table.get());
    return this->bits(state);
  };
  EXPECT_EQ(bitsFrom(1), this->kHasBookmark | this->kInTblCfg);
  EXPECT_EQ(bitsFrom(2), this->kHasBookmark | this->kInAddColl) << "in both: the write in flight";
  EXPECT_EQ(bitsFrom(3), this->kHasBookmark | this->kInTblCfg) << "removes are not asked";
  EXPECT_EQ(bitsFrom(4), this->kHasBookmark | this->kInAddColl);
  EXPECT_EQ(bitsFrom(5), this->kHasBookmark) << "nowhere";
  this->pass();
  EXPECT_EQ(bitsFrom(3), this->kHasBookmark) << "deleted in the log";
  this->write(table, 6);
  table->entryRemoveAll(nullptr);
  this->write(table, 7);
  EXPECT_EQ(bitsFrom(1), this->kHasBookmark | this->kSkipTblCfg);
  EXPECT_EQ(bitsFrom(6), this->kHasBookmark | this->kSkipTblCfg);
  EXPECT_EQ(bitsFrom(7), this->kHasBookmark | this->kInAddColl | this->kSkipTblCfg);
}

TYPED_TEST(Step, AStartFromAKeyIsTraced) {
  const auto table = this->table();
  TestSupport::TraceCapture traces("*SwTable*/1-9");
  (void)this->begin(table, 9);
  ASSERT_EQ(traces.lines().size(), 1U);
  EXPECT_EQ(traces.lines()[0].level, 8U);
  EXPECT_EQ(traces.lines()[0].text, " key: " + this->text(9));
  traces.clear();
  (void)this->begin(table);
  EXPECT_TRUE(traces.lines().empty());
}

TYPED_TEST(Step, AnEmptyTableEndsAtItsFirstStep) {
  const auto table = this->table();
  const auto state = this->begin(table);
  EXPECT_THAT(this->traced(state),
              ElementsAre("8: ", "9:   in transientAdd collection", "9:   done with transAdd",
                          "9:   in cfgQuilt collection", "9:   no more entries"));
  EXPECT_EQ(this->bits(state), 0U);
  EXPECT_TRUE(this->isDefault(this->begin(table)->maybeUpdateCurrentEntry()));
}

// --- the phases

TYPED_TEST(Step, AWriteInFlightIsShownAndMoreFollow) {
  const auto table = this->table();
  this->write(table, 1);
  this->write(table, 2);
  this->write(table, 3);
  const auto order = this->inFlight(table);
  const auto state = this->begin(table);
  EXPECT_THAT(this->traced(state),
              ElementsAre("8: ", "9:   in transientAdd collection", this->found(order[0])));
  EXPECT_EQ(this->bits(state), this->kValid | this->kInAddColl | this->kHasBookmark);
  EXPECT_TRUE(state->bookmarkKey() == this->key(order[1]));
  EXPECT_THAT(this->step(state), Optional(order[1]));
  EXPECT_EQ(this->bits(state), this->kValid | this->kInAddColl | this->kHasBookmark);
  EXPECT_TRUE(state->bookmarkKey() == this->key(order[2]));
}

TYPED_TEST(Step, TheLastWriteInFlightIsShownAndTheConfigurationIsNext) {
  const auto table = this->table();
  this->commit(table, 2);
  this->write(table, 1);
  const auto state = this->begin(table);
  EXPECT_THAT(this->traced(state), ElementsAre("8: ", "9:   in transientAdd collection",
                                               this->found(1), "9:   done with transAdd"));
  EXPECT_EQ(this->bits(state), this->kValid | this->kInTblCfg) << "and no bookmark";
  EXPECT_THAT(this->step(state), Optional(Eq(2U)));
}

TYPED_TEST(Step, WithoutAWriteInFlightTheFirstStepReadsTheConfiguration) {
  const auto table = this->table();
  this->commit(table, 1);
  this->commit(table, 2);
  const auto order = this->recordsInOrder();
  const auto state = this->begin(table);
  EXPECT_THAT(this->traced(state),
              ElementsAre("8: ", "9:   in transientAdd collection", "9:   done with transAdd",
                          "9:   in cfgQuilt collection", this->found(order[0])));
  EXPECT_EQ(this->bits(state), this->kValid | this->kInTblCfg | this->kHasBookmark);
  EXPECT_TRUE(state->bookmarkKey() == this->key(order[1]));
}

TYPED_TEST(Step, DuringARemoveAllTheLastWriteInFlightIsFollowedByTheEnd) {
  const auto table = this->table();
  this->commit(table, 2);
  table->entryRemoveAll(nullptr);
  this->write(table, 1);
  const auto state = this->begin(table);
  EXPECT_THAT(this->traced(state), ElementsAre("8: ", "9:   in transientAdd collection",
                                               this->found(1), "9:   done with transAdd"));
  EXPECT_EQ(this->bits(state), this->kValid | this->kSkipTblCfg);
  EXPECT_THAT(this->traced(state), ElementsAre("8: ", "9:   no more entries"));
  EXPECT_EQ(this->bits(state), this->kSkipTblCfg);
}

TYPED_TEST(Step, DuringARemoveAllWithoutAWriteTheFirstStepEnds) {
  const auto table = this->table();
  this->commit(table, 2);
  table->entryRemoveAll(nullptr);
  const auto state = this->begin(table);
  EXPECT_THAT(this->traced(state), ElementsAre("8: ", "9:   in transientAdd collection",
                                               "9:   done with transAdd", "9:   no more entries"));
  EXPECT_EQ(this->bits(state), this->kSkipTblCfg);
}

TYPED_TEST(Step, ARecordIsShownAndMoreFollow) {
  const auto table = this->table();
  this->commitAll(table, 0, 4);
  const auto order = this->recordsInOrder();
  const auto state = this->begin(table);
  EXPECT_THAT(this->step(state), Optional(order[0]));
  EXPECT_THAT(this->traced(state),
              ElementsAre("8: ", "9:   in cfgQuilt collection", this->found(order[1])));
  EXPECT_EQ(this->bits(state), this->kValid | this->kInTblCfg | this->kHasBookmark);
  EXPECT_TRUE(state->bookmarkKey() == this->key(order[2]));
}

TYPED_TEST(Step, TheBookmarkIsTheNextRecordEvenIfItWillBePassedOver) {
  const auto table = this->table();
  this->commitAll(table, 0, 3);
  const auto order = this->recordsInOrder();
  this->remove(table, order[1]);
  const auto state = this->begin(table);
  EXPECT_THAT(this->step(state), Optional(order[0]));
  EXPECT_TRUE(state->bookmarkKey() == this->key(order[1]));
  EXPECT_THAT(this->step(state), Optional(order[2]));
}

TYPED_TEST(Step, TheLastRecordIsShownAndStaysValidUntilTheNextStepEnds) {
  const auto table = this->table();
  this->commit(table, 1);
  const auto state = this->begin(table);
  EXPECT_THAT(
      this->traced(state),
      ElementsAre("8: ", "9:   in transientAdd collection", "9:   done with transAdd",
                  "9:   in cfgQuilt collection", this->found(1), "9:   done with cfgQuilt"));
  EXPECT_EQ(this->bits(state), this->kValid);
  EXPECT_THAT(this->traced(state), ElementsAre("8: ", "9:   no more entries"));
  EXPECT_EQ(this->bits(state), 0U);
}

TYPED_TEST(Step, NoRecordLeftToShowEndsTheWalk) {
  const auto table = this->table();
  this->commitAll(table, 0, 4);
  const auto order = this->recordsInOrder();
  // One of each kind that is passed over, behind the one that is shown.
  this->remove(table, order[1]);
  this->pass();
  this->remove(table, order[2]);
  const auto state = this->begin(table);
  EXPECT_THAT(this->step(state), Optional(order[0]));
  this->write(table, order[3]);
  EXPECT_THAT(this->traced(state),
              ElementsAre("8: ", "9:   in cfgQuilt collection", "9:   no more entries"));
  EXPECT_EQ(this->bits(state), this->kHasBookmark) << "only the phases and the entry are over";
}

TYPED_TEST(Step, AFinishedWalkStaysFinished) {
  const auto table = this->table();
  this->commit(table, 1);
  const auto state = this->begin(table);
  EXPECT_EQ(this->rest(state).size(), 1U);
  this->commit(table, 2);
  this->write(table, 3);
  for (int i = 0; i < 3; ++i) {
    EXPECT_THAT(this->traced(state), ElementsAre("8: ", "9:   no more entries"));
    EXPECT_EQ(this->bits(state), 0U);
    EXPECT_TRUE(this->isDefault(state->maybeUpdateCurrentEntry()));
  }
  EXPECT_EQ(this->shown(table).size(), 3U);
}

TYPED_TEST(Step, AKeyThatIsNowhereEndsAtItsFirstStep) {
  const auto table = this->table();
  this->commitAll(table, 0, 4);
  const auto state = this->begin(table, 9);
  EXPECT_THAT(this->traced(state), ElementsAre("8: ", "9:   no more entries"));
}

TYPED_TEST(Step, AUnitWithoutAConfigurationShowsItsWritesAndEnds) {
  const auto table = this->table();
  this->commit(table, 1);
  this->write(table, 2);
  const auto quilt = this->log()->tableConfigQuiltDel(this->unit0);
  const auto state = this->begin(table);
  EXPECT_THAT(this->step(state), Optional(Eq(2U)));
  EXPECT_THAT(this->traced(state),
              ElementsAre("8: ", "9:   in cfgQuilt collection", "9:   no more entries"));
  EXPECT_EQ(this->bits(state), 0U);
  this->log()->tableConfigQuiltIs(this->unit0, quilt);
}

TYPED_TEST(Step, StatesOfAFamilyHaveTheirNumbersAndNames) {
  const auto table = this->table();
  const auto state = this->begin(table);
  EXPECT_EQ(std::string(state->className()),
            std::string(TypeParam::name.view()) + "KelpSwTableIteratorState");
  EXPECT_EQ(Brio::fieldId<typename TestFixture::IteratorState>("bookmarkKey").attribute(), 386U);
}

// --- misuse

template <class T>
class StepDeathTest : public TestSupport::IterationFixture<T> {};
TYPED_TEST_SUITE(StepDeathTest, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(StepDeathTest, BothPhasesAtOnceEndTheProcess) {
  const auto table = this->table();
  const auto state = this->begin(table);
  state->state().set(TestFixture::State::kInTblCfg, true);
  EXPECT_DEATH((void)state->maybeUpdateCurrentEntry(),
               TestSupport::assertion("!iterState_->state().inTblCfg()"));
}

TYPED_TEST(StepDeathTest, AnEndedIteratorCannotBeUsed) {
  const auto table = this->table();
  auto iter = table->entryIteratorConst();
  EXPECT_FALSE(iter);
  EXPECT_DEATH(++iter, TestSupport::assertion("iter_"));
  EXPECT_DEATH((void)*iter, TestSupport::assertion("iter_"));
  EXPECT_DEATH((void)iter->logEntry, TestSupport::assertion("iter_"));
  const typename TestFixture::Table::EntryIteratorConst none(table.get(), nullptr, {});
  EXPECT_DEATH((void)*none, TestSupport::assertion("iter_")) << "without a state";
}

}  // namespace
