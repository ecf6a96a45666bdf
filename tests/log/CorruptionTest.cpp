#include "FlipByte.h"
#include "LogFixture.h"
#include "Quilt/Chains.h"

// Reads that meet bytes which do not add up: reported to the collection once, and then as if there
// were no record. Work goes on. The bytes are changed in the file, under the running agent.

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

template <class T>
class LogCorruption : public TestSupport::LogFixture<T> {
 protected:
  using Config = typename T::ConfigQuilt;

  // Flips a byte of the stored record of a key, behind the key.
  void garble(std::uint64_t number) {
    bool found = false;
    auto& map = this->log().tableConfigQuilt(this->unit0)->swTableEntries();
    const auto& record = map.find(this->key(number), found);
    ASSERT_TRUE(found);
    TestSupport::flipByte(this->root_.path(), map, &record.version);
  }
  void garbleLog(std::uint64_t version) {
    bool found = false;
    auto& map = this->bareLog().tableEntryLog()->entryLogConfig();
    const auto& record = map.find(Asic::LogVersion{version}, found);
    ASSERT_TRUE(found);
    TestSupport::flipByte(this->root_.path(), map, &record.unitId);
  }
  bool damaged() { return this->log().tableConfigQuilt(this->unit0)->mapBase().damaged(); }
};
TYPED_TEST_SUITE(LogCorruption, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(LogCorruption, ACorruptRecordReadsAsTheDefaultAndIsReportedOnce) {
  using Entry = typename TestFixture::Entry;
  (void)this->write(1, 3);
  (void)this->write(2, 3);
  EXPECT_FALSE(this->damaged());
  this->garble(1);
  testing::internal::CaptureStderr();
  auto& log = this->log();
  EXPECT_FALSE(log.entryHas(this->key(1), this->unit0));
  EXPECT_TRUE(this->damaged());
  EXPECT_TRUE(log.entry(this->key(1), this->unit0).isEq(Entry().logEntry));
  EXPECT_TRUE(log.entryRsrcKeys(this->key(1), this->unit0).isEq(Entry().rsrcKeys));
  EXPECT_EQ(log.entryLogVersion(this->key(1), this->unit0).value, 0U);
  const std::string report = testing::internal::GetCapturedStderr();
  EXPECT_THAT(report, HasSubstr("corruption in collection swTableEntries"));
  EXPECT_THAT(report,
              HasSubstr(KelpEmServer::KelpConstants<TypeParam>::configQuiltPath(this->unit0)));
  EXPECT_EQ(report.find("corruption"), report.rfind("corruption")) << report;
  // What is whole reads on.
  EXPECT_TRUE(log.entryHas(this->key(2), this->unit0));
}

TYPED_TEST(LogCorruption, AWriteOverACorruptRecordGoesAheadAndHealsIt) {
  (void)this->write(1, 3);
  this->garble(1);
  testing::internal::CaptureStderr();
  EXPECT_EQ(this->writeSuppressible(1, 3), 2U) << "a corrupt lookup counts as no record";
  (void)testing::internal::GetCapturedStderr();
  EXPECT_TRUE(this->damaged());
  EXPECT_EQ(this->stats_->suppressedWriteCnt(), 0U);
  EXPECT_EQ(this->stats_->suppressCheckDiffCnt(), 0U);
  this->expectLive(1, 2);
  EXPECT_TRUE(TestSupport::isAsked(this->log().entry(this->key(1), this->unit0),
                                   this->entry(1, 3).logEntry));
}

TYPED_TEST(LogCorruption, ADeleteOfACorruptRecordIsIgnored) {
  (void)this->write(1);
  this->garble(1);
  testing::internal::CaptureStderr();
  EXPECT_EQ(this->remove(1), 0U);
  (void)testing::internal::GetCapturedStderr();
  EXPECT_TRUE(this->damaged());
  this->expectIssued(1);
}

TYPED_TEST(LogCorruption, ACorruptRecordEndsAWalkWithTheCountReached) {
  for (std::uint64_t i = 0; i < 20; ++i) {
    (void)this->write(i);
  }
  (void)this->removeAll();
  this->garble(7);
  testing::internal::CaptureStderr();
  const unsigned counted = this->log().entrysInDeletion(this->unit0);
  EXPECT_LT(counted, 20U);
  EXPECT_TRUE(this->damaged());
  EXPECT_EQ(this->log().entrys(this->unit0), 20U - counted);
  // A table delete goes on to its log record.
  EXPECT_EQ(this->removeAll(), 22U);
  this->expectIssued(22);
  (void)testing::internal::GetCapturedStderr();
}

TYPED_TEST(LogCorruption, ACleanupThatMeetsACorruptConfigurationLeavesTheRecord) {
  (void)this->write(1);
  (void)this->write(2);
  EXPECT_EQ(this->remove(1), 3U);
  EXPECT_EQ(this->remove(2), 4U);
  this->garble(1);
  testing::internal::CaptureStderr();
  this->cleanup(4);
  (void)testing::internal::GetCapturedStderr();
  EXPECT_EQ(this->lastCleaned(), 4U);
  EXPECT_TRUE(this->logVersions().empty());
  EXPECT_FALSE(this->hasRecord(2));
  EXPECT_EQ(this->records(), 1U);
}

TYPED_TEST(LogCorruption, AWholeCleanupEndsAtACorruptLogRecordButMovesTheMark) {
  for (std::uint64_t i = 0; i < 6; ++i) {
    (void)this->write(i);
  }
  this->garbleLog(4);
  testing::internal::CaptureStderr();
  this->cleanup(6);
  const std::string report = testing::internal::GetCapturedStderr();
  EXPECT_THAT(report, HasSubstr("corruption in collection entryLogConfig"));
  EXPECT_EQ(this->lastCleaned(), 6U);
  EXPECT_TRUE(this->bareLog().tableEntryLog()->mapBase().damaged());
  EXPECT_EQ(this->bareLog().tableEntryLog()->entryLogConfig().size(), 3U);
}

TYPED_TEST(LogCorruption, AVersionByVersionCleanupPassesOverACorruptLogRecord) {
  for (std::uint64_t i = 0; i < 6; ++i) {
    (void)this->write(i);
  }
  this->cleanup(1);
  this->garbleLog(4);
  testing::internal::CaptureStderr();
  this->cleanup(6);
  (void)testing::internal::GetCapturedStderr();
  EXPECT_EQ(this->lastCleaned(), 6U);
  EXPECT_EQ(this->bareLog().tableEntryLog()->entryLogConfig().size(), 1U);
  EXPECT_EQ(this->write(9), 7U) << "work goes on";
}

TYPED_TEST(LogCorruption, AMountSweepThatMeetsACorruptRecordEndsThereAndWorkGoesOn) {
  for (std::uint64_t i = 0; i < 20; ++i) {
    (void)this->write(i);
  }
  (void)this->removeAll();
  this->garble(7);
  testing::internal::CaptureStderr();
  this->bareLog().mountQuiltConfig(this->unit0, Asic::LogVersion{21});
  (void)testing::internal::GetCapturedStderr();
  EXPECT_TRUE(this->damaged());
  EXPECT_GE(this->records(), 1U);
  EXPECT_EQ(this->write(30), 22U);
  this->expectLive(30, 22);
}

TYPED_TEST(LogCorruption, AnEmptyCollectionIsCountedWithoutALookAtItsBuckets) {
  using ConfigRecord = typename TestFixture::ConfigRecord;
  using Words = Quilt::KeyWords<typename TestFixture::Key>;
  (void)this->write(1);
  (void)this->remove(1);
  this->cleanup(2);
  EXPECT_EQ(this->records(), 0U);
  // A bucket that leads nowhere, for whoever comes by.
  auto& map = this->log().tableConfigQuilt(this->unit0)->swTableEntries();
  const Quilt::Chains<ConfigRecord> chains(*map.file());
  const std::uint32_t bucket = chains.bucketOf(Words::of(this->key(1)));
  TestSupport::flipByte(this->root_.path(), map, &chains.head(bucket));
  EXPECT_EQ(this->log().entrys(this->unit0), 0U);
  EXPECT_EQ(this->log().entrysInDeletion(this->unit0), 0U);
  EXPECT_FALSE(this->damaged());
  // With a record there is a walk, and it does come by.
  std::uint64_t number = 2;
  while (chains.bucketOf(Words::of(this->key(number))) <= bucket) {
    ++number;
  }
  (void)this->write(number);
  testing::internal::CaptureStderr();
  EXPECT_EQ(this->log().entrysInDeletion(this->unit0), 0U);
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              HasSubstr("corruption in collection swTableEntries"));
  EXPECT_TRUE(this->damaged());
}

}  // namespace
