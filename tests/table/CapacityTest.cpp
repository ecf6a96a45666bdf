#include <gmock/gmock.h>

#include "TableTest.h"

namespace {

using testing::ElementsAre;

// What a table does when its change log or its configuration collection is full.
template <class T>
class FullChangeLog : public TestSupport::TableTest<T> {
 protected:
  using Log = typename TestSupport::TableTest<T>::Log;

  // Has the log hold `count` records, by versions far above those that the table issues and of a
  // unit that is not mounted.
  void fillTo(std::uint64_t count) {
    const Asic::UnitId nobody{999};
    const auto logQuilt = this->log()->tableEntryLog();
    for (std::uint64_t version = 2000000; logQuilt->entryLogConfig().size() < count; ++version) {
      logQuilt->entryLogConfigIs(typename Log::LogRecord(Asic::LogVersion{version}, {}, nobody, 0));
    }
  }
  std::string noSpace(const std::string& key, bool isRemove) {
    return fmt::format("SwTable 1: key: {}, isEntryDeleted: {} : no space in entryLog!", key,
                       isRemove);
  }
};
TYPED_TEST_SUITE(FullChangeLog, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(FullChangeLog, ALogOf999999RecordsTakesOneMoreAndThenNone) {
  const auto table = this->table();
  this->fillTo(999999);
  const auto last = this->write(table, 1);
  EXPECT_EQ(this->pass(), 1U);
  EXPECT_EQ(this->state(last), 1U);
  EXPECT_EQ(this->changeLog().size(), 1000000U);

  const auto waiting = this->write(table, 2);
  TestSupport::Events events;
  {
    const TestSupport::TraceWatch<TypeParam> traces("*KelpSwTable/1-3", events);
    EXPECT_EQ(this->pass(), 0U);
  }
  EXPECT_THAT(events, ElementsAre(this->noSpace(this->text(2), false)));
  EXPECT_EQ(this->state(waiting), 0U);
  EXPECT_EQ(this->tableVersion(), 1U);

  // The report of the one record that is the table's makes room for the next.
  this->report(1);
  EXPECT_EQ(this->changeLog().size(), 999999U);
  EXPECT_EQ(this->pass(), 1U);
  EXPECT_EQ(this->state(waiting), 1U);
  EXPECT_EQ(waiting->logVersion().value, 2U);
}

TYPED_TEST(FullChangeLog, TheQuestionOfRoomComesFirstAndForRemovesToo) {
  const auto table = this->table();
  this->fillTo(1000000);
  const auto ask = [&] {
    const auto entry = table->resolverQueue().front();
    table->resolverQueue().clear();
    TestSupport::Events events;
    {
      const TestSupport::TraceWatch<TypeParam> traces("*KelpSwTable/*", events);
      EXPECT_FALSE(entry->isResolved());
    }
    return events;
  };
  (void)table->entryWrite(this->key(1), this->entry(1), this->handleIn(table, 0));
  EXPECT_THAT(ask(), ElementsAre(this->noSpace(this->text(1), false)));
  (void)table->entryRemove(this->key(1), this->handleIn(table, 5));
  EXPECT_THAT(ask(), ElementsAre(this->noSpace(this->text(1), true)));
  table->entryRemoveAll(nullptr);
  EXPECT_THAT(ask(),
              ElementsAre(this->noSpace(fmt::format("{}", typename TestFixture::Key()), false)));
}

TYPED_TEST(FullChangeLog, OtherTablesOfTheGroupGoOn) {
  const auto table = this->table();
  this->fillTo(1000000);
  this->write(table, 1);
  const auto other = this->writeOther(1);
  EXPECT_EQ(this->pass(), 1U);
  EXPECT_EQ(static_cast<unsigned>(other->entryState()), 1U);
}

template <class T>
class FullConfiguration : public TestSupport::TableTest<T> {
 protected:
  using Base = TestSupport::TableTest<T>;
  static constexpr std::uint64_t kMost = 65536;

  // Counts hooks of any kind.
  class Hooks final : public Base::Table::Helper {
   public:
    void finalizeOnSuccess(const Lumen::Ptr<typename Base::Wrapper>&, bool,
                           const Lumen::Ptr<typename Base::Table>&) override {
      ++calls;
    }
    bool finalizeOnFailure(const Lumen::Ptr<typename Base::Wrapper>&, bool,
                           const Lumen::Ptr<typename Base::Table>&) override {
      ++calls;
      return true;
    }
    int calls = 0;
  };

  // Has the unit's collection hold keys 0 to `count` - 1.
  void fillTo(std::uint64_t count) {
    const auto quilt = this->log()->tableConfigQuilt(this->unit0);
    for (std::uint64_t number = 0; number < count; ++number) {
      quilt->swTableEntriesIs(
          typename Base::Log::ConfigRecord(this->entry(number), Asic::LogVersion{1}, false));
    }
    ASSERT_EQ(quilt->swTableEntries().size(), count);
  }
};
// IsemUntagged has no key beyond the 65,536 that fit.
using TablesThatOverflow =
    testing::Types<KelpEmServer::EsemFodo, KelpEmServer::EsemFodoVd, KelpEmServer::Isem1Tag,
                   KelpEmServer::Isem2Tag, KelpEmServer::IsemInnerEth, KelpEmServer::IsemMpls,
                   KelpEmServer::LemVpwsAc>;
TYPED_TEST_SUITE(FullConfiguration, TablesThatOverflow, TestSupport::TableTestName);

TYPED_TEST(FullConfiguration, ANewKeyFailsBeforeAnyHookAndWithoutAVersion) {
  const auto table = this->table();
  this->fillTo(this->kMost - 1);
  const auto hooks = Lumen::makeNode<typename TestFixture::Hooks>();
  table->swTableHelperIs(hooks);
  const auto last = this->write(table, this->kMost - 1);
  this->pass();
  EXPECT_EQ(this->state(last), 1U);
  EXPECT_EQ(hooks->calls, 1);

  std::vector<unsigned> states;
  const auto refused = table->entryWriteWithResponseHandler(
      this->key(this->kMost), this->entry(this->kMost), nullptr,
      [&](const auto& handle) { states.push_back(TestFixture::state(handle)); });
  TestSupport::Events events;
  {
    const TestSupport::TraceWatch<TypeParam> traces("*KelpSwTable/1:*KelpEntryLog/*", events);
    this->pass();
  }
  EXPECT_THAT(events,
              ElementsAre("SwTable 1: Failed to commit entry key: " + this->text(this->kMost)));
  EXPECT_EQ(this->state(refused), 5U);
  EXPECT_THAT(states, ElementsAre(5));
  EXPECT_EQ(refused->logVersion().value, 0U);
  EXPECT_EQ(hooks->calls, 1);
  EXPECT_EQ(this->tableVersion(), 1U);
  EXPECT_EQ(this->log()->tableEntryLog()->collectionControl()->announced(), 1U);
  EXPECT_EQ(table->transientAddEntry(this->key(this->kMost)), nullptr);
  EXPECT_FALSE(table->transientVersionForKey(this->key(this->kMost)).valid());
  EXPECT_FALSE(table->entryHas(this->key(this->kMost)));
  EXPECT_EQ(table->stats()->commitCnt(), 2U);
  this->report(1);
  EXPECT_FALSE(table->hasPendingHwWrites());
}

TYPED_TEST(FullConfiguration, OverwritesAndRemovesStillWorkAndMakeRoom) {
  const auto table = this->table();
  this->fillTo(this->kMost);
  const auto overwrite = this->write(table, 7, 3);
  this->pass();
  EXPECT_EQ(this->state(overwrite), 1U);
  EXPECT_TRUE(TestSupport::isAsked(this->configRecord(7).entry, this->entry(7, 3)));
  const auto removal = this->remove(table, 8);
  this->pass();
  EXPECT_EQ(this->state(removal), 1U);
  EXPECT_FALSE(table->entryHas(this->key(8)));
  EXPECT_EQ(this->log()->tableConfigQuilt(this->unit0)->swTableEntries().size(), this->kMost)
      << "the deleted record stays until it is reported";
  const auto early = this->write(table, this->kMost);
  this->pass();
  EXPECT_EQ(this->state(early), 5U);
  this->report(2);
  const auto late = this->write(table, this->kMost);
  this->pass();
  EXPECT_EQ(this->state(late), 1U);
  EXPECT_TRUE(table->entryHas(this->key(this->kMost)));
}

TYPED_TEST(FullConfiguration, ADependantOfARefusedEntryFailsToo) {
  const auto table = this->table();
  this->fillTo(this->kMost);
  const auto refused = this->write(table, this->kMost);
  const auto other = this->writeOther(1, refused);
  this->pass();
  EXPECT_EQ(this->state(refused), 5U);
  EXPECT_EQ(static_cast<unsigned>(other->entryState()), 5U);
}

TYPED_TEST(FullConfiguration, ARemoveAllEmptiesItForNewKeys) {
  const auto table = this->table();
  this->fillTo(this->kMost);
  table->entryRemoveAll(nullptr);
  this->pass();
  EXPECT_EQ(table->entrys(), 0U);
  this->report(1);
  EXPECT_EQ(this->log()->tableConfigQuilt(this->unit0)->swTableEntries().size(), 0U);
  const auto handle = this->write(table, this->kMost);
  this->pass();
  EXPECT_EQ(this->state(handle), 1U);
}

}  // namespace
