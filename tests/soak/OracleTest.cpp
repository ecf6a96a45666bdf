#include "soak/Oracle.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>

#include "TableFixture.h"

// What a key may hold, against tables that really hold it.

namespace {

using Common::Intent;
using Common::IntentOp;
using testing::IsEmpty;
using testing::SizeIs;

template <class T>
class OracleOf : public TestSupport::TableFixture<T> {
 protected:
  using Base = TestSupport::TableFixture<T>;

  void SetUp() override { table_ = this->table(); }
  void TearDown() override {
    table_ = nullptr;
    Base::TearDown();
  }

  static std::shared_ptr<const Intent> ask(IntentOp op, std::uint64_t key = 0,
                                           std::uint64_t variant = 0) {
    Intent intent;
    intent.op = op;
    intent.unit = Base::unit0;
    Common::EntryOf<T> entry;
    if (op == IntentOp::write) {
      entry.entry = Base::entry(key, variant);
    } else {
      entry.entry.logEntry.key = Base::key(key);
    }
    intent.entry = entry;
    return std::make_shared<const Intent>(std::move(intent));
  }
  static std::shared_ptr<const Intent> write(std::uint64_t key, std::uint64_t variant) {
    return ask(IntentOp::write, key, variant);
  }
  static Common::EntryName name(std::uint64_t key) {
    return {Base::unit0, Common::KeyOf<T>{Base::key(key)}};
  }
  void remove(std::uint64_t key) {
    (void)table_->entryRemove(this->key(key), nullptr);
    this->pass();
  }
  // How the collections compare with what the oracle says.
  Demo::Comparison compare() {
    Demo::Expected expected;
    oracle_.fill(expected);
    return expected.compareCollections(*this->memory());
  }

