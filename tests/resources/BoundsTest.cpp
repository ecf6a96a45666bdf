#include <string>

#include "Lumen/MemTrack.h"
#include "ResourceFixture.h"

// What a table keeps of resources that come and go, and of what is said of keys, has bounds.

namespace {

using namespace ResourceTest;
using State = Asic::EntryState;

template <class T>
class ResourceBounds : public ResourceFixture<T> {
 protected:
  // Resources that are alive in this process.
  static std::uint64_t live() {
    std::uint64_t objects = 0;
    Lumen::MemTrack::forEach([&](const Lumen::MemTrack& tracker) {
      if (std::string(tracker.typeName()) == T::Kind::resourceClassName()) {
        objects += tracker.liveObjects();
      }
    });
    return objects;
  }
};
TYPED_TEST_SUITE(ResourceBounds, AllResourceTables, ResourceTableName);

TYPED_TEST(ResourceBounds, WhatWaitedForAnIndexAndIsWantedNoMoreIsForgottenBehindWhoStillWaits) {
  this->restart(1);
  const auto all = this->held(0, 1);
  const auto first = this->request(1, 2);
  ASSERT_EQ(first->entryState(), State::entryStateFailed);
  for (std::uint32_t number = 3; number < 1003; ++number) {
    (void)this->request(1, number);
    this->table_->work();
  }
  EXPECT_EQ(this->table_->entrys(), 2U);
  EXPECT_EQ(this->live(), 2U);
}

TYPED_TEST(ResourceBounds, WhoIsRefusedAndAllowedAgainWaitsInOnePlace) {
  this->restart(1);
  auto all = this->held(0, 100);
  auto first = this->request(1, 1);
  const auto second = this->request(1, 2);
  for (int i = 0; i < 10; ++i) {
    this->table_->refusedIs(this->key(1), true);
    this->table_->refusedIs(this->key(1), false);
  }
  this->release(0, all);
  all = nullptr;
  this->reportAll(0);
  EXPECT_EQ(second->entryState(), State::entryStateSuccess) << "the other came behind it";
  EXPECT_EQ(first->entryState(), State::entryStateFailed);
  first = nullptr;
  EXPECT_EQ(this->table_->entrys(), 1U);
  EXPECT_EQ(this->live(), 1U);
}

TYPED_TEST(ResourceBounds, WhatWasPreparedIsForgottenWithoutADeadlineToo) {
  for (std::uint32_t number = 1; number <= 1000; ++number) {
    this->table_->prepareIs(this->key(number), TestFixture::Stage::preparing);
    EXPECT_EQ(this->request(0, number)->entryState(), State::entryStateUnresolved);
    this->table_->prepareIs(this->key(number), TestFixture::Stage::none);
    this->table_->work();
  }
  EXPECT_EQ(this->table_->entrys(), 0U);
  EXPECT_EQ(this->live(), 0U);
}

TYPED_TEST(ResourceBounds, AChangeBeforeTheEndOfReplayFreesTheOldIndexOfWhoDoesNotComeBack) {
  {
    const auto handle = this->held(0, 1);
    (void)this->logged(0);
  }
  this->restart();
  ASSERT_TRUE(this->table_->change(this->key(1)));
  ASSERT_EQ(this->table_->indexesTaken(), 2U);
  this->table_->replayComplete();
  (void)this->logged(0);
  this->reportAll();
  this->expectEmpty();
}

TYPED_TEST(ResourceBounds, WhyAResourceCanNotChangeIsTold) {
  using CanChange = typename TypeParam::CanChange;
  this->restart(2);
  EXPECT_EQ(this->table_->canChange(this->key(1)), CanChange::notThere);
  const auto handle = this->held(0, 1);
  EXPECT_EQ(this->table_->canChange(this->key(1)), CanChange::yes);
  this->table_->refusedIs(this->key(1), true);
  EXPECT_EQ(this->table_->canChange(this->key(1)), CanChange::refused);
  EXPECT_FALSE(this->table_->change(this->key(1)));
  this->table_->refusedIs(this->key(1), false);
  const auto other = this->held(0, 2);
  EXPECT_EQ(this->table_->canChange(this->key(1)), CanChange::noIndex);
  EXPECT_FALSE(this->table_->change(this->key(1)));
  const auto third = this->request(0, 3);
  EXPECT_EQ(this->table_->canChange(this->key(3)), CanChange::notThere) << "it waits for an index";
}

TYPED_TEST(ResourceBounds, OfSoManyKeysSomethingCanBeSaid) {
  using Stage = typename TestFixture::Stage;
  constexpr auto kMost = static_cast<std::uint32_t>(TypeParam::kMostOrders);
  const auto key = [](std::uint32_t number) {
    auto made = TestFixture::key(1);
    if constexpr (requires { made.elements; }) {
      made.elements[4].flags = number;
    } else if constexpr (requires { made.tunnel; }) {
      made.tunnel = number;
    } else {
      made = TestFixture::key(number);
    }
    return made;
  };
  for (std::uint32_t number = 1; number <= kMost; ++number) {
    ASSERT_TRUE(number % 2 == 0 ? this->table_->refusedIs(key(number), true)
                                : this->table_->prepareIs(key(number), Stage::preparing));
  }
  EXPECT_FALSE(this->table_->refusedIs(key(kMost + 1), true));
  EXPECT_FALSE(this->table_->prepareIs(key(kMost + 1), Stage::confirming));
  EXPECT_TRUE(this->table_->prepareIs(key(kMost + 1), Stage::none)) << "nothing to be kept";
  EXPECT_TRUE(this->table_->refusedIs(key(1), true)) << "of a key that is known";
  EXPECT_TRUE(this->table_->refusedIs(key(2), false));
  EXPECT_TRUE(this->table_->refusedIs(key(kMost + 1), true));
}

TYPED_TEST(ResourceBounds, NumbersOfResourcesThatAreGoneAreGivenAgain) {
  const auto stays = this->held(0, 1);
  for (std::uint32_t i = 0; i < 100; ++i) {
    (void)this->request(0, 2 + i);
  }
  const auto last = this->held(0, 200);
  EXPECT_LE(this->record(200)->number, 3U);
  EXPECT_NE(this->record(200)->number, this->record(1)->number);
}

}  // namespace
