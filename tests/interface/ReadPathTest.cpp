#include "Brio/Log.h"
#include "FlipByte.h"
#include "InterfaceFixture.h"
#include "OrderedTable/EntryReadPath.h"
#include "OrderedTable/OrderedSwTableAccessor.h"

// Reads: what is in flight over what is committed.

namespace {

using testing::HasSubstr;
using testing::IsEmpty;

template <class T>
class ReadPath : public TestSupport::InterfaceFixture<T> {
 public:
  using Entry = typename T::Entry;

 protected:
  static bool isDefault(const Entry& entry) { return entry.isEq(Entry()); }
};
TYPED_TEST_SUITE(ReadPath, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(ReadPath, AnEntryThatWasWrittenAndNotCommittedReadsAsWritten) {
  const auto table = this->table();
  (void)table->entryWrite(this->key(1), this->entry(1, 4), nullptr);
  EXPECT_TRUE(TestSupport::isAsked(table->entryRead(this->key(1)), this->entry(1, 4)));
  EXPECT_TRUE(TestSupport::isAsked(table->entry(this->key(1)), this->entry(1, 4)));
  EXPECT_TRUE(table->entryHas(this->key(1)));
  EXPECT_EQ(table->entrys(), 1U);
  EXPECT_TRUE(this->isDefault(table->entryFromConfig(this->key(1)))) << "not committed";
}

TYPED_TEST(ReadPath, ACommittedEntryWithARemoveInFlightReadsAsTheDefaultWithoutATrace) {
  const auto table = this->table();
  this->commit(table, 1);
  (void)table->entryRemove(this->key(1), nullptr);
  TestSupport::TraceCapture traces("*/1-3");
  EXPECT_TRUE(this->isDefault(table->entryRead(this->key(1))));
  EXPECT_FALSE(table->entryHas(this->key(1)));
  EXPECT_EQ(table->entrys(), 0U);
  EXPECT_THAT(traces.lines(), IsEmpty());
  EXPECT_TRUE(TestSupport::isAsked(table->entryFromConfig(this->key(1)), this->entry(1)));
}

TYPED_TEST(ReadPath, ACommittedEntryWrittenAgainReadsAsTheNewOneAndCountsOnce) {
  const auto table = this->table();
  this->commit(table, 1, 0);
  this->commit(table, 2, 0);
  (void)table->entryWrite(this->key(1), this->entry(1, 9), nullptr);
  EXPECT_TRUE(TestSupport::isAsked(table->entryRead(this->key(1)), this->entry(1, 9)));
  EXPECT_TRUE(TestSupport::isAsked(table->entryFromConfig(this->key(1)), this->entry(1, 0)));
  EXPECT_EQ(table->entrys(), 2U);
  (void)table->entryWrite(this->key(3), this->entry(3), nullptr);
  EXPECT_EQ(table->entrys(), 3U);
}

TYPED_TEST(ReadPath, ARemoveInFlightOfAKeyThatIsNotCommittedTakesNothingFromTheCount) {
  const auto table = this->table();
  this->commit(table, 1);
  (void)table->entryRemove(this->key(2), nullptr);
  (void)table->entryRemove(this->key(3), nullptr);
  EXPECT_EQ(table->entrys(), 1U);
  (void)table->entryRemove(this->key(1), nullptr);
  EXPECT_EQ(table->entrys(), 0U);
  (void)table->entryWrite(this->key(2), this->entry(2), nullptr);
  EXPECT_EQ(table->entrys(), 1U);
}

TYPED_TEST(ReadPath, DuringARemoveAllOnlyWritesInFlightAreThereButACommittedEntryStillReads) {
  const auto table = this->table();
  this->commit(table, 1);
  this->commit(table, 2);
  (void)table->entryWrite(this->key(2), this->entry(2, 5), nullptr);
  table->entryRemoveAll(nullptr);
  EXPECT_EQ(table->entrys(), 0U);
  (void)table->entryWrite(this->key(3), this->entry(3), nullptr);
  (void)table->entryWrite(this->key(4), this->entry(4), nullptr);
  EXPECT_EQ(table->entrys(), 2U);
  EXPECT_FALSE(table->entryHas(this->key(1)));
  EXPECT_TRUE(TestSupport::isAsked(table->entryRead(this->key(1)), this->entry(1)));
  EXPECT_TRUE(TestSupport::isAsked(table->entryRead(this->key(2)), this->entry(2, 0)))
      << "the write before the remove-all is no longer in flight";
  EXPECT_TRUE(table->entryHas(this->key(3)));
  this->pass();
  EXPECT_TRUE(this->isDefault(table->entryRead(this->key(1))));
  EXPECT_EQ(table->entrys(), 2U);
}

TYPED_TEST(ReadPath, ARecordThatIsMarkedAsDeletedReadsAsAbsent) {
  const auto table = this->table();
  this->commit(table, 1);
  this->commit(table, 2);
  (void)table->entryRemove(this->key(1), nullptr);
  this->pass();
  EXPECT_EQ(this->intf()->entryLog()->entrysInDeletion(this->unit0), 1U);
  EXPECT_TRUE(this->isDefault(table->entryRead(this->key(1))));
  EXPECT_TRUE(this->isDefault(table->entry(this->key(1))));
  EXPECT_TRUE(this->isDefault(table->entryFromConfig(this->key(1))));
  EXPECT_FALSE(table->entryHas(this->key(1)));
  EXPECT_EQ(table->entrys(), 1U);
}

TYPED_TEST(ReadPath, AReadThatFindsNothingIsTracedAsAFailure) {
  const auto table = this->table();
  EXPECT_EQ(table->entrys(), 0U);
  const std::string failed = fmt::format("Failed to find entry for key: {}", this->key(1));
  TestSupport::TraceCapture traces("*/1");
  EXPECT_TRUE(this->isDefault(table->entryRead(this->key(1))));
  ASSERT_EQ(traces.lines().size(), 1U);
  EXPECT_EQ(traces.lines()[0].text, failed);
  EXPECT_TRUE(this->isDefault(table->entry(this->key(1))));
  EXPECT_EQ(traces.lines().size(), 2U);
  EXPECT_FALSE(table->entryHas(this->key(1)));
  EXPECT_TRUE(this->isDefault(table->entryFromConfig(this->key(1))));
  EXPECT_EQ(traces.lines().size(), 2U) << "the others find nothing in silence";
}

TYPED_TEST(ReadPath, ReadsTraceTheirStepsInOrder) {
  const auto table = this->table();
  this->commit(table, 1);
  const std::string name(TypeParam::name.view());
  const std::string key = fmt::format("{}", this->key(1));
  struct Seen {
    std::string handle;
    std::string text;
    std::string function;
    bool operator==(const Seen&) const = default;
  };
  std::vector<Seen> seen;
  const TestSupport::TraceCapture on("*Kelp*/8");
  const auto previous = Lumen::traceSinkIs([&](const Lumen::TraceRecord& record) {
    seen.push_back(
        {std::string(record.handleName), std::string(record.text), std::string(record.function)});
  });
  (void)table->entry(this->key(1));
  Lumen::traceSinkIs(previous);
  ASSERT_EQ(seen.size(), 4U);
  EXPECT_EQ(seen[0].handle, name + "KelpSwTable");
  EXPECT_EQ(seen[0].text, " key: " + key);
  EXPECT_EQ(seen[0].function, "entryRead") << "both operations are one";
  EXPECT_EQ(seen[1].handle, name + "KelpSwTable");
  EXPECT_EQ(seen[1].text, "key: " + key);
  EXPECT_EQ(seen[2].handle, name + "KelpEntryLog");
  EXPECT_EQ(seen[2].text, " key: " + key + " unitId:0");
  EXPECT_EQ(seen[3].handle, name + "KelpSwTable");
  EXPECT_EQ(seen[3].text, "key: " + key);
}

TYPED_TEST(ReadPath, EntryHasTracesItsKey) {
  const auto table = this->table();
  TestSupport::TraceCapture traces("*KelpSwTable/8");
  (void)table->entryHas(this->key(1));
  ASSERT_EQ(traces.lines().size(), 1U);
  EXPECT_EQ(traces.lines()[0].text, fmt::format("key: {}", this->key(1)));
}

TYPED_TEST(ReadPath, AWrapperOfACommittedEntryCarriesItAndAHandle) {
  using Table = typename TestFixture::Table;
  using Wrapper = typename Table::Wrapper;
  const auto table = this->table();
  this->commit(table, 1, 3);
  Asic::OrderedSwTableAccessor<Table> accessor(table.get());
  Lumen::Ptr<typename Table::EntryHandle> handle;
  {
    TestSupport::TraceCapture traces("*KelpSwTable/8");
    const auto wrapper =
        accessor.template entryWrapperFromConfig<Wrapper>(this->key(1), false, handle);
    ASSERT_NE(handle, nullptr);
    EXPECT_TRUE(TestSupport::isAsked(wrapper->entry(), this->entry(1, 3)));
    EXPECT_EQ(wrapper->entryHandle(), handle);
    EXPECT_TRUE(handle->version().isEq(Asic::EntryVersion{}));
    EXPECT_EQ(handle->key(), this->key(1));
    EXPECT_EQ(handle->entryState(), Asic::EntryState::entryStateUnresolved);
    EXPECT_TRUE(traces.has(8, fmt::format("key: {}, refreshRsrcPtrs: {}", this->key(1), false)));
  }
  // A handle that is there is taken; a key without an entry yields the default entry of that key.
  const auto first = handle;
  const auto other = accessor.template entryWrapperFromConfig<Wrapper>(this->key(2), false, handle);
  EXPECT_EQ(handle, first);
  EXPECT_EQ(other->entryHandle(), first);
  EXPECT_EQ(other->key(), this->key(2));
  typename TestFixture::Entry blank;
  blank.logEntry.key = this->key(2);
  EXPECT_TRUE(other->entry().isEq(blank));
}

TYPED_TEST(ReadPath, ReadsChangeNothing) {
  const auto table = this->table();
  this->commit(table, 1);
  this->commit(table, 2);
  (void)table->entryWrite(this->key(3), this->entry(3), nullptr);
  (void)table->entryRemove(this->key(2), nullptr);
  for (std::uint64_t i = 0; i < 5; ++i) {
    (void)table->entryRead(this->key(i));
    (void)table->entryHas(this->key(i));
    (void)table->entryFromConfig(this->key(i));
  }
  EXPECT_EQ(table->entrys(), 2U);
  EXPECT_EQ(table->transientAddEntry().size(), 1U);
  EXPECT_EQ(table->transientRemoveEntry().size(), 1U);
  EXPECT_EQ(this->intf()->entryLog()->tableVersion().value, 2U);
}

// --- over a record that does not add up

template <class T>
class ReadPathOverDamage : public ReadPath<T> {
 protected:
  // Three entries, of which the one of key 1 is made unreadable.
  void SetUp() override {
    ReadPath<T>::SetUp();
    const auto table = this->table();
    for (std::uint64_t i = 0; i < 3; ++i) {
      this->commit(table, i, 4);
    }
    bool found = false;
    const auto& record = records().find(this->key(1), found);
    ASSERT_TRUE(found);
    TestSupport::flipByte(this->root_.path(), records(), &record.version);
    EXPECT_FALSE(records().damaged());
    previous_ =
        Brio::logSinkIs([this](const Brio::LogRecord& log) { messages_.emplace_back(log.text); });
  }
  void TearDown() override {
    Brio::logSinkIs(previous_);
    ReadPath<T>::TearDown();
  }

  auto& records() {
    return this->intf()->entryLog()->tableConfigQuilt(this->unit0)->swTableEntries();
  }
  void expectReportedOnce() {
    EXPECT_TRUE(records().damaged());
    ASSERT_EQ(messages_.size(), 1U);
    EXPECT_THAT(messages_[0], HasSubstr("corruption in collection swTableEntries"));
    EXPECT_THAT(messages_[0],
                HasSubstr(KelpEmServer::KelpConstants<T>::configQuiltPath(this->unit0)));
  }
  // All that is whole reads on, in every way.
  void expectOthersReadable() {
    const auto table = this->table();
    for (const std::uint64_t number : {0, 2}) {
      EXPECT_TRUE(table->entryHas(this->key(number)));
      EXPECT_TRUE(
          TestSupport::isAsked(table->entryRead(this->key(number)), this->entry(number, 4)));
      EXPECT_TRUE(
          TestSupport::isAsked(table->entryFromConfig(this->key(number)), this->entry(number, 4)));
    }
  }

  std::vector<std::string> messages_;

 private:
  Brio::LogSink previous_;
};
TYPED_TEST_SUITE(ReadPathOverDamage, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(ReadPathOverDamage, AReadIsOneThatFindsNothing) {
  const auto table = this->table();
  TestSupport::TraceCapture traces("*/1");
  EXPECT_TRUE(this->isDefault(table->entryRead(this->key(1))));
  ASSERT_EQ(traces.lines().size(), 1U);
  EXPECT_EQ(traces.lines()[0].text, fmt::format("Failed to find entry for key: {}", this->key(1)));
  this->expectReportedOnce();
  EXPECT_TRUE(this->isDefault(table->entry(this->key(1))));
  EXPECT_FALSE(table->entryHas(this->key(1)));
  this->expectOthersReadable();
  this->expectReportedOnce();
}

TYPED_TEST(ReadPathOverDamage, AReadOfTheCommittedEntryYieldsTheDefault) {
  const auto table = this->table();
  EXPECT_TRUE(this->isDefault(table->entryFromConfig(this->key(1))));
  this->expectReportedOnce();
  this->expectOthersReadable();
  EXPECT_TRUE(this->isDefault(table->entryFromConfig(this->key(1))));
  this->expectReportedOnce();
}

TYPED_TEST(ReadPathOverDamage, AWrapperOfTheCommittedEntryIsThatOfAnAbsentKey) {
  using Table = typename TestFixture::Table;
  const auto table = this->table();
  Lumen::Ptr<typename Table::EntryHandle> handle;
  const auto wrapper =
      Asic::OrderedSwTableAccessor<Table>(table.get())
          .template entryWrapperFromConfig<typename Table::Wrapper>(this->key(1), false, handle);
  typename TestFixture::Entry blank;
  blank.logEntry.key = this->key(1);
  EXPECT_TRUE(wrapper->entry().isEq(blank));
  this->expectReportedOnce();
}

TYPED_TEST(ReadPathOverDamage, AWriteInFlightIsReadAndTheRecordIsNotTouched) {
  const auto table = this->table();
  (void)table->entryWrite(this->key(1), this->entry(1, 9), nullptr);
  EXPECT_TRUE(TestSupport::isAsked(table->entryRead(this->key(1)), this->entry(1, 9)));
  EXPECT_TRUE(table->entryHas(this->key(1)));
  EXPECT_THAT(this->messages_, IsEmpty());
  EXPECT_FALSE(this->records().damaged());
  // Committed, it takes the place of the damage.
  this->pass();
  EXPECT_TRUE(TestSupport::isAsked(table->entryFromConfig(this->key(1)), this->entry(1, 9)));
  this->expectOthersReadable();
}

template <class T>
class ReadPathDeathTest : public ReadPath<T> {};
TYPED_TEST_SUITE(ReadPathDeathTest, testing::Types<KelpEmServer::Isem1Tag>,
                 TestSupport::TableTestName);

TYPED_TEST(ReadPathDeathTest, AReadOfAUnitThatIsNotMountedEndsTheProcess) {
  const auto table = this->table();
  (void)this->intf()->entryLog()->tableConfigQuiltDel(this->unit0);
  EXPECT_DEATH((void)table->entryFromConfig(this->key(1)), "");
}

}  // namespace
