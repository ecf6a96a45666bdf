#include <algorithm>
#include <set>

#include "LinkageFixture.h"

// What goes wrong with a resource on an entry's way, and what is left of it then.

namespace {

using LinkageTest::AllLinkages;
using LinkageTest::LinkageName;
using testing::ElementsAre;
using TestSupport::TraceCapture;

template <class P>
class Trouble : public LinkageTest::LinkageFixture<P> {
 protected:
  using Fixture = LinkageTest::LinkageFixture<P>;
  using Stage = typename Fixture::Stage;

  // Calls `act` when an operation is about to be logged.
  class Hook final : public Fixture::Table::Helper {
   public:
    void finalizeOnSuccess(const Lumen::Ptr<typename Fixture::Wrapper>&, bool,
                           const Lumen::Ptr<typename Fixture::Table>&) override {
      if (const auto now = std::exchange(act, nullptr)) {
        now();
      }
    }
    bool finalizeOnFailure(const Lumen::Ptr<typename Fixture::Wrapper>&, bool,
                           const Lumen::Ptr<typename Fixture::Table>&) override {
      return keep;
    }
    std::function<void()> act;
    bool keep = false;
  };
  Hook& hook() {
    const auto made = Lumen::makeNode<Hook>();
    this->table_->swTableHelperIs(made);
    return *made;
  }

  void expectNothingLeft() {
    EXPECT_EQ(this->resources().entrys(), 0U);
    EXPECT_EQ(this->resources().indexesTaken(), 0U);
    EXPECT_EQ(this->resources().releases(), 0U);
    EXPECT_EQ(this->holds(), 0U);
    EXPECT_TRUE(this->linkage().entryUsageSm().empty());
  }

