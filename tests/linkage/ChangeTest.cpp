#include "LinkageFixture.h"

// What a change of a resource does to the entries that use it.

namespace {

using LinkageTest::AllLinkages;
using LinkageTest::LinkageName;
using testing::IsEmpty;
using testing::SizeIs;
using TestSupport::TraceCapture;

template <class P>
class ResourceChange : public LinkageTest::LinkageFixture<P> {
 protected:
  using Fixture = LinkageTest::LinkageFixture<P>;

  // A helper that does not want failed resources in the log.
  class Veto final : public Fixture::Table::Helper {
   public:
    bool finalizeOnResourceUpdate(const Lumen::Ptr<typename Fixture::Wrapper>&,
                                  const Lumen::Ptr<typename Fixture::Table>&,
                                  bool resourceFailed) override {
      failed.push_back(resourceFailed);
      return !resourceFailed;
    }
    std::vector<bool> failed;
  };
  // One that keeps a write whose resource has failed.
  class Keep final : public Fixture::Table::Helper {
   public:
    bool finalizeOnFailure(const Lumen::Ptr<typename Fixture::Wrapper>&, bool,
                           const Lumen::Ptr<typename Fixture::Table>&) override {
      return true;
    }
  };

  std::uint64_t updates() { return this->table_->stats()->updateCnt(); }
  std::uint64_t version() { return this->table_->entryLog()->tableVersion().value; }
  auto sm(std::uint64_t number) { return this->linkage().entryUsageSm(this->resource(number)); }
};
TYPED_TEST_SUITE(ResourceChange, AllLinkages, LinkageName);

TYPED_TEST(ResourceChange, RewritesJustItsUsers) {
  this->write(1, 1);
  this->write(2, 1);
  this->write(3, 2);
  const auto before = this->result(1);
  const auto other = this->result(3);
  const auto version = this->version();
  EXPECT_TRUE(this->resources().change(this->resource(1)));
  EXPECT_NE(this->result(1), before);
  EXPECT_EQ(this->result(1), this->result(2));
  EXPECT_EQ(this->result(3), other);
  EXPECT_EQ(this->version(), version + 2);
  EXPECT_EQ(this->updates(), 2U);
  EXPECT_EQ(this->acked(1), 2U);
  EXPECT_EQ(this->acked(2), 1U);
}

TYPED_TEST(ResourceChange, TheOldIndexIsFreeFromTheLastRewriteOn) {
  this->write(1, 1);
  this->write(2, 1);
  const auto old = this->record(1)->index;
  EXPECT_TRUE(this->resources().change(this->resource(1)));
  EXPECT_EQ(this->updates(), 2U);
  EXPECT_EQ(this->released(old), this->version()) << "no earlier: both entries had it";
}

TYPED_TEST(ResourceChange, AnEntryVisitedLastWithoutARewriteDoesNotFreeTheOldIndexTooEarly) {
  for (unsigned i = 1; i <= 5; ++i) {
    this->write(i, 1);
  }
  // A clear leaves the uses, and the last ones are of entries that name another resource now.
  const auto first = this->users(1).front();
  this->table_->clearTable(false);
  for (unsigned i = 1; i <= 5; ++i) {
    this->write(i, this->key(i) == first ? 1 : 2);
  }
  const auto old = this->record(1)->index;
  EXPECT_TRUE(this->resources().change(this->resource(1)));
  EXPECT_EQ(this->updates(), 1U);
  EXPECT_EQ(this->released(old), this->version());
}

TYPED_TEST(ResourceChange, AUserThatHasLeftTheLogIsPassedOver) {
  this->write(1, 1);
  const auto old = this->record(1)->index;
  this->table_->clearTable(false);
  const TraceCapture traces(std::string(TestFixture::Table::className()) + "/3");
  EXPECT_TRUE(this->resources().change(this->resource(1)));
  EXPECT_TRUE(traces.has(3, fmt::format(" key: {} entry does not exist ", this->key(1))));
  EXPECT_EQ(this->updates(), 0U);
  EXPECT_EQ(this->acked(1), 2U) << "it is acknowledged all the same";
  EXPECT_EQ(this->released(old), this->version()) << "the chip has the entry until then";
}

TYPED_TEST(ResourceChange, AUseThatAClearHasLeftDoesNotFreeTheOldIndexTooEarly) {
  this->write(1, 1);
  this->write(2, 1);
  this->table_->clearTable(false);
  this->write(1, 1);
  this->report(this->version());
  const auto old = this->record(1)->index;
  this->write(1, 2);
  ASSERT_EQ(this->users(1).size(), 1U) << "the other one, which is not in the log";
  EXPECT_TRUE(this->resources().change(this->resource(1)));
  EXPECT_EQ(this->updates(), 0U);
  EXPECT_EQ(this->released(old), this->version()) << "the move is not on the chip";
  this->reportAll();
  EXPECT_FALSE(this->released(old).has_value());
}

TYPED_TEST(ResourceChange, AnotherFieldOfTheHandleIsNoChange) {
  this->write(1, 1);
  const TraceCapture traces(std::string(TestFixture::Linkage::className()) + "/8");
  const auto field = TestFixture::ResourceTable::Kind::kFieldId;
  EXPECT_EQ(
      field.value,
      (std::is_same_v<typename TypeParam::Kind, LinkageTest::RemarkProfileLinkageKind> ? 518U
                                                                                       : 517U));
  auto* publisher = this->sm(1)->resPtr()->publisher();
  publisher->publishChange(Lumen::FieldId{field.value + 1});
  publisher->publishChange(Lumen::FieldId{field.value - 1});
  EXPECT_THAT(traces.lines(), IsEmpty());
  // Only the low 16 bits count.
  publisher->publishChange(Lumen::FieldId{field.value | 0x30000});
  EXPECT_THAT(traces.lines(), SizeIs(1));
}

TYPED_TEST(ResourceChange, AZombieReactsToNothing) {
  this->write(1, 1);
  const TraceCapture traces(std::string(TestFixture::Linkage::className()) + "/8");
  this->sm(1)->brioDoZombieReactors(true);
  EXPECT_TRUE(this->resources().change(this->resource(1)));
  EXPECT_THAT(traces.lines(), IsEmpty());
  EXPECT_EQ(this->updates(), 0U);
  this->sm(1)->brioDoZombieReactors(false);
  this->sm(1)->handleResourceChange();
  EXPECT_EQ(this->updates(), 1U);
}

TYPED_TEST(ResourceChange, TheSameValuesWriteNothingAndAreAcknowledged) {
  this->write(1, 1);
  const auto version = this->version();
  const auto sm = this->sm(1);
  const_cast<typename TestFixture::Handle&>(*sm->resPtr()).updateVersionIs(9);
  const TraceCapture traces(std::string(TestFixture::Table::className()) + "/3");
  sm->handleResourceChange();
  EXPECT_EQ(this->version(), version);
  EXPECT_EQ(this->updates(), 0U);
  EXPECT_EQ(this->acked(1), 9U);
  EXPECT_TRUE(traces.has(3, fmt::format(" key: {}, commitToLog: {}, no change in logEntry or don't "
                                        "commit to log",
                                        this->key(1), true)));
  const auto handle = this->table_->updateEntry(this->key(1));
  EXPECT_EQ(Lumen::staticPtrCast<const typename TestFixture::Table::EntryHandle>(handle)
                ->logVersion()
                .value,
            version);
  EXPECT_EQ(handle->entryState(), Asic::EntryState::entryStateInLog);
}

TYPED_TEST(ResourceChange, AResourcePastItsReleaseIsIgnored) {
  this->write(1, 1);
  const auto sm = this->sm(1);
  auto& handle = const_cast<typename TestFixture::Handle&>(*sm->resPtr());
  handle.postReleaseProtoStateIs(true);
  handle.updateVersionIs(9);
  const TraceCapture traces(std::string(TestFixture::Linkage::className()) + "/3");
  sm->handleResourceChange();
  ASSERT_THAT(traces.lines(), SizeIs(1));
  EXPECT_EQ(traces.lines()[0].text,
            fmt::format("Ignoring change for resourceKey: {} ", this->resource(1)));
  EXPECT_EQ(this->acked(1), 1U);
}

TYPED_TEST(ResourceChange, TracesEachEntryThatItRewrites) {
  this->write(1, 1);
  const TraceCapture traces(std::string(TestFixture::Linkage::className()) + "/3");
  EXPECT_TRUE(this->resources().change(this->resource(1)));
  ASSERT_THAT(traces.lines(), SizeIs(1));
  EXPECT_EQ(traces.lines()[0].text,
            fmt::format("Updating sw table entry for key: {}", this->key(1)));
}

TYPED_TEST(ResourceChange, AFailedResourceIsLoggedLikeAnyOther) {
  this->write(1, 1);
  const auto result = this->result(1);
  const auto version = this->version();
  this->resources().refusedIs(this->resource(1), true);
  EXPECT_EQ(this->table_->stats()->updateWithFailedResourceCnt(), 1U);
  EXPECT_TRUE(this->table_->entryHas(this->key(1))) << "it is not removed";
  // It keeps its results, so that the record stays as it was.
  EXPECT_EQ(this->result(1), result);
  EXPECT_EQ(this->version(), version);
  EXPECT_EQ(this->acked(1), 2U);
  this->resources().refusedIs(this->resource(1), false);
  EXPECT_EQ(this->table_->stats()->updateWithFailedResourceCnt(), 1U);
  EXPECT_EQ(this->acked(1), 3U);
}

TYPED_TEST(ResourceChange, TheHelperMayKeepAFailedResourceOutOfTheLog) {
  const auto veto = Lumen::makeNode<typename TestFixture::Veto>();
  this->table_->swTableHelperIs(veto);
  this->write(1, 1);
  const auto version = this->version();
  auto& handle = const_cast<typename TestFixture::Handle&>(*this->sm(1)->resPtr());
  handle.entryStateIs(Asic::EntryState::entryStateFailed);
  handle.resultsIs({});
  this->sm(1)->handleResourceChange();
  EXPECT_THAT(veto->failed, testing::ElementsAre(true));
  EXPECT_EQ(this->version(), version);
  EXPECT_NE(this->result(1), 0U);
  handle.entryStateIs(Asic::EntryState::entryStateSuccess);
  this->sm(1)->handleResourceChange();
  EXPECT_THAT(veto->failed, testing::ElementsAre(true, false));
  EXPECT_EQ(this->version(), version + 1);
  EXPECT_EQ(this->result(1), 0U);
}

TYPED_TEST(ResourceChange, AHelperMayKeepAWriteWhoseResourceFailed) {
  this->table_->swTableHelperIs(Lumen::makeNode<typename TestFixture::Keep>());
  this->resources().refusedIs(this->resource(1), true);
  const auto handle = this->write(1, 1);
  EXPECT_EQ(handle->entryState(), Asic::EntryState::entryStateInLog);
  EXPECT_EQ(this->result(1), 0U);
  EXPECT_THAT(this->users(1), testing::ElementsAre(this->key(1)));
  // And gets the index when it comes.
  this->resources().refusedIs(this->resource(1), false);
  EXPECT_NE(this->result(1), 0U);
  EXPECT_EQ(this->updates(), 1U);
}

TYPED_TEST(ResourceChange, GoesOnWhileANewerWriteIsInFlight) {
  this->write(1, 1);
  (void)this->table_->entryWrite(this->key(1), this->entry(1, 2), nullptr);
  const auto before = this->result(1);
  EXPECT_TRUE(this->resources().change(this->resource(1)));
  EXPECT_NE(this->result(1), before) << "what is committed is rewritten";
  EXPECT_NE(this->table_->transientAddEntry(this->key(1)), nullptr);
  this->pass();
  EXPECT_TRUE(this->users(1).empty());
  EXPECT_EQ(this->users(2).size(), 1U);
}

TYPED_TEST(ResourceChange, AChangeThatComesDuringItsOwnRewritesIsWorkedOff) {
  class ChangeOnce final : public TestFixture::Table::Helper {
   public:
    bool finalizeOnResourceUpdate(const Lumen::Ptr<typename TestFixture::Wrapper>&,
                                  const Lumen::Ptr<typename TestFixture::Table>&, bool) override {
      if (const auto now = std::exchange(change, nullptr)) {
        now();
      }
      return true;
    }
    std::function<void()> change;
  };
  const auto helper = Lumen::makeNode<ChangeOnce>();
  this->table_->swTableHelperIs(helper);
  for (unsigned i = 1; i <= 5; ++i) {
    this->write(i, 1);
  }
  helper->change = [&] { EXPECT_TRUE(this->resources().change(this->resource(1))); };
  EXPECT_TRUE(this->resources().change(this->resource(1)));
  const auto last = this->resultOf(*this->sm(1)->resPtr());
  for (unsigned i = 1; i <= 5; ++i) {
    EXPECT_EQ(this->result(i), last);
  }
  EXPECT_EQ(this->acked(1), 3U);
}

TYPED_TEST(ResourceChange, AfterARestartEveryResourceInUseIsAcknowledged) {
  this->write(1, 1);
  this->write(2, 1);
  this->write(3, 2);
  this->write(4, 0);
  const auto one = this->result(1);
  const auto two = this->result(3);
  const auto version = this->version();
  this->stopAgent();
  const TraceCapture traces(std::string(TestFixture::Linkage::className()) + "/8");
  this->restartAgent();
  unsigned walks = 0;
  for (const auto& line : traces.lines()) {
    walks += line.text.empty() ? 1 : 0;
  }
  EXPECT_EQ(walks, 2U) << "one for each resource key";
  EXPECT_EQ(this->acked(1), 1U);
  EXPECT_EQ(this->acked(2), 1U);
  EXPECT_EQ(this->users(1).size(), 2U);
  EXPECT_EQ(this->users(2).size(), 1U);
  EXPECT_EQ(this->result(1), one);
  EXPECT_EQ(this->result(3), two);
  EXPECT_EQ(this->version(), version) << "nothing is rewritten";
}

TYPED_TEST(ResourceChange, AnUpdateOfAnAbsentKeyIsNothing) {
  const TraceCapture traces(std::string(TestFixture::Table::className()) + "/3");
  EXPECT_EQ(this->table_->updateEntry(this->key(1)), nullptr);
  EXPECT_TRUE(traces.has(3, fmt::format(" key: {} entry does not exist ", this->key(1))));
  EXPECT_EQ(this->updates(), 0U);
  EXPECT_EQ(this->table_->stats()->updateWithFailedResourceCnt(), 0U);
}

}  // namespace
