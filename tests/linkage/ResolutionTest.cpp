#include <chrono>
#include <thread>

#include "Asic/GroupQuilts.h"
#include "LinkageFixture.h"

// How an entry gets its resource, and what the resource's state is to it.

namespace {

using LinkageTest::AllLinkages;
using LinkageTest::LinkageName;
using testing::IsEmpty;
using TestSupport::TraceCapture;

template <class P>
class Resolution : public LinkageTest::LinkageFixture<P> {
 protected:
  // A version of another table of the group.
  static constexpr Asic::TableVersion kOther{KelpEmServer::EsemFodo::tableId, Asic::LogVersion{12}};

  // What the log has stored that a version of the table waits for.
  std::vector<Asic::TableVersion> stored(Asic::LogVersion version) {
    const auto quilt = Lumen::dynamicPtrCast<Asic::NeededQuilt>(
        this->memory()->getEntity(Asic::Constants::groupNeededPath(
            Asic::Constants::canonicalizeGroupName("KelpTunnelNi", "KelpEmServerGroup"),
            P::Table::tableId)));
    bool found = false;
    const auto record = quilt->map().find(version, found);
    std::vector<Asic::TableVersion> all;
    for (std::uint32_t i = 0; found && i < record.count; ++i) {
      all.push_back({record.needed[i].tableId, record.needed[i].version});
    }
    return all;
  }
};
TYPED_TEST_SUITE(Resolution, AllLinkages, LinkageName);

template <class P>
using ResolutionDeathTest = Resolution<P>;
TYPED_TEST_SUITE(ResolutionDeathTest, AllLinkages, LinkageName);

TYPED_TEST(Resolution, TheDefaultKeyAsksForNothing) {
  const auto wrapper = this->wrapperOf(this->entry(1, 0));
  this->linkage().resolveEntry(wrapper);
  EXPECT_EQ(this->linkage().resourceHandle(wrapper), nullptr);
  EXPECT_EQ(this->linkage().entryResolutionState(wrapper), Asic::EntryState::entryStateSuccess);
  const auto needed = this->linkage().getNeededEntrySet(wrapper);
  ASSERT_NE(needed, nullptr);
  EXPECT_TRUE(needed->empty());
  this->write(1, 0);
  EXPECT_EQ(this->resources().entrys(), 0U);
  EXPECT_TRUE(this->linkage().entryUsageSm().empty());
  EXPECT_EQ(this->result(1), 0U);
}

TYPED_TEST(Resolution, AWriteGetsItsIndex) {
  this->write(1, 7);
  const auto record = this->record(7);
  ASSERT_TRUE(record.has_value());
  EXPECT_EQ(record->state, Asic::EntryState::entryStateSuccess);
  EXPECT_NE(record->index, 0U);
  EXPECT_NE(this->result(1), 0U);
  this->write(2, 8);
  EXPECT_NE(this->result(2), this->result(1));
  this->write(3, 7);
  EXPECT_EQ(this->result(3), this->result(1));
}

TYPED_TEST(Resolution, ANullWrapperIsSettledAndNeedsNothing) {
  const Lumen::Ptr<const typename TestFixture::Wrapper> none;
  EXPECT_EQ(this->linkage().entryResolutionState(none), Asic::EntryState::entryStateSuccess);
  EXPECT_TRUE(this->linkage().getNeededEntrySet(none)->empty());
  EXPECT_TRUE(this->linkage().resourceKey(none).isEq(typename TestFixture::ResourceKey{}));
}

TYPED_TEST(Resolution, TheDefaultKeyLeavesAHandleWhereItIs) {
  const auto wrapper = this->wrapperOf(this->entry(1, 0));
  const auto handle = this->linkage().resTblClient()->request(
      this->resource(5), Lumen::Ptr<const Asic::DependencyEntryHandle>());
  TypeParam::Kind::handleIs(*wrapper, handle);
  this->linkage().resolveEntry(wrapper);
  EXPECT_EQ(this->linkage().resourceHandle(wrapper), handle);
}

TYPED_TEST(Resolution, WithoutAskingAKeyThatNobodyUsesLeavesAHandleWhereItIs) {
  const auto wrapper = this->wrapperOf(this->entry(1, 5));
  this->linkage().setResourceHandle(wrapper);
  EXPECT_EQ(this->linkage().resourceHandle(wrapper), nullptr);
  EXPECT_EQ(this->resources().entrys(), 0U) << "nobody was asked";
  this->linkage().resolveEntry(wrapper);
  const auto handle = this->linkage().resourceHandle(wrapper);
  ASSERT_NE(handle, nullptr);
  this->linkage().setResourceHandle(wrapper);
  EXPECT_EQ(this->linkage().resourceHandle(wrapper), handle);
}

TYPED_TEST(Resolution, WithoutAskingAKeyInUseGivesTheHandleInUse) {
  this->write(1, 5);
  const auto wrapper = this->wrapperOf(this->entry(2, 5));
  this->linkage().setResourceHandle(wrapper);
  EXPECT_EQ(this->linkage().resourceHandle(wrapper),
            this->linkage().entryUsageSm(this->resource(5))->resPtr());
}

TYPED_TEST(Resolution, AskingAgainGivesTheSameHandleAndChangesNothing) {
  const auto wrapper = this->wrapperOf(this->entry(1, 5));
  this->linkage().resolveEntry(wrapper);
  const auto handle = this->linkage().resourceHandle(wrapper);
  const auto version = handle->updateVersion();
  const auto result = this->resultOf(*handle);
  this->linkage().resolveEntry(wrapper);
  this->linkage().resolveEntry(wrapper);
  EXPECT_EQ(this->linkage().resourceHandle(wrapper), handle);
  EXPECT_EQ(handle->updateVersion(), version);
  EXPECT_EQ(this->resultOf(*handle), result);
  EXPECT_EQ(this->resources().entrys(), 1U);
  EXPECT_EQ(this->holds(), 0U) << "who only asks is no user";
}

TYPED_TEST(Resolution, AResourceThatIsPreparedOrConfirmedKeepsTheEntryWaiting) {
  using Stage = typename TestFixture::Stage;
  const TraceCapture traces(std::string(TestFixture::Table::className()) + "/3");
  this->resources().prepareIs(this->resource(5), Stage::preparing);
  const auto handle = this->write(1, 5);
  EXPECT_EQ(
      this->linkage().resourceHandle(this->table_->transientAddEntry(this->key(1)))->entryState(),
      Asic::EntryState::entryStateUnresolved);
  EXPECT_EQ(handle->entryState(), Asic::EntryState::entryStateUnresolved);
  EXPECT_TRUE(traces.has(3, fmt::format("SwTable key: {}, resourceKey: {} is still unresolved!",
                                        this->key(1), this->resource(5))));
  this->resources().prepareIs(this->resource(5), Stage::confirming);
  this->pass();
  EXPECT_EQ(
      this->linkage().resourceHandle(this->table_->transientAddEntry(this->key(1)))->entryState(),
      Asic::EntryState::entryStateInLog);
  EXPECT_EQ(handle->entryState(), Asic::EntryState::entryStateUnresolved);
  this->resources().prepareIs(this->resource(5), Stage::none);
  this->pass();
  EXPECT_EQ(handle->entryState(), Asic::EntryState::entryStateInLog);
  EXPECT_NE(this->result(1), 0U);
}

TYPED_TEST(ResolutionDeathTest, AReservedStateEndsTheProcess) {
  const auto wrapper = this->wrapperOf(this->entry(1, 5));
  this->linkage().resolveEntry(wrapper);
  const auto handle = this->linkage().resourceHandle(wrapper);
  const_cast<typename TestFixture::Handle&>(*handle).entryStateIs(
      Asic::EntryState::entryStateReserved);
  EXPECT_DEATH((void)this->linkage().entryResolutionState(wrapper),
               "false && \"Unhandled resHandle entryState\"");
  const_cast<typename TestFixture::Handle&>(*handle).entryStateIs(static_cast<Asic::EntryState>(7));
  EXPECT_DEATH((void)this->linkage().entryResolutionState(wrapper),
               "false && \"Unhandled resHandle entryState\"");
}

TYPED_TEST(Resolution, EveryFailedStateReadsAsFailed) {
  const auto wrapper = this->wrapperOf(this->entry(1, 5));
  this->linkage().resolveEntry(wrapper);
  auto& handle =
      const_cast<typename TestFixture::Handle&>(*this->linkage().resourceHandle(wrapper));
  for (const unsigned state : {3U, 5U, 6U}) {
    handle.entryStateIs(static_cast<Asic::EntryState>(state));
    EXPECT_EQ(this->linkage().entryResolutionState(wrapper), Asic::EntryState::entryStateFailed6);
  }
}

TYPED_TEST(Resolution, AFailedResourceIsSettledAndFailsTheCommit) {
  const TraceCapture traces(std::string(TestFixture::Table::className()) + "/3");
  this->resources().refusedIs(this->resource(5), true);
  const auto handle = this->write(1, 5);
  EXPECT_EQ(handle->entryState(), Asic::EntryState::entryStateFailed);
  EXPECT_FALSE(this->table_->entryHas(this->key(1)));
  EXPECT_EQ(this->table_->stats()->resolveFailCnt(), 1U);
  EXPECT_TRUE(traces.has(3, fmt::format("SwTable key: {}, resourceKey: {} has failed resolution!",
                                        this->key(1), this->resource(5))));
  // A request whose commit failed leaves nothing behind.
  EXPECT_EQ(this->resources().entrys(), 0U);
  EXPECT_EQ(this->resources().indexesTaken(), 0U);
  EXPECT_FALSE(this->record(5).has_value());
}

TYPED_TEST(Resolution, WhatAWritesResourceDependsOnIsStoredForItsLogRecord) {
  const auto wrapper = this->wrapperOf(this->entry(1, 5));
  this->linkage().resolveEntry(wrapper);
  // The write is given the same handle.
  this->linkage().resourceHandle(wrapper)->neededEntry()->add(this->kOther);
  const auto with = this->write(1, 5)->logVersion();
  const auto without = this->write(2, 6)->logVersion();
  EXPECT_THAT(this->stored(with), testing::ElementsAre(this->kOther));
  EXPECT_THAT(this->stored(without), IsEmpty());
}

TYPED_TEST(Resolution, WhatAChangedResourceDependsOnIsStoredForEachRewrite) {
  const auto written = this->write(1, 5)->logVersion();
  this->write(2, 5);
  const auto& handle = this->linkage().entryUsageSm(this->resource(5))->resPtr();
  handle->neededEntry()->add(this->kOther);
  EXPECT_TRUE(this->resources().change(this->resource(5)));
  const auto& log = *this->table_->entryLog();
  EXPECT_EQ(log.tableVersion().value, written.value + 3);
  EXPECT_THAT(this->stored(written), IsEmpty());
  for (unsigned i = 1; i <= 2; ++i) {
    EXPECT_THAT(this->stored(log.entryLogVersion(this->key(i), this->unit0)),
                testing::ElementsAre(this->kOther));
  }
}

TYPED_TEST(Resolution, AnEntryGetsACopyOfWhatItsResourceDependsOn) {
  const auto wrapper = this->wrapperOf(this->entry(1, 5));
  this->linkage().resolveEntry(wrapper);
  const Asic::TableVersion version{Asic::SwTableId{0x29080499}, Asic::LogVersion{12}};
  this->linkage().resourceHandle(wrapper)->neededEntry()->add(version);
  const TraceCapture traces(std::string(TestFixture::Linkage::className()) + "/9");
  const auto needed = this->linkage().getNeededEntrySet(wrapper);
  ASSERT_EQ(needed->versions().size(), 1U);
  EXPECT_EQ(needed->versions()[0], version);
  EXPECT_TRUE(traces.has(9, fmt::format("neededVersion: {}", version)));
  EXPECT_NE(needed, this->linkage().resourceHandle(wrapper)->neededEntry()) << "a set of its own";
  EXPECT_EQ(this->table_->getNeededEntrySet(wrapper)->versions().size(), 1U);
}

TYPED_TEST(Resolution, ADeadlineEndsTheWaiting) {
  using Stage = typename TestFixture::Stage;
  this->resources().prepareIs(this->resource(5), Stage::preparing);
  const auto late = this->write(1, 5);
  const auto behind = this->write(2, 0);
  EXPECT_EQ(late->entryState(), Asic::EntryState::entryStateUnresolved);
  EXPECT_EQ(behind->entryState(), Asic::EntryState::entryStateUnresolved)
      << "the table's operations keep their order";
  this->resources().deadlineIs(1e-9);
  // The clock goes in steps of a few milliseconds.
  for (int i = 0; i < 1000 && late->entryState() == Asic::EntryState::entryStateUnresolved; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    this->resources().work();
    this->pass();
  }
  EXPECT_EQ(late->entryState(), Asic::EntryState::entryStateFailed);
  EXPECT_EQ(behind->entryState(), Asic::EntryState::entryStateInLog);
}

}  // namespace
