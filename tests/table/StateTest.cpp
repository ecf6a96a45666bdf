#include <gmock/gmock.h>

#include "Brio/MutatorException.h"
#include "TableTest.h"

namespace {

using Asic::EntryVersion;
using Asic::MajorVersion;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
using TestSupport::Events;

template <class T>
class SoftwareTableState : public TestSupport::TableTest<T> {
 protected:
  using Base = TestSupport::TableTest<T>;
  using Table = typename Base::Table;
  using Wrapper = typename Base::Wrapper;

  Lumen::Ptr<Wrapper> wrapper(std::uint64_t number, const EntryVersion& version = {}) {
    const auto handle = Table::entryHandleFactory(version, this->key(number), this->table().get());
    return Wrapper::KelpEntryWrapperIs(this->entry(number), handle);
  }
};
TYPED_TEST_SUITE(SoftwareTableState, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(SoftwareTableState, AFreshTableHasNothingInFlight) {
  const auto table = this->table();
  EXPECT_TRUE(table->transientAddEntry().empty());
  EXPECT_TRUE(table->transientRemoveEntry().empty());
  EXPECT_TRUE(table->transientVersionForKey().empty());
  EXPECT_FALSE(table->transientRemoveAllVersion().valid());
  EXPECT_FALSE(table->hasPendingHwWrites());
  EXPECT_TRUE(table->markedKey().empty());
  EXPECT_FALSE(table->inMarkingState());
  EXPECT_EQ(table->entryHandleInLogFront(), nullptr);
  EXPECT_NE(table->swTableHelper(), nullptr);
  EXPECT_NE(table->stats(), nullptr);
  EXPECT_EQ(table->entryLog(), this->log());
  EXPECT_EQ(table->groupResolver(), this->group()->groupResolver());
  EXPECT_EQ(table->swTableSet(), this->intf()->swTableSet().get());
  EXPECT_EQ(table->unitId(), this->unit0);
  EXPECT_EQ(table->tableId(), TypeParam::tableId);
}

TYPED_TEST(SoftwareTableState, ConstructionTracesItsFixedShape) {
  this->start();
  (void)this->intf();
  TestSupport::TraceCapture traces("*KelpSwTable/*");
  (void)this->table();
  ASSERT_FALSE(traces.lines().empty());
  EXPECT_EQ(traces.lines()[0].text, "doesMarkSweep: True hwErrorHandling: False");
  EXPECT_EQ(traces.lines()[0].level, 8U);
}

TYPED_TEST(SoftwareTableState, TheVersionOfAKeyThatWasNeverWrittenIsInvalid) {
  const auto version = this->table()->transientVersionForKey(this->key(1));
  EXPECT_FALSE(version.valid());
  EXPECT_EQ(version.majorVersion, 0xFFFFFFFFFFFFFFFFU);
  EXPECT_EQ(version.minorVersion, 0xFFFFU);
}

TYPED_TEST(SoftwareTableState, WritersOfTheNewestWriteTellOfChangesOnly) {
  const auto table = this->table();
  Events events;
  const TestSupport::TableWatch<TypeParam> watch(table, events);
  const auto first = this->wrapper(1, EntryVersion{0, 0});
  const auto second = this->wrapper(1, EntryVersion{1, 0});
  table->transientAddEntryIs(first);
  table->transientAddEntryIs(first);
  EXPECT_EQ(table->transientAddEntry(this->key(1)), first);
  table->transientAddEntryIs(second);
  EXPECT_EQ(table->transientAddEntry(this->key(1)), second);
  EXPECT_EQ(table->transientAddEntryDel(this->key(2)), nullptr);
  EXPECT_EQ(table->transientAddEntryDel(this->key(1)), second);
  EXPECT_EQ(table->transientAddEntryDel(this->key(1)), nullptr);
  const std::string key = this->text(1);
  EXPECT_THAT(events, ElementsAre("899 " + key + " was none", "899 " + key + " was 0.0",
                                  "899 " + key + " was 1.0"));
}

TYPED_TEST(SoftwareTableState, WritersOfTheNewestRemoveTellOfChangesOnly) {
  const auto table = this->table();
  Events events;
  const TestSupport::TableWatch<TypeParam> watch(table, events);
  const auto first = this->wrapper(1, EntryVersion{4, 0});
  const auto second = this->wrapper(1, EntryVersion{5, 0});
  table->transientRemoveEntryIs(first);
  table->transientRemoveEntryIs(first);
  table->transientRemoveEntryIs(second);
  EXPECT_EQ(table->transientRemoveEntry(this->key(1)), second);
  EXPECT_EQ(table->transientRemoveEntryDel(this->key(2)), nullptr);
  EXPECT_EQ(table->transientRemoveEntryDel(this->key(1)), second);
  const std::string key = this->text(1);
  EXPECT_THAT(events, ElementsAre("900 " + key + " was none", "900 " + key + " was 4.0",
                                  "900 " + key + " was 5.0"));
}

TYPED_TEST(SoftwareTableState, AnEqualVersionSendsNoNotification) {
  const auto table = this->table();
  Events events;
  const TestSupport::TableWatch<TypeParam> watch(table, events);
  const auto key = this->key(1);
  table->transientVersionForKeyIs(key, EntryVersion{3, 1});
  table->transientVersionForKeyIs(key, EntryVersion{3, 1});
  table->transientVersionForKeyIs(key, EntryVersion{3, 2});
  EXPECT_TRUE(table->transientVersionForKey(key).isEq(EntryVersion{3, 2}));
  EXPECT_FALSE(table->transientVersionForKeyDel(this->key(2)).valid());
  EXPECT_TRUE(table->transientVersionForKeyDel(key).isEq(EntryVersion{3, 2}));
  EXPECT_FALSE(table->transientVersionForKeyDel(key).valid());
  EXPECT_THAT(events, ElementsAre("901 " + this->text(1) + " was 18446744073709551615.65535",
                                  "901 " + this->text(1) + " was 3.1",
                                  "901 " + this->text(1) + " was 3.2"));
}

TYPED_TEST(SoftwareTableState, PlainAttributesTellOfChangesOnly) {
  const auto table = this->table();
  const auto plain = table->swTableHelper();
  Events events;
  const TestSupport::TableWatch<TypeParam> watch(table, events);
  table->swTableHelperIs(plain);
  const auto helper = Lumen::makeNode<typename TestFixture::Table::Helper>();
  table->swTableHelperIs(helper);
  EXPECT_EQ(table->swTableHelper(), helper);
  table->transientRemoveAllVersionIs(MajorVersion{});
  table->transientRemoveAllVersionIs(MajorVersion{2});
  table->transientRemoveAllVersionIs(MajorVersion{2});
  table->transientRemoveAllVersionIs(MajorVersion{});
  table->inMarkingStateIs(false);
  table->inMarkingStateIs(true);
  table->inMarkingStateIs(true);
  table->inMarkingStateIs(false);
  EXPECT_THAT(events, ElementsAre(fmt::format("898 was {}", fmt::ptr(plain.get())),
                                  "902 was invalid", "902 was 2", "917 was false", "917 was true"));
}

TYPED_TEST(SoftwareTableState, AMarkedKeyIsMarkedOnce) {
  const auto table = this->table();
  Events events;
  const TestSupport::TableWatch<TypeParam> watch(table, events);
  table->markedKeyIs(this->key(1));
  table->markedKeyIs(this->key(1));
  EXPECT_NE(table->markedKey()[this->key(1)], nullptr);
  EXPECT_FALSE(table->markedKeyDel(this->key(2)));
  EXPECT_TRUE(table->markedKeyDel(this->key(1)));
  EXPECT_EQ(table->markedKey()[this->key(1)], nullptr);
  EXPECT_THAT(events, ElementsAre("916 " + this->text(1), "916 " + this->text(1)));
}

TYPED_TEST(SoftwareTableState, ANullWrapperIsRefusedByName) {
  const auto table = this->table();
  try {
    table->transientAddEntryIs(nullptr);
    FAIL() << "a null wrapper was taken";
  } catch (const Brio::MutatorException& refusal) {
    EXPECT_THAT(std::string(refusal.what()), testing::HasSubstr("899"));
  }
  try {
    table->transientRemoveEntryIs(nullptr);
    FAIL() << "a null wrapper was taken";
  } catch (const Brio::MutatorException& refusal) {
    EXPECT_THAT(std::string(refusal.what()), testing::HasSubstr("900"));
  }
  EXPECT_TRUE(table->transientAddEntry().empty());
  EXPECT_TRUE(table->transientRemoveEntry().empty());
}

TYPED_TEST(SoftwareTableState, EmptyingACollectionTellsOfEveryMember) {
  const auto table = this->table();
  for (std::uint64_t i = 0; i < 3; ++i) {
    table->transientAddEntryIs(this->wrapper(i));
    table->transientRemoveEntryIs(this->wrapper(i));
    table->transientVersionForKeyIs(this->key(i), EntryVersion{i, 0});
    table->markedKeyIs(this->key(i));
  }
  const auto each = [&](const std::string& before, const std::string& after) {
    std::vector<std::string> all;
    for (std::uint64_t i = 0; i < 3; ++i) {
      all.push_back(before + this->text(i) + after);
    }
    return all;
  };
  {
    Events events;
    const TestSupport::TableWatch<TypeParam> watch(table, events);
    table->transientAddEntryDelAll();
    EXPECT_THAT(events, testing::UnorderedElementsAreArray(each("899 ", " was 0.0")));
    events.clear();
    table->transientRemoveEntryDelAll();
    EXPECT_THAT(events, testing::UnorderedElementsAreArray(each("900 ", " was 0.0")));
    events.clear();
    table->markedKeyDelAll();
    EXPECT_THAT(events, testing::UnorderedElementsAreArray(each("916 ", "")));
    events.clear();
    table->transientVersionForKeyDelAll();
    EXPECT_THAT(events, UnorderedElementsAre("901 " + this->text(0) + " was 0.0",
                                             "901 " + this->text(1) + " was 1.0",
                                             "901 " + this->text(2) + " was 2.0"));
    events.clear();
    table->transientAddEntryDelAll();
    table->transientVersionForKeyDelAll();
    EXPECT_THAT(events, IsEmpty());
  }
  EXPECT_TRUE(table->transientAddEntry().empty());
  EXPECT_TRUE(table->transientRemoveEntry().empty());
  EXPECT_TRUE(table->transientVersionForKey().empty());
  EXPECT_TRUE(table->markedKey().empty());
}

TYPED_TEST(SoftwareTableState, EmptyingACollectionThatNobodyWatchesEmptiesItAtOnce) {
  const auto table = this->table();
  for (std::uint64_t i = 0; i < 100; ++i) {
    table->transientAddEntryIs(this->wrapper(i));
    table->transientRemoveEntryIs(this->wrapper(i));
    table->transientVersionForKeyIs(this->key(i), EntryVersion{i, 0});
    table->markedKeyIs(this->key(i));
  }
  table->transientAddEntryDelAll();
  table->transientRemoveEntryDelAll();
  table->transientVersionForKeyDelAll();
  table->markedKeyDelAll();
  EXPECT_TRUE(table->transientAddEntry().empty());
  EXPECT_TRUE(table->transientRemoveEntry().empty());
  EXPECT_TRUE(table->transientVersionForKey().empty());
  EXPECT_TRUE(table->markedKey().empty());
}

TYPED_TEST(SoftwareTableState, ARemoveAllLeavesTheVersionsOfItsKeysToCountOn) {
  const auto table = this->table();
  this->write(table, 1);
  this->write(table, 1);
  table->entryRemoveAll(nullptr);
  EXPECT_EQ(table->transientAddEntry(this->key(1)), nullptr);
  EXPECT_TRUE(table->transientVersionForKey(this->key(1)).isEq(EntryVersion{1, 0}));
  this->pass();
  EXPECT_TRUE(table->transientVersionForKey(this->key(1)).isEq(EntryVersion{1, 0}));
  const auto next = this->write(table, 1);
  EXPECT_TRUE(next->version().isEq(EntryVersion{2, 0}));
  this->pass();
  EXPECT_FALSE(table->transientVersionForKey(this->key(1)).valid());
  EXPECT_TRUE(this->write(table, 1)->version().isEq(EntryVersion{0, 0}));
}

TYPED_TEST(SoftwareTableState, AKeyInFlightStandsInOneCollectionAndHasItsNewestVersion) {
  const auto table = this->table();
  const auto check = [&] {
    for (const auto& node : table->transientAddEntry()) {
      EXPECT_EQ(table->transientRemoveEntry()[node.key()], nullptr);
      EXPECT_TRUE(
          table->transientVersionForKey(node.key()).isEq(node.value()->entryHandle()->version()));
    }
    for (const auto& node : table->transientRemoveEntry()) {
      EXPECT_TRUE(
          table->transientVersionForKey(node.key()).isEq(node.value()->entryHandle()->version()));
    }
  };
  for (std::uint64_t step = 0; step < 200; ++step) {
    const std::uint64_t number = step * 7 % 11;
    if (step % 3 == 0) {
      this->remove(table, number);
    } else {
      this->write(table, number);
    }
    if (step % 41 == 40) {
      table->entryRemoveAll(nullptr);
    }
    if (step % 29 == 28) {
      this->pass();
    }
    check();
  }
}

TYPED_TEST(SoftwareTableState, TheHandleQueueNumbersItsElementsFromOneAndTells) {
  const auto table = this->table();
  Events events;
  const TestSupport::TableWatch<TypeParam> watch(table, events);
  EXPECT_EQ(table->entryHandleInLogDeq(), nullptr);
  EXPECT_THAT(events, IsEmpty());
  const auto first = this->handleIn(table, 1, 11);
  const auto second = this->handleIn(table, 1, 12);
  table->entryHandleInLogEnq(first);
  table->entryHandleInLogEnq(second);
  EXPECT_FALSE(table->entryHandleInLogHas(0));
  EXPECT_TRUE(table->entryHandleInLogHas(1));
  EXPECT_TRUE(table->entryHandleInLogHas(2));
  EXPECT_FALSE(table->entryHandleInLogHas(3));
  EXPECT_EQ(table->entryHandleInLog(1), first);
  EXPECT_EQ(table->entryHandleInLog(3), nullptr);
  EXPECT_EQ(table->entryHandleInLogFront(), first);
  EXPECT_EQ(table->entryHandleInLogBack(), second);
  EXPECT_EQ(table->entryHandleInLogDeq(), first);
  EXPECT_EQ(table->entryHandleInLog(1), nullptr);
  EXPECT_EQ(table->entryHandleInLogFront(), second);
  EXPECT_EQ(table->entryHandleInLogDeq(), second);
  EXPECT_EQ(table->entryHandleInLogBack(), nullptr);
  table->entryHandleInLogEnq(first);
  EXPECT_THAT(events, ElementsAre("907 enq 1", "907 enq 2", "907 deq 1 of 11", "907 deq 2 of 12",
                                  "907 enq 3"));
}

TYPED_TEST(SoftwareTableState, EmptyingTheHandleQueueKeepsTheIndexRunning) {
  const auto table = this->table();
  const auto handle = this->handleIn(table, 1, 11);
  for (int i = 0; i < 6; ++i) {
    table->entryHandleInLogEnq(handle);
  }
  table->entryHandleInLogDelAll();
  EXPECT_EQ(table->entryHandleInLogFront(), nullptr);
  EXPECT_EQ(handle->refCount(), 1U);
  Events events;
  const TestSupport::TableWatch<TypeParam> watch(table, events);
  table->entryHandleInLogEnq(handle);
  table->entryHandleInLogEnq(handle);
  table->entryHandleInLogDelAll();
  EXPECT_THAT(events, ElementsAre("907 enq 7", "907 enq 8", "907 deq 7 of 11", "907 deq 8 of 11"));
  EXPECT_EQ(table->entryHandleInLogFront(), nullptr);
}

TYPED_TEST(SoftwareTableState, TheTablesEndClearsWithoutNotifications) {
  Events events;
  const auto handle = [&] {
    const auto table = this->table();
    const auto queued = this->write(table, 1);
    this->pass();
    this->write(table, 2);
    table->markedKeyIs(this->key(2));
    return queued;
  }();
  struct Watch : Lumen::Subscriber {
    Events& events;
    explicit Watch(Events& to) : Subscriber(&Watch::changed), events(to) {}
    static void changed(Lumen::Publisher*, Lumen::Subscriber* self, Lumen::FieldId field,
                        const void*, const void*) {
      static_cast<Watch*>(self)->events.push_back(std::to_string(field.value));
    }
  } watch(events);
  // The last references to the table go while somebody still listens.
  this->table()->publisher()->subscriberAdd(&watch);
  this->stop();
  EXPECT_THAT(events, IsEmpty());
  EXPECT_EQ(this->state(handle), 1U);
  EXPECT_EQ(handle->refCount(), 1U);
}

template <class T>
using SoftwareTableStateDeathTest = SoftwareTableState<T>;
TYPED_TEST_SUITE(SoftwareTableStateDeathTest, TestSupport::AllTableTypes,
                 TestSupport::TableTestName);

TYPED_TEST(SoftwareTableStateDeathTest, AWrapperIsReplacedUnderItsOwnKeyOnly) {
  using Node = typename TestFixture::Table::HN_TransientAddEntry;
  Node node(this->wrapper(1));
  EXPECT_DEATH(node.valueIs(this->wrapper(2)),
               TestSupport::assertion("fwkKey() == KeyFunktor()( _value )"));
  const auto same = this->wrapper(1);
  node.valueIs(same);
  EXPECT_EQ(node.value(), same);
}

// A subscriber that takes every marked key out again at once.
template <class Table>
class Unmark final : private Lumen::Subscriber {
 public:
  using Key = typename Table::Key;

  explicit Unmark(const Lumen::Ptr<Table>& table) : Subscriber(&Unmark::changed), table_(table) {
    table_->publisher()->subscriberAdd(this);
  }
  ~Unmark() { table_->publisher()->subscriberRemove(this); }

 private:
  static void changed(Lumen::Publisher*, Lumen::Subscriber* self, Lumen::FieldId field,
                      const void* key, const void*) {
    if (field.attribute() == 916) {
      static_cast<Unmark*>(self)->table_->markedKeyDel(*static_cast<const Key*>(key));
    }
  }

  Lumen::Ptr<Table> table_;
};

TYPED_TEST(SoftwareTableState, ASubscriberMayTakeAMarkOutAgain) {
  const auto table = this->table();
  {
    const Unmark unmark(table);
    EXPECT_EQ(table->markedKeyIs(this->key(1)), nullptr);
  }
  EXPECT_EQ(table->markedKey().size(), 0U);
  const auto* node = table->markedKeyIs(this->key(1));
  ASSERT_NE(node, nullptr);
  EXPECT_TRUE(node->key() == this->key(1));
}

}  // namespace
