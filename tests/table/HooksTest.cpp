#include <gmock/gmock.h>

#include "TableTest.h"

namespace {

using testing::ElementsAre;
using TestSupport::Events;

template <class T>
class FinalizeHooks : public TestSupport::TableTest<T> {
 protected:
  using Base = TestSupport::TableTest<T>;
  using Table = typename Base::Table;
  using Wrapper = typename Base::Wrapper;
  using Helper = typename Table::Helper;

  // Tells how the world looks from inside each hook.
  class Witness final : public Helper {
   public:
    void finalizeOnSuccess(const Lumen::Ptr<Wrapper>& entry, bool isDelete,
                           const Lumen::Ptr<Table>& table) override {
      events.push_back(fmt::format("{}: add {} remove {} version {} logged {} in state {}",
                                   isDelete ? "remove" : "write",
                                   table->transientAddEntry(entry->key()) == entry,
                                   table->transientRemoveEntry(entry->key()) == entry,
                                   table->transientVersionForKey(entry->key()).valid(),
                                   table->entryLog()->entryHas(entry->key(), table->unitId()),
                                   static_cast<unsigned>(entry->entryHandle()->entryState())));
    }
    bool finalizeOnFailure(const Lumen::Ptr<Wrapper>&, bool isDelete,
                           const Lumen::Ptr<Table>&) override {
      events.push_back(fmt::format("failure {}", isDelete));
      return keep;
    }
    Events events;
    bool keep = false;
  };

