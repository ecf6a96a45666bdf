#include "LinkageFixture.h"
#include "OrderedTable/EntryReadPath.h"
#include "OrderedTable/OrderedSwTableAccessor.h"

// The table whose entries name two resources.

namespace {

using KelpEmServer::EsemFodoVd;
using testing::ElementsAre;
using TestSupport::TraceCapture;
using OnVlanEdit = LinkageTest::On<EsemFodoVd, LinkageTest::VlanEditProfileLinkageKind>;
using OnRemark = LinkageTest::On<EsemFodoVd, LinkageTest::RemarkProfileLinkageKind>;
using VlanEdit = LinkageTest::LinkageFixture<OnVlanEdit>;
using Remark = LinkageTest::LinkageFixture<OnRemark>;

class TwoResources : public VlanEdit {
 protected:
  static Entry both(std::uint64_t number, std::uint64_t vlanEdit, std::uint64_t remark,
                    std::uint16_t type = 1) {
    Entry made = VlanEdit::entry(number, vlanEdit);
    made.rsrcKeys.remarkProfileKey = Remark::resource(remark);
    made.rsrcKeys.remarkProfileType = type;
    return made;
  }
  auto writeBoth(std::uint64_t number, std::uint64_t vlanEdit, std::uint64_t remark,
                 std::uint16_t type = 1) {
    const auto handle =
        table_->entryWrite(key(number), both(number, vlanEdit, remark, type), nullptr);
    pass();
    return Lumen::staticPtrCast<const Table::EntryHandle>(handle);
  }
  auto& vlanEdit() { return *table_->vlanEditProfileLinkage(); }
  auto& remark() { return *table_->remarkProfileLinkage(); }
  KelpTunnelNiLib::EsemFodoVdLogEntry logged(std::uint64_t number) {
    return table_->entryLog()->entry(key(number), unit0);
  }
  static constexpr const char* kTraces = "EsemFodoVdKelpSwTable/3";
};

TEST_F(TwoResources, EachLinkageCountsItsOwn) {
  writeBoth(1, 0, 5);
  EXPECT_EQ(vlanEdit().entryUsageSm().size(), 0U);
  EXPECT_EQ(remark().entryUsageSm().size(), 1U);
  EXPECT_EQ(logged(1).vlanEditProfile, 0U);
  EXPECT_NE(logged(1).remarkProfile, 0U);
  writeBoth(1, 3, 5);
  EXPECT_EQ(vlanEdit().entryUsageSm().size(), 1U);
  EXPECT_NE(logged(1).vlanEditProfile, 0U);
}

TEST_F(TwoResources, AnUnresolvedFirstHidesTheSecond) {
  using Stage = VlanEdit::ResourceTable::Stage;
  resources_.vlanEditProfile->prepareIs(VlanEdit::resource(3), Stage::preparing);
  resources_.remarkProfile->prepareIs(Remark::resource(5),
                                      KelpQos::EgressRemarkProfileResourceTable::Stage::preparing);
  const TraceCapture traces(kTraces);
  const auto handle = writeBoth(1, 3, 5);
  EXPECT_EQ(handle->entryState(), Asic::EntryState::entryStateUnresolved);
  const std::string form = "SwTable key: {}, resourceKey: {} is still unresolved!";
  const auto first = fmt::format(fmt::runtime(form), key(1), VlanEdit::resource(3));
  const auto second = fmt::format(fmt::runtime(form), key(1), Remark::resource(5));
  EXPECT_TRUE(traces.has(3, first));
  EXPECT_FALSE(traces.has(3, second));
  resources_.vlanEditProfile->prepareIs(VlanEdit::resource(3), Stage::none);
  pass();
  EXPECT_TRUE(traces.has(3, second));
  EXPECT_EQ(handle->entryState(), Asic::EntryState::entryStateUnresolved);
  resources_.remarkProfile->prepareIs(Remark::resource(5),
                                      KelpQos::EgressRemarkProfileResourceTable::Stage::none);
  pass();
  EXPECT_EQ(handle->entryState(), Asic::EntryState::entryStateInLog);
}

TEST_F(TwoResources, AFailedSecondIsSettledAndNamed) {
  resources_.remarkProfile->refusedIs(Remark::resource(5), true);
  const TraceCapture traces(kTraces);
  const auto handle = writeBoth(1, 3, 5);
  EXPECT_EQ(handle->entryState(), Asic::EntryState::entryStateFailed);
  EXPECT_TRUE(traces.has(3, fmt::format("SwTable key: {}, resourceKey: {} has failed resolution!",
                                        key(1), Remark::resource(5))));
  EXPECT_FALSE(traces.has(3, fmt::format("SwTable key: {}, resourceKey: {} has failed resolution!",
                                         key(1), VlanEdit::resource(3))));
  EXPECT_EQ(resources_.vlanEditProfile->entrys(), 0U) << "the first is not kept either";
}

TEST_F(TwoResources, ARemoveReleasesTheFirstBeforeTheSecond) {
  writeBoth(1, 3, 5);
  EXPECT_EQ(vlanEdit().entryUsageSm(VlanEdit::resource(3))->entryUsage().size(), 1U);
  EXPECT_EQ(remark().entryUsageSm(Remark::resource(5))->entryUsage().size(), 1U);
  std::vector<std::string> order;
  const LinkageTest::Watcher first(
      [&] {
        order.emplace_back("vlanEdit");
        return std::string();
      },
      vlanEdit().publisher());
  const LinkageTest::Watcher second(
      [&] {
        order.emplace_back("remark");
        return std::string();
      },
      remark().publisher());
  remove(1);
  EXPECT_THAT(order, ElementsAre("vlanEdit", "remark"));
  order.clear();
  writeBoth(2, 3, 5);
  table_->clearTable(true);
  EXPECT_THAT(order, ElementsAre("vlanEdit", "remark", "vlanEdit", "remark"));
}

TEST_F(TwoResources, AfterARestartTheFirstIsBroughtInLineBeforeTheSecond) {
  writeBoth(1, 3, 5);
  stopAgent();
  const TraceCapture traces("EsemFodoVdKelp*Linkage/8");
  restartAgent();
  std::vector<std::string> walks;
  for (const auto& line : traces.lines()) {
    if (line.text.empty()) {
      walks.push_back(line.handle);
    }
  }
  EXPECT_THAT(walks, ElementsAre("EsemFodoVdKelpVlanEditProfileLinkage",
                                 "EsemFodoVdKelpRemarkProfileLinkage"));
}

TEST_F(TwoResources, AChangeOfOneKeyLeavesTheOtherAlone) {
  writeBoth(1, 3, 5);
  const auto sm = vlanEdit().entryUsageSm(VlanEdit::resource(3));
  writeBoth(1, 3, 6);
  EXPECT_EQ(vlanEdit().entryUsageSm(VlanEdit::resource(3)), sm);
  EXPECT_EQ(remark().entryUsageSm(Remark::resource(5)), nullptr);
  EXPECT_NE(remark().entryUsageSm(Remark::resource(6)), nullptr);
}

TEST_F(TwoResources, ARewriteForOneReportsTheFailureOfTheOther) {
  writeBoth(1, 3, 5);
  auto& handle = const_cast<KelpQos::EgressRemarkProfileResourceTable::ResourceHandle&>(
      *remark().entryUsageSm(Remark::resource(5))->resPtr());
  handle.entryStateIs(Asic::EntryState::entryStateFailed);
  EXPECT_TRUE(resources_.vlanEditProfile->change(VlanEdit::resource(3)));
  EXPECT_EQ(table_->stats()->updateWithFailedResourceCnt(), 1U);
}

TEST_F(TwoResources, WhatTheTwoDependOnIsMerged) {
  const auto wrapper = wrapperOf(both(1, 3, 5));
  table_->setRsrcPtrs(wrapper, true);
  const Asic::SwTableId table{0x29080499};
  vlanEdit().resourceHandle(wrapper)->neededEntry()->add({table, Asic::LogVersion{3}});
  remark().resourceHandle(wrapper)->neededEntry()->add({table, Asic::LogVersion{8}});
  const auto needed = table_->getNeededEntrySet(wrapper);
  ASSERT_EQ(needed->versions().size(), 1U);
  EXPECT_EQ(needed->versions()[0].version.value, 8U);
}

TEST_F(TwoResources, TheFirstTypeOfAnInterfaceCountsForAll) {
  writeBoth(1, 0, 5, 2);
  writeBoth(2, 0, 5, 3);
  const auto& handle = *remark().entryUsageSm(Remark::resource(5))->resPtr();
  EXPECT_EQ(handle.results().clientData.value, 2U);
  EXPECT_EQ(logged(1).remarkProfile, logged(2).remarkProfile);
  // A wrapper made from the configuration has the type that the resource has.
  Lumen::Ptr<Table::EntryHandle> made;
  const TraceCapture traces(kTraces);
  const auto wrapper = Asic::OrderedSwTableAccessor<Table>(table_.get())
                           .entryWrapperFromConfig<Wrapper>(key(2), false, made);
  EXPECT_EQ(wrapper->entry().rsrcKeys.remarkProfileType, 2U);
  EXPECT_TRUE(traces.has(3, " Setting clientData to: 2 "));
}

TEST_F(TwoResources, TwoInterfacesHaveEachItsType) {
  writeBoth(1, 0, 5, 2);
  writeBoth(2, 0, 6, 3);
  const auto typeOf = [&](std::uint64_t number) {
    return remark().entryUsageSm(Remark::resource(number))->resPtr()->results().clientData.value;
  };
  const auto expectTypes = [&] {
    EXPECT_EQ(typeOf(5), 2U);
    EXPECT_EQ(typeOf(6), 3U);
    EXPECT_EQ(table_->entryFromConfig(key(1)).rsrcKeys.remarkProfileType, 2U);
    EXPECT_EQ(table_->entryFromConfig(key(2)).rsrcKeys.remarkProfileType, 3U);
    EXPECT_NE(logged(1).remarkProfile, logged(2).remarkProfile);
  };
  expectTypes();
  EXPECT_TRUE(resources_.remarkProfile->change(Remark::resource(5)));
  EXPECT_TRUE(resources_.remarkProfile->change(Remark::resource(6)));
  expectTypes();
  restartAgent();
  expectTypes();
}

TEST_F(TwoResources, ARewriteWithoutAProfileKeepsTheType) {
  class Keep final : public Table::Helper {
   public:
    bool finalizeOnFailure(const Lumen::Ptr<Wrapper>&, bool, const Lumen::Ptr<Table>&) override {
      return true;
    }
  };
  table_->swTableHelperIs(Lumen::makeNode<Keep>());
  resources_.remarkProfile->refusedIs(Remark::resource(5), true);
  writeBoth(1, 3, 5, 7);
  // The first linkage puts its index into the log, and takes the entry from the configuration.
  EXPECT_TRUE(resources_.vlanEditProfile->change(VlanEdit::resource(3)));
  EXPECT_NE(logged(1).vlanEditProfile, 0U);
  EXPECT_EQ(table_->entryFromConfig(key(1)).rsrcKeys.remarkProfileType, 7U);
  EXPECT_EQ(remark().entryUsageSm(Remark::resource(5))->resPtr()->results().clientData.value, 7U);
}

TEST_F(TwoResources, WithoutAHandleTheTypeStays) {
  const auto wrapper = wrapperOf(both(1, 3, 5, 9));
  wrapper->retrieveClientData();
  EXPECT_EQ(wrapper->entry().rsrcKeys.remarkProfileType, 9U);
}

}  // namespace