  Lumen::Ptr<typename Base::Table> table_;
  Soak::Oracle oracle_;
};
TYPED_TEST_SUITE(OracleOf, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(OracleOf, SeesThatWhatWasAnsweredIsLost) {
  this->oracle_.sent(1, this->write(1, 1), 1);
  EXPECT_TRUE(this->oracle_.succeeded(1));
  EXPECT_FALSE(this->compare().same());
  EXPECT_EQ(this->compare().missing, 1U);
  this->commit(this->table_, 1, 2);
  EXPECT_EQ(this->compare().different, 1U);
  this->commit(this->table_, 1, 1);
  EXPECT_TRUE(this->compare().same());
  this->oracle_.sent(2, this->ask(IntentOp::remove, 1), 1);
  EXPECT_TRUE(this->oracle_.succeeded(2));
  EXPECT_EQ(this->compare().surplus, 1U);
}

TYPED_TEST(OracleOf, TakesEitherEndOfAnIntentWithoutAnAnswer) {
  this->oracle_.sent(1, this->write(1, 1), 1);
  this->oracle_.sent(2, this->write(2, 1), 1);
  (void)this->oracle_.succeeded(1);
  (void)this->oracle_.succeeded(2);
  this->oracle_.sent(3, this->write(1, 2), 1);
  this->oracle_.sent(4, this->write(2, 2), 1);
  this->commit(this->table_, 1, 1);
  this->commit(this->table_, 2, 2);
  const auto settled = this->oracle_.settle(*this->memory());
  EXPECT_THAT(settled.wrong, IsEmpty());
  EXPECT_EQ(settled.carriedOut, 1U);
  EXPECT_EQ(settled.dropped, 1U);
  EXPECT_TRUE(this->compare().same());
  EXPECT_EQ(this->compare().equal, 2U);
}

TYPED_TEST(OracleOf, NamesAKeyThatHoldsWhatNobodyAskedFor) {
  this->oracle_.sent(1, this->write(1, 1), 1);
  (void)this->oracle_.succeeded(1);
  this->oracle_.sent(2, this->write(1, 2), 1);
  // Neither what was answered nor what came later.
  this->commit(this->table_, 1, 3);
  EXPECT_THAT(this->oracle_.settle(*this->memory()).wrong, SizeIs(1));
  this->oracle_.sent(3, this->write(1, 4), 1);
  (void)this->oracle_.succeeded(3);
  this->oracle_.sent(4, this->write(1, 5), 1);
  this->remove(1);
  EXPECT_THAT(this->oracle_.settle(*this->memory()).wrong, SizeIs(1));
}

TYPED_TEST(OracleOf, AnAnswerEndsAllThatCameBeforeIt) {
  this->oracle_.sent(1, this->write(1, 1), 1);
  this->oracle_.sent(2, this->ask(IntentOp::removeAll), 1);
  this->oracle_.sent(3, this->write(1, 3), 1);
  EXPECT_FALSE(this->oracle_.succeeded(3)) << "what came before it is uncertain";
  this->commit(this->table_, 1, 1);
  EXPECT_EQ(this->compare().different, 1U);
  // Answers of what it has replaced change nothing.
  EXPECT_FALSE(this->oracle_.succeeded(1));
  EXPECT_FALSE(this->oracle_.succeeded(2));
  EXPECT_EQ(this->compare().different, 1U);
  this->commit(this->table_, 1, 3);
  EXPECT_TRUE(this->compare().same());
}

TYPED_TEST(OracleOf, ARemoveAllIsOfAllKeysThatCameBeforeIt) {
  for (std::uint64_t i = 0; i < 3; ++i) {
    this->oracle_.sent(i + 1, this->write(i, 1), 1);
    (void)this->oracle_.succeeded(i + 1);
    this->commit(this->table_, i, 1);
  }
  this->oracle_.sent(4, this->ask(IntentOp::removeAll), 1);
  this->remove(0);
  this->remove(2);
  const auto settled = this->oracle_.settle(*this->memory());
  EXPECT_THAT(settled.wrong, IsEmpty());
  EXPECT_EQ(settled.carriedOut, 2U);
  EXPECT_EQ(settled.dropped, 1U);
  this->oracle_.sent(5, this->ask(IntentOp::removeAll), 1);
  (void)this->oracle_.succeeded(5);
  EXPECT_EQ(this->compare().surplus, 1U);
}

TYPED_TEST(OracleOf, ARefusedIntentHasChangedNothing) {
  this->oracle_.sent(1, this->write(1, 1), 1);
  (void)this->oracle_.succeeded(1);
  this->oracle_.sent(2, this->write(1, 2), 1);
  this->oracle_.refused(2);
  this->commit(this->table_, 1, 2);
  EXPECT_EQ(this->compare().different, 1U);
}

TYPED_TEST(OracleOf, TellsWhatHasCertainlyChangedAKey) {
  this->oracle_.sent(1, this->write(1, 1), 1);
  EXPECT_TRUE(this->oracle_.succeeded(1));
  this->oracle_.sent(2, this->write(1, 1), 1);
  EXPECT_FALSE(this->oracle_.succeeded(2)) << "it was identical";
  this->oracle_.sent(3, this->ask(IntentOp::remove, 1), 1);
  EXPECT_TRUE(this->oracle_.succeeded(3));
  this->oracle_.sent(4, this->ask(IntentOp::remove, 1), 1);
  EXPECT_FALSE(this->oracle_.succeeded(4)) << "there was nothing to remove";
}

TYPED_TEST(OracleOf, AnEntryIsKnownWhenItIsCertainlyThereOrWasNamedInThisLife) {
  EXPECT_FALSE(this->oracle_.isKnown(this->name(1), 1));
  this->oracle_.sent(1, this->write(1, 1), 1);
  EXPECT_TRUE(this->oracle_.isKnown(this->name(1), 1));
  EXPECT_FALSE(this->oracle_.isKnown(this->name(1), 2)) << "it may have gone with the agent";
  (void)this->oracle_.succeeded(1);
  EXPECT_TRUE(this->oracle_.isKnown(this->name(1), 2));
  this->oracle_.sent(2, this->ask(IntentOp::remove, 1), 1);
  EXPECT_FALSE(this->oracle_.isKnown(this->name(1), 2));
}

}  // namespace
