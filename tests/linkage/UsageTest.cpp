#include "Brio/MutatorException.h"
#include "LinkageFixture.h"

// Who uses which resource, kept exact by every commit.

namespace {

using LinkageTest::AllLinkages;
using LinkageTest::Events;
using LinkageTest::LinkageName;
using LinkageTest::Watcher;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
using TestSupport::TraceCapture;

template <class P>
class Usage : public LinkageTest::LinkageFixture<P> {
 protected:
  using Fixture = LinkageTest::LinkageFixture<P>;

  // What the store says of the first two resources: acknowledged version, or "-"; and the
  // version from which on their index is free.
  std::string look() {
    std::string text;
    for (std::uint64_t number = 1; number <= 2; ++number) {
      const auto acked = this->acked(number);
      const auto record = this->record(number);
      const auto released = this->released(record ? record->index : 0);
      text += fmt::format("{}{}{}", number == 1 ? "" : ", ",
                          acked ? fmt::format("held at {}", *acked) : "free",
                          released ? fmt::format(" released at {}", *released) : "");
    }
    return text;
  }
};
TYPED_TEST_SUITE(Usage, AllLinkages, LinkageName);

TYPED_TEST(Usage, TheLastOfTwoUsersReleases) {
  this->write(1, 1);
  this->write(2, 1);
  EXPECT_THAT(this->users(1), UnorderedElementsAre(this->key(1), this->key(2)));
  const auto index = this->record(1)->index;
  this->remove(1);
  EXPECT_THAT(this->users(1), ElementsAre(this->key(2)));
  EXPECT_TRUE(this->acked(1).has_value());
  EXPECT_FALSE(this->released(index).has_value());
  const auto handle = this->remove(2);
  EXPECT_TRUE(this->linkage().entryUsageSm().empty());
  EXPECT_FALSE(this->acked(1).has_value());
  EXPECT_EQ(this->released(index), handle->logVersion().value);
}

TYPED_TEST(Usage, RewritingAnEntryWithTheSameResourceChangesNoUsage) {
  this->write(1, 1);
  const auto sm = this->linkage().entryUsageSm(this->resource(1));
  Watcher watcher([] { return std::string(); }, this->linkage().publisher());
  const TraceCapture traces(std::string(TestFixture::Linkage::className()) + "/8");
  this->write(1, 1, 2);
  EXPECT_THAT(watcher.events, IsEmpty());
  EXPECT_EQ(this->linkage().entryUsageSm(this->resource(1)), sm);
  EXPECT_THAT(this->users(1), ElementsAre(this->key(1)));
  for (const auto& line : traces.lines()) {
    EXPECT_THAT(line.text, testing::StartsWith("key: ")) << "no mapping is touched";
  }
}

TYPED_TEST(Usage, AMoveReleasesTheOldResourceBeforeItTakesTheNewOne) {
  this->write(1, 1);
  Watcher watcher([this] { return this->look(); }, this->linkage().publisher());
  const auto handle = this->write(1, 2);
  const auto version = handle->logVersion().value;
  EXPECT_THAT(watcher.events, ElementsAre(fmt::format("138: free released at {}, free", version),
                                          fmt::format("138: free released at {}, free", version)))
      << "released; then a state machine for the new one, which is not acknowledged yet";
  EXPECT_EQ(this->look(), fmt::format("free released at {}, held at 1", version));
  EXPECT_THAT(this->users(2), ElementsAre(this->key(1)));
  EXPECT_EQ(this->linkage().entryUsageSm(this->resource(1)), nullptr);
}

TYPED_TEST(Usage, AMoveToAResourceWithUsersAcknowledgesNothing) {
  this->write(1, 1);
  this->write(2, 2);
  // A version that the table has not worked off yet.
  const auto handle = this->linkage().entryUsageSm(this->resource(2))->resPtr();
  const_cast<typename TestFixture::Handle&>(*handle).updateVersionIs(9);
  Watcher watcher([] { return std::string(); }, this->linkage().publisher());
  this->write(1, 2);
  EXPECT_EQ(watcher.events.size(), 1U) << "only the state machine of the old one goes";
  EXPECT_EQ(this->acked(2), 1U) << "what its first user has seen";
  EXPECT_THAT(this->users(2), UnorderedElementsAre(this->key(1), this->key(2)));
}

TYPED_TEST(Usage, FromAResourceToNoneAndBack) {
  this->write(1, 1);
  const TraceCapture traces(std::string(TestFixture::Linkage::className()) + "/3");
  this->write(1, 0);
  EXPECT_TRUE(this->linkage().entryUsageSm().empty());
  EXPECT_EQ(this->result(1), 0U);
  EXPECT_TRUE(traces.has(3, fmt::format("Null resKey: {}", this->resource(0))));
  this->write(1, 1);
  EXPECT_THAT(this->users(1), ElementsAre(this->key(1)));
}

TYPED_TEST(Usage, ARemoveOfAnAbsentEntryTouchesNothing) {
  this->write(1, 1);
  Watcher watcher([] { return std::string(); }, this->linkage().publisher());
  this->remove(2);
  EXPECT_THAT(watcher.events, IsEmpty());
  EXPECT_THAT(this->users(1), ElementsAre(this->key(1)));
}

TYPED_TEST(Usage, ARestoredEntryIsAUserAndAcknowledgesNothing) {
  const auto wrapper = this->wrapperOf(this->entry(1, 1));
  this->linkage().resolveEntry(wrapper);
  this->linkage().restoreEntry(wrapper);
  EXPECT_THAT(this->users(1), ElementsAre(this->key(1)));
  EXPECT_FALSE(this->acked(1).has_value());
  const auto none = this->wrapperOf(this->entry(2, 0));
  this->linkage().restoreEntry(none);
  EXPECT_EQ(this->linkage().entryUsageSm().size(), 1U);
}

TYPED_TEST(Usage, TheEndOfATableReleasesNothing) {
  this->write(1, 1);
  const auto index = this->record(1)->index;
  this->table_ = nullptr;
  this->agent_->stop();
  EXPECT_TRUE(this->acked(1).has_value());
  EXPECT_FALSE(this->released(index).has_value());
}

TYPED_TEST(Usage, OnlyCommittedEntriesCount) {
  (void)this->table_->entryWrite(this->key(1), this->entry(1, 1), nullptr);
  EXPECT_TRUE(this->linkage().entryUsageSm().empty());
  EXPECT_FALSE(this->acked(1).has_value());
  this->pass();
  EXPECT_EQ(this->linkage().entryUsageSm().size(), 1U);
  EXPECT_EQ(this->acked(1), 1U);
}

TYPED_TEST(Usage, OneKeyHasOneHandleForTheLifeOfItsStateMachine) {
  this->write(1, 1);
  const auto sm = this->linkage().entryUsageSm(this->resource(1));
  EXPECT_EQ(this->linkage().entryUsageSmIs(sm->resPtr()), sm);
  const auto other = Lumen::makeNode<typename TestFixture::Handle>(this->resource(1));
  EXPECT_THROW((void)this->linkage().entryUsageSmIs(other), Brio::MutatorException);
  EXPECT_THROW((void)this->linkage().entryUsageSmIs(nullptr), Brio::MutatorException);
}

TYPED_TEST(Usage, ARemovedStateMachineIsDeaf) {
  this->write(1, 1);
  const auto sm = this->linkage().entryUsageSm(this->resource(1));
  EXPECT_TRUE(sm->nodeFlag(Lumen::Node::kHasNotificationActive));
  EXPECT_EQ(this->linkage().entryUsageSmDel(this->resource(1)), sm);
  EXPECT_FALSE(sm->nodeFlag(Lumen::Node::kHasNotificationActive));
  EXPECT_EQ(this->linkage().entryUsageSmDel(this->resource(1)), nullptr);
  const auto before = this->table_->stats()->updateCnt();
  EXPECT_TRUE(this->resources().change(this->resource(1)));
  EXPECT_EQ(this->table_->stats()->updateCnt(), before);
}

TYPED_TEST(Usage, ARemoveAllReleasesEveryUse) {
  this->write(1, 1);
  this->write(2, 1);
  this->write(3, 2);
  const auto one = this->record(1)->index;
  this->table_->entryRemoveAll(nullptr);
  this->pass();
  EXPECT_TRUE(this->linkage().entryUsageSm().empty());
  EXPECT_EQ(this->holds(), 0U);
  EXPECT_TRUE(this->released(one).has_value()) << "the chip may still use them";
  EXPECT_EQ(this->resources().entrys(), 2U);
  this->reportAll();
  EXPECT_EQ(this->resources().entrys(), 0U);
  EXPECT_EQ(this->resources().indexesTaken(), 0U);
}

TYPED_TEST(Usage, AClearWithoutReleaseLeavesTheUsage) {
  this->write(1, 1);
  this->write(2, 1);
  this->write(3, 2);
  const TraceCapture traces(std::string(TestFixture::Linkage::className()) + "/8");
  const auto clears = this->table_->stats()->tableClearCnt();
  this->table_->clearTable(false);
  EXPECT_THAT(traces.lines(), IsEmpty()) << "no linkage is called";
  EXPECT_EQ(this->table_->stats()->tableClearCnt(), clears + 1);
  EXPECT_EQ(this->linkage().entryUsageSm().size(), 2U);
}

}  // namespace