  Lumen::Ptr<Wrapper> wrapperOf(const typename Base::Entry& entry) {
    return Wrapper::KelpEntryWrapperIs(
        entry, Table::entryHandleFactory({}, entry.logEntry.key, this->table().get()));
  }
  // An entry whose resolved fields, if it has some, are not 0.
  typename Base::Entry resolvedEntry(std::uint64_t number) {
    auto entry = this->entry(number);
    if constexpr (requires { entry.logEntry.inLif0Index; }) {
      entry.logEntry.inLif0Index = 111;
    }
    if constexpr (requires { entry.logEntry.inLif1Index; }) {
      entry.logEntry.inLif1Index = 222;
    }
    if constexpr (requires { entry.logEntry.inLif23Index; }) {
      entry.logEntry.inLif23Index = 223;
    }
    if constexpr (requires { entry.logEntry.vlanEditProfile; }) {
      entry.logEntry.vlanEditProfile = 11;
      entry.logEntry.remarkProfile = 22;
    }
    return entry;
  }
};
TYPED_TEST_SUITE(FinalizeHooks, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(FinalizeHooks, AWriteIsStillTheNewestWhenTheHookRunsAndARemoveIsNot) {
  const auto table = this->table();
  const auto witness = Lumen::makeNode<typename TestFixture::Witness>();
  table->swTableHelperIs(witness);
  this->write(table, 1);
  this->pass();
  this->remove(table, 1);
  this->pass();
  EXPECT_THAT(witness->events,
              ElementsAre("write: add true remove false version true logged false in state 0",
                          "remove: add false remove false version false logged true in state 0"));
}

TYPED_TEST(FinalizeHooks, AnOvertakenWriteHasItsHookTooWithoutBeingTheNewest) {
  const auto table = this->table();
  const auto witness = Lumen::makeNode<typename TestFixture::Witness>();
  table->swTableHelperIs(witness);
  this->write(table, 1, 0);
  this->write(table, 1, 1);
  this->pass();
  EXPECT_THAT(witness->events,
              ElementsAre("write: add false remove false version true logged false in state 0",
                          "write: add true remove false version true logged true in state 0"));
}

TYPED_TEST(FinalizeHooks, ARemoveAllHasNoHook) {
  const auto table = this->table();
  this->commit(table, 1);
  const auto witness = Lumen::makeNode<typename TestFixture::Witness>();
  table->swTableHelperIs(witness);
  table->entryRemoveAll(nullptr);
  this->pass();
  EXPECT_THAT(witness->events, testing::IsEmpty());
}

TYPED_TEST(FinalizeHooks, ThePlainHelperDropsFailuresAndTakesUpdates) {
  const auto table = this->table();
  const auto wrapper = this->wrapperOf(this->entry(1));
  const auto helper = Lumen::makeNode<typename TestFixture::Helper>();
  helper->finalizeOnSuccess(wrapper, false, table);
  EXPECT_TRUE(TestSupport::isAsked(wrapper->entry(), this->entry(1)));
  EXPECT_FALSE(helper->finalizeOnFailure(wrapper, false, table));
  EXPECT_FALSE(helper->finalizeOnFailure(wrapper, true, table));
  EXPECT_TRUE(helper->finalizeOnResourceUpdate(wrapper, table, false));
  EXPECT_TRUE(helper->finalizeOnResourceUpdate(wrapper, table, true));
}

TYPED_TEST(FinalizeHooks, WithoutAResourceHandleAWriteIsLoggedWithZeroInTheResolvedFields) {
  const auto table = this->table();
  auto entry = this->resolvedEntry(1);
  const typename TestFixture::Entry blank;
  entry.rsrcKeys = blank.rsrcKeys;
  (void)table->entryWrite(this->key(1), entry, nullptr);
  this->pass();
  auto expected = entry;
  if constexpr (requires { entry.logEntry.inLif0Index; }) {
    expected.logEntry.inLif0Index = 0;
  }
  if constexpr (requires { entry.logEntry.inLif1Index; }) {
    expected.logEntry.inLif1Index = 0;
  }
  if constexpr (requires { entry.logEntry.inLif23Index; }) {
    expected.logEntry.inLif23Index = 0;
  }
  if constexpr (requires { entry.logEntry.vlanEditProfile; }) {
    expected.logEntry.vlanEditProfile = 0;
    expected.logEntry.remarkProfile = 0;
  }
  EXPECT_TRUE(this->configRecord(1).entry.isEq(expected));
  EXPECT_TRUE(this->logRecord(1).logEntry.isEq(expected.logEntry));
}

TYPED_TEST(FinalizeHooks, ADeleteLeavesTheLogEntryAndStillTellsTheHelper) {
  const auto table = this->table();
  const auto witness = Lumen::makeNode<typename TestFixture::Witness>();
  table->swTableHelperIs(witness);
  const auto entry = this->resolvedEntry(1);
  const auto wrapper = this->wrapperOf(entry);
  TestSupport::TraceCapture traces("*KelpSwTable/8");
  wrapper->finalizeOnSuccess(table, true);
  EXPECT_TRUE(wrapper->logEntry().isEq(entry.logEntry));
  ASSERT_EQ(witness->events.size(), 1U);
  EXPECT_THAT(witness->events[0], testing::StartsWith("remove:"));
  EXPECT_TRUE(traces.has(8, " key: " + this->text(1) + " isDeleted: true"));
  traces.clear();
  wrapper->finalizeOnSuccess(table, false);
  EXPECT_TRUE(traces.has(8, " key: " + this->text(1) + " isDeleted: false"));
}

TYPED_TEST(FinalizeHooks, AFailureAsksTheHelperAndKeepsTheResolvedFields) {
  const auto table = this->table();
  const auto witness = Lumen::makeNode<typename TestFixture::Witness>();
  table->swTableHelperIs(witness);
  const auto entry = this->resolvedEntry(1);
  const auto wrapper = this->wrapperOf(entry);
  for (const bool keep : {false, true}) {
    witness->keep = keep;
    Events events;
    {
      const TestSupport::TraceWatch<TypeParam> traces("*KelpSwTable/3,8", events);
      EXPECT_EQ(wrapper->finalizeOnFailure(table, false), keep);
    }
    EXPECT_THAT(events, ElementsAre("SwTable 8:  key: " + this->text(1) + " isDeleted: false",
                                    fmt::format("SwTable 3:  retVal: {}", keep)));
  }
  EXPECT_THAT(witness->events, ElementsAre("failure false", "failure false"));
  EXPECT_TRUE(wrapper->logEntry().isEq(entry.logEntry));
}

TYPED_TEST(FinalizeHooks, WhatAHookWritesComesAfterTheOperationThatItBelongsTo) {
  class Writer final : public TestFixture::Helper {
   public:
    void finalizeOnSuccess(const Lumen::Ptr<typename TestFixture::Wrapper>& entry, bool,
                           const Lumen::Ptr<typename TestFixture::Table>& table) override {
      if (left-- > 0) {
        (void)table->entryWrite(entry->key(), entry->entry(), nullptr);
      }
    }
    int left = 2;
  };
  const auto table = this->table();
  table->swTableHelperIs(Lumen::makeNode<Writer>());
  const auto handle = this->write(table, 1);
  EXPECT_EQ(this->group()->groupResolver()->runPass(), 1U);
  EXPECT_EQ(handle->logVersion().value, 1U);
  EXPECT_NE(table->transientAddEntry(this->key(1)), nullptr) << "the hook's write is the newest";
  EXPECT_EQ(this->pass(), 2U);
  EXPECT_TRUE(table->transientVersionForKey().empty());
}

TYPED_TEST(FinalizeHooks, ANewHelperTakesOverAtOnce) {
  const auto witness = Lumen::makeNode<typename TestFixture::Witness>();
  const auto table = this->table();
  this->write(table, 1);
  EXPECT_EQ(this->intf()->makeSwTable(this->unit0, witness, false), table);
  EXPECT_EQ(table->swTableHelper(), witness);
  this->pass();
  EXPECT_EQ(witness->events.size(), 1U);
  (void)this->intf()->makeSwTable(this->unit0, nullptr, false);
  EXPECT_EQ(table->swTableHelper(), witness) << "no helper is no change";
}

// The values that resources give to an entry in flight.

template <class T>
class InLifResources : public FinalizeHooks<T> {};
using InLifTables = testing::Types<KelpEmServer::Isem1Tag, KelpEmServer::Isem2Tag,
                                   KelpEmServer::IsemMpls, KelpEmServer::IsemUntagged>;
TYPED_TEST_SUITE(InLifResources, InLifTables, TestSupport::TableTestName);

TYPED_TEST(InLifResources, WithoutAHandleTheIndexesAreZero) {
  const auto wrapper = this->wrapperOf(this->resolvedEntry(1));
  EXPECT_EQ(wrapper->inLifIdxKeyResPtr(), nullptr);
  EXPECT_EQ(wrapper->inLif0Index(), 0U);
  wrapper->setResolvedFields();
  EXPECT_EQ(wrapper->logEntry().inLif0Index, 0U);
}

TYPED_TEST(InLifResources, TheHandlesValuesGoToTheLogEntryFirstValueFirst) {
  const auto table = this->table();
  const auto entry = this->entry(1);
  const auto wrapper = this->wrapperOf(entry);
  auto resource =
      Lumen::makeNode<KelpTunnelNiLib::InLifIndexResourceHandle>(entry.rsrcKeys.inLifIdxKey);
  resource->resultsIs({71, 72});
  wrapper->inLifIdxKeyResPtrIs(resource);
  EXPECT_EQ(wrapper->inLif0Index(), 71U);
  wrapper->finalizeOnSuccess(table, true);
  EXPECT_EQ(wrapper->logEntry().inLif0Index, 0U) << "a delete is left alone";
  wrapper->finalizeOnSuccess(table, false);
  EXPECT_EQ(wrapper->logEntry().inLif0Index, 71U);
  if constexpr (requires { wrapper->inLif1Index(); }) {
    EXPECT_EQ(wrapper->inLif1Index(), 72U);
    EXPECT_EQ(wrapper->logEntry().inLif1Index, 72U);
  } else {
    EXPECT_EQ(wrapper->inLif23Index(), 72U);
    EXPECT_EQ(wrapper->logEntry().inLif23Index, 72U);
  }
}

template <class Wrapper>
concept AnswersInLif1 = requires(const Wrapper& wrapper) {
  wrapper.inLif1Index();
};
template <class Wrapper>
concept AnswersInLif23 = requires(const Wrapper& wrapper) {
  wrapper.inLif23Index();
};

TEST(EntryWrapper, OnlyIsemMplsAnswersInLif23IndexAndItAnswersNoInLif1Index) {
  using namespace KelpEmServer;
  static_assert(AnswersInLif23<KelpEntryWrapper<IsemMpls>> &&
                !AnswersInLif1<KelpEntryWrapper<IsemMpls>>);
  static_assert(AnswersInLif1<KelpEntryWrapper<Isem1Tag>> &&
                !AnswersInLif23<KelpEntryWrapper<Isem1Tag>>);
  static_assert(AnswersInLif1<KelpEntryWrapper<Isem2Tag>> &&
                !AnswersInLif23<KelpEntryWrapper<Isem2Tag>>);
  static_assert(AnswersInLif1<KelpEntryWrapper<IsemUntagged>> &&
                !AnswersInLif23<KelpEntryWrapper<IsemUntagged>>);
  static_assert(!AnswersInLif1<KelpEntryWrapper<EsemFodo>> &&
                !AnswersInLif23<KelpEntryWrapper<LemVpwsAc>>);
}

using ProfileResources = FinalizeHooks<KelpEmServer::EsemFodoVd>;

TEST_F(ProfileResources, TheHandlesProfilesGoToTheLogEntry) {
  const auto table = this->table();
  auto entry = this->entry(1);
  entry.rsrcKeys.remarkProfileType = 4;
  const auto wrapper = this->wrapperOf(entry);
  EXPECT_EQ(wrapper->vlanEditProfile(), 0);
  EXPECT_EQ(wrapper->remarkProfile(), 0);
  TestSupport::TraceCapture traces("EsemFodoVdKelpSwTable/3");
  wrapper->retrieveClientData();
  EXPECT_EQ(wrapper->rsrcKeys().remarkProfileType, 4) << "there is no handle to take it from";
  EXPECT_TRUE(traces.lines().empty());

  auto edit = Lumen::makeNode<KelpTunnelNiLib::VlanEditProfileResourceHandle>(
      entry.rsrcKeys.vlanEditProfileKey);
  edit->resultsIs({31});
  wrapper->vlanEditProfileKeyResPtrIs(edit);
  auto remark = Lumen::makeNode<KelpTunnelNiLib::RemarkProfileResourceHandle>(
      entry.rsrcKeys.remarkProfileKey);
  KelpQos::RemarkProfileResults results;
  results.profile = 32;
  results.clientData.value = 999;
  remark->resultsIs(results);
  wrapper->remarkProfileKeyResPtrIs(remark);
  wrapper->finalizeOnSuccess(table, false);
  EXPECT_EQ(wrapper->logEntry().vlanEditProfile, 31);
  EXPECT_EQ(wrapper->logEntry().remarkProfile, 32);
  EXPECT_EQ(wrapper->rsrcKeys().remarkProfileType, 4);
  wrapper->retrieveClientData();
  EXPECT_EQ(wrapper->rsrcKeys().remarkProfileType, 999);
  EXPECT_TRUE(traces.has(3, " Setting clientData to: 999 "));
}

}  // namespace