  // Starts the agent anew with a resource table of so many indexes.
  void startWithLimit(std::uint32_t limit) {
    using ResourceTable = typename Fixture::ResourceTable;
    this->stopAgent();
    this->start();
    const auto small = Lumen::makeNode<ResourceTable>(this->agent_, limit);
    this->agent_->resourceTableIs(small);
    if constexpr (requires { this->resources_.inLifIndex = small; }) {
      this->resources_.inLifIndex = small;
    } else if constexpr (requires { this->resources_.vlanEditProfile = small; }) {
      this->resources_.vlanEditProfile = small;
    } else {
      this->resources_.remarkProfile = small;
    }
    this->table_ = this->table();
  }
};
TYPED_TEST_SUITE(Trouble, AllLinkages, LinkageName);

TYPED_TEST(Trouble, AnUnresolvedResourceHoldsBackItsSoftwareTableAndNoOther) {
  using Other = KelpEmServer::EsemFodo;
  using OtherEntry = typename Other::Entry;
  this->resources().prepareIs(this->resource(5), TestFixture::Stage::preparing);
  const auto waits = this->write(1, 5);
  const auto behind = this->write(2, 0);
  const auto removed = this->remove(3);
  const auto unit1 = this->table(TestFixture::unit1);
  const auto there = unit1->entryWrite(this->key(1), this->entry(1, 6), nullptr);
  const auto otherKey = TestSupport::sampleKey<typename OtherEntry::Key>(1);
  const auto other =
      KelpEmServer::KelpInterface<Other>::getIntf(this->agent_)
          ->makeSwTable(TestFixture::unit0, nullptr, false)
          ->entryWrite(otherKey, TestSupport::sampleEntry<OtherEntry>(otherKey, 0), nullptr);
  this->pass();
  EXPECT_EQ(waits->entryState(), Asic::EntryState::entryStateUnresolved);
  EXPECT_EQ(behind->entryState(), Asic::EntryState::entryStateUnresolved);
  EXPECT_EQ(removed->entryState(), Asic::EntryState::entryStateUnresolved);
  EXPECT_EQ(there->entryState(), Asic::EntryState::entryStateInLog);
  EXPECT_EQ(other->entryState(), Asic::EntryState::entryStateInLog);
  this->resources().prepareIs(this->resource(5), TestFixture::Stage::none);
  this->pass();
  EXPECT_EQ(waits->entryState(), Asic::EntryState::entryStateInLog);
  EXPECT_EQ(behind->entryState(), Asic::EntryState::entryStateInLog);
  EXPECT_EQ(removed->entryState(), Asic::EntryState::entryStateSuccess);
}

TYPED_TEST(Trouble, AResourceThatFailsInTheMiddleOfACommitIsUsedAllTheSame) {
  auto& hook = this->hook();
  hook.act = [&] { this->resources().refusedIs(this->resource(1), true); };
  const auto handle = this->write(1, 1);
  EXPECT_EQ(handle->entryState(), Asic::EntryState::entryStateInLog);
  EXPECT_THAT(this->users(1), ElementsAre(this->key(1)));
  const auto record = this->record(1);
  ASSERT_TRUE(record.has_value());
  EXPECT_EQ(record->state, Asic::EntryState::entryStateFailed3);
  EXPECT_NE(this->result(1), 0U) << "it was there when the entry was made ready";
  EXPECT_EQ(this->acked(1), record->updateVersion);
  this->resources().refusedIs(this->resource(1), false);
  EXPECT_EQ(this->acked(1), record->updateVersion + 1) << "it follows the resource from then on";
  this->remove(1);
  this->reportAll();
  this->expectNothingLeft();
}

TYPED_TEST(Trouble, AWriteThatFailsOnItsDependencyKeepsItsIndexUntilItIsSuperseded) {
  const auto failed = TestFixture::Table::entryHandleFactory({}, this->key(9), this->table_.get());
  failed->entryStateIs(Asic::EntryState::entryStateFailed);
  const auto handle = this->table_->entryWrite(this->key(1), this->entry(1, 1), failed);
  this->pass();
  EXPECT_EQ(handle->entryState(), Asic::EntryState::entryStateFailed);
  EXPECT_EQ(this->resources().indexesTaken(), 1U) << "the entry is still in flight";
  EXPECT_EQ(this->holds(), 0U);
  EXPECT_TRUE(this->linkage().entryUsageSm().empty());
  this->remove(1);
  this->expectNothingLeft();
}

TYPED_TEST(Trouble, AnOverwriteThatFailsLeavesTheUseOfTheOldEntry) {
  this->write(1, 1);
  const auto result = this->result(1);
  this->resources().refusedIs(this->resource(2), true);
  const auto handle = this->write(1, 2);
  EXPECT_EQ(handle->entryState(), Asic::EntryState::entryStateFailed);
  EXPECT_EQ(this->result(1), result);
  EXPECT_THAT(this->users(1), ElementsAre(this->key(1)));
  EXPECT_EQ(this->resources().entrys(), 1U);
  EXPECT_EQ(this->holds(), 1U);
}

TYPED_TEST(Trouble, AClientThatReleasesTwiceHasReleasedOnce) {
  this->write(1, 1);
  const auto sm = this->linkage().entryUsageSm(this->resource(1));
  const auto index = this->record(1)->index;
  const auto first = this->remove(1);
  const auto version = first->logVersion().value;
  const auto later = this->write(2, 0);
  this->linkage().resTblClient()->release(sm->resPtr(), later);
  EXPECT_EQ(this->released(index), version);
  EXPECT_EQ(this->resources().releases(), 1U);
  // Nor does it take away what is used again.
  this->write(3, 1);
  EXPECT_EQ(this->acked(1), 1U);
  EXPECT_EQ(this->record(1)->index, index);
}

TYPED_TEST(Trouble, AnExhaustedTableFailsWhatIsNewAndKeepsWhatIsThere) {
  this->startWithLimit(2);
  this->write(1, 1);
  this->write(2, 2);
  const auto result = this->result(2);
  const auto none = this->write(3, 3);
  EXPECT_EQ(none->entryState(), Asic::EntryState::entryStateFailed);
  const auto moved = this->write(2, 3);
  EXPECT_EQ(moved->entryState(), Asic::EntryState::entryStateFailed);
  EXPECT_EQ(this->result(2), result);
  const auto shared = this->write(4, 2);
  EXPECT_EQ(shared->entryState(), Asic::EntryState::entryStateInLog) << "it needs no index more";
  EXPECT_EQ(this->table_->stats()->resolveFailCnt(), 2U);
  EXPECT_EQ(this->resources().entrys(), 2U) << "what failed has left nothing";
  this->remove(1);
  EXPECT_EQ(this->write(3, 3)->entryState(), Asic::EntryState::entryStateFailed)
      << "the chip may still use the index";
  this->reportAll();
  EXPECT_EQ(this->write(3, 3)->entryState(), Asic::EntryState::entryStateInLog);
  EXPECT_NE(this->result(3), 0U);
}

TYPED_TEST(Trouble, AKeptEntryOfAnExhaustedTableHasTheIndexThatComesFree) {
  this->startWithLimit(1);
  this->hook().keep = true;
  this->write(1, 1);
  const auto result = this->result(1);
  this->write(2, 2);
  EXPECT_EQ(this->result(2), 0U);
  EXPECT_THAT(this->users(2), ElementsAre(this->key(2)));
  this->remove(1);
  EXPECT_EQ(this->result(2), 0U);
  this->reportAll();
  EXPECT_EQ(this->result(2), result);
  EXPECT_EQ(this->table_->stats()->updateCnt(), 1U);
}

TYPED_TEST(Trouble, AfterARestartWithHalfOfTheResourcesGoneTheOthersAreAsTheyWere) {
  using ResourceQuilt = PactResourceTable::ResourceQuilt<typename TestFixture::ResourceTable::Key>;
  for (unsigned i = 1; i <= 4; ++i) {
    this->write(i, i);
  }
  std::vector<std::uint32_t> before{0};
  for (unsigned i = 1; i <= 4; ++i) {
    before.push_back(this->result(i));
  }
  const auto& map = this->template collection<ResourceQuilt>(PactResourceTable::kResources).map();
  for (const unsigned gone : {1U, 3U}) {
    ASSERT_TRUE(
        const_cast<std::remove_const_t<std::remove_reference_t<decltype(map)>>&>(map).recordDel(
            this->resource(gone)));
  }
  this->restartAgent();
  this->resources_.replayComplete();
  EXPECT_EQ(this->result(2), before[2]);
  EXPECT_EQ(this->result(4), before[4]);
  std::set<std::uint32_t> results;
  for (unsigned i = 1; i <= 4; ++i) {
    EXPECT_THAT(this->users(i), ElementsAre(this->key(i)));
    EXPECT_EQ(this->acked(i), this->record(i)->updateVersion);
    results.insert(this->result(i));
  }
  EXPECT_EQ(results.size(), 4U) << "each has an index of its own";
  EXPECT_EQ(results.count(0), 0U);
  EXPECT_EQ(this->holds(), 4U) << "those of the lost ones are gone";
}

TYPED_TEST(Trouble, AClearWithReleasePassesOverWhatIsDeletedAlready) {
  this->write(1, 1);
  this->write(2, 2);
  this->remove(1);
  const TraceCapture traces(std::string(TestFixture::Linkage::className()) + "/8");
  this->table_->clearTable(true);
  const auto mapped = [&](unsigned number) {
    return traces.has(
        8, fmt::format("resKey: {}, swKey: {}", this->resource(number), this->key(number)));
  };
  EXPECT_FALSE(mapped(1));
  EXPECT_TRUE(mapped(2));
  EXPECT_TRUE(this->linkage().entryUsageSm().empty());
}

TYPED_TEST(Trouble, WhoWaitsIsAskedOnceForEachChangeAndNeverBetween) {
  using Stage = typename TestFixture::Stage;
  const auto resource = this->resource(1);
  this->resources().prepareIs(resource, Stage::preparing);
  (void)this->table_->entryWrite(this->key(1), this->entry(1, 1), nullptr);
  const TraceCapture traces(std::string(TestFixture::Table::className()) + "/8");
  const auto questions = [&] {
    return std::count_if(traces.lines().begin(), traces.lines().end(), [](const auto& line) {
      return line.text.find("refresh: true") != std::string::npos;
    });
  };
  this->pass();
  const auto once = questions();
  EXPECT_EQ(once, 1);
  for (int i = 0; i < 100; ++i) {
    this->pass();
  }
  EXPECT_EQ(questions(), once);
  this->resources().prepareIs(resource, Stage::confirming);
  this->pass();
  EXPECT_EQ(questions(), once + 1);
  this->pass();
  EXPECT_EQ(questions(), once + 1);
}

}  // namespace
