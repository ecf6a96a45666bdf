#include <algorithm>
#include <array>
#include <cstring>

#include "LogFixture.h"

// Log reading.

namespace {

template <class T>
class LogReading : public TestSupport::LogFixture<T> {};
TYPED_TEST_SUITE(LogReading, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(LogReading, ALiveRecordReadsAsStored) {
  const std::uint64_t version = this->write(1, 5);
  auto& log = this->log();
  EXPECT_TRUE(log.entryHas(this->key(1), this->unit0));
  EXPECT_TRUE(
      TestSupport::isAsked(log.entry(this->key(1), this->unit0), this->entry(1, 5).logEntry));
  EXPECT_TRUE(TestSupport::isAsked(log.entryRsrcKeys(this->key(1), this->unit0),
                                   this->entry(1, 5).rsrcKeys));
  EXPECT_EQ(log.entryLogVersion(this->key(1), this->unit0).value, version);
  EXPECT_EQ(log.entrys(this->unit0), 1U);
  EXPECT_EQ(log.entrysInDeletion(this->unit0), 0U);
}

TYPED_TEST(LogReading, ADeletedRecordIsGoneForSomeAndThereForOthers) {
  using LogEntry = typename TestFixture::LogEntry;
  (void)this->write(1, 5);
  (void)this->write(2);
  const std::uint64_t version = this->remove(1);
  auto& log = this->log();
  EXPECT_FALSE(log.entryHas(this->key(1), this->unit0));
  EXPECT_TRUE(log.entry(this->key(1), this->unit0).isEq(LogEntry()));
  EXPECT_TRUE(TestSupport::isAsked(log.entryRsrcKeys(this->key(1), this->unit0),
                                   this->entry(1, 5).rsrcKeys));
  EXPECT_EQ(log.entryLogVersion(this->key(1), this->unit0).value, version);
  EXPECT_EQ(log.entrysInDeletion(this->unit0), 1U);
  EXPECT_EQ(log.entrys(this->unit0), 1U);
}

TYPED_TEST(LogReading, AnUnknownKeyReadsAsTheDefaults) {
  using Entry = typename TestFixture::Entry;
  (void)this->write(1, 5);
  auto& log = this->log();
  EXPECT_FALSE(log.entryHas(this->key(2), this->unit0));
  EXPECT_TRUE(log.entry(this->key(2), this->unit0).isEq(Entry().logEntry));
  EXPECT_TRUE(log.entryRsrcKeys(this->key(2), this->unit0).isEq(Entry().rsrcKeys));
  EXPECT_EQ(log.entryLogVersion(this->key(2), this->unit0).value, 0U);
}

TYPED_TEST(LogReading, AnEmptyCollectionCountsNothing) {
  EXPECT_EQ(this->log().entrys(this->unit0), 0U);
  EXPECT_EQ(this->log().entrysInDeletion(this->unit0), 0U);
}

TYPED_TEST(LogReading, ACollectionOfDeletedRecordsCountsThemInDeletionOnly) {
  for (std::uint64_t i = 0; i < 50; ++i) {
    (void)this->write(i);
  }
  (void)this->removeAll();
  EXPECT_EQ(this->log().entrys(this->unit0), 0U);
  EXPECT_EQ(this->log().entrysInDeletion(this->unit0), 50U);
}

TYPED_TEST(LogReading, UnitsAreReadApart) {
  (void)this->write(1, 1, this->unit0);
  (void)this->write(1, 2, this->unit1);
  (void)this->write(2, 2, this->unit1);
  auto& log = this->log();
  EXPECT_TRUE(
      TestSupport::isAsked(log.entry(this->key(1), this->unit0), this->entry(1, 1).logEntry));
  EXPECT_TRUE(TestSupport::isAsked(log.entryRsrcKeys(this->key(1), this->unit1),
                                   this->entry(1, 2).rsrcKeys));
  EXPECT_EQ(log.entrys(this->unit0), 1U);
  EXPECT_EQ(log.entrys(this->unit1), 2U);
  EXPECT_FALSE(log.entryHas(this->key(2), this->unit0));
}

TYPED_TEST(LogReading, TheChangeLogIsNotRead) {
  (void)this->write(1);
  this->log().tableEntryLog()->entryLogConfigDel(Asic::LogVersion{1});
  EXPECT_TRUE(this->log().entryHas(this->key(1), this->unit0));
  EXPECT_EQ(this->log().entryLogVersion(this->key(1), this->unit0).value, 1U);
  this->log().tableConfigQuilt(this->unit0)->swTableEntriesDel(this->key(1));
  EXPECT_FALSE(this->log().entryHas(this->key(1), this->unit0));
}

TYPED_TEST(LogReading, ReadsTraceTheirArguments) {
  (void)this->write(1, 0, this->unit1);
  const auto& log = this->log(this->unit1);
  const std::string keyText = fmt::format(" key: {} unitId:1", this->key(1));
  TestSupport::TraceCapture traces("*KelpEntryLog/8");
  const auto expectOne = [&](const std::string& text) {
    ASSERT_GE(traces.lines().size(), 1U);
    EXPECT_EQ(traces.lines()[0].level, 8U);
    EXPECT_EQ(traces.lines()[0].text, text);
    EXPECT_EQ(traces.lines()[0].handle, std::string(TypeParam::name.view()) + "KelpEntryLog");
    traces.clear();
  };
  (void)log.entry(this->key(1), this->unit1);
  expectOne(keyText);
  (void)log.entryHas(this->key(1), this->unit1);
  expectOne(keyText);
  (void)log.entryRsrcKeys(this->key(1), this->unit1);
  expectOne(keyText);
  (void)log.entryLogVersion(this->key(1), this->unit1);
  expectOne(keyText);
  (void)log.entrysInDeletion(this->unit1);
  expectOne(" unitId:1");
  (void)log.entrys(this->unit1);
  expectOne(" unitId:1");
}

// The defaults of a log entry are not zero on every table.
class LogReadingDefaults : public TestSupport::LogFixture<KelpEmServer::IsemMpls> {};

TEST_F(LogReadingDefaults, TheDefaultOfADeletedKeyIsNotAllZero) {
  (void)write(1);
  (void)remove(1);
  const LogEntry entry = log().entry(key(1), unit0);
  EXPECT_TRUE(entry.isEq(LogEntry()));
  std::array<unsigned char, sizeof entry> bytes{};
  std::memcpy(bytes.data(), &entry, sizeof entry);
  EXPECT_FALSE(std::all_of(bytes.begin(), bytes.end(), [](unsigned char b) { return b == 0; }));
}

}  // namespace
