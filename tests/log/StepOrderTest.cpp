#include "LogFixture.h"

// A change is finished step by step: configuration record, log record, saved version, published
// version. Seen by what a process that dies in the middle of a change leaves behind.

namespace {

using testing::HasSubstr;

class ChangeOrderDeathTest : public TestSupport::LogFixture<KelpEmServer::EsemFodo> {
 protected:
  using Constants = KelpEmServer::KelpConstants<KelpEmServer::EsemFodo>;

  // What another process sees.
  bool logHas(std::uint64_t version) {
    bool found = false;
    (void)Lumen::dynamicPtrCast<KelpTunnelNiLib::EsemFodoEntryLogQuilt>(
        memory()->openReader(Constants::tableEntryLogQuiltPath(),
                             log().tableEntryLog()->typeName()))
        ->entryLogConfig()
        .find(Asic::LogVersion{version}, found);
    return found;
  }
  ConfigRecord configRecord(std::uint64_t number) {
    bool found = false;
    return Lumen::dynamicPtrCast<KelpTunnelNiLib::EsemFodoConfigQuilt>(
               memory()->openReader(Constants::configQuiltPath(unit0),
                                    log().tableConfigQuilt(unit0)->typeName()))
        ->swTableEntries()
        .find(key(number), found);
  }
};

TEST_F(ChangeOrderDeathTest, TheConfigurationRecordComesBeforeTheLogRecordAndTheSavedVersion) {
  EXPECT_EQ(write(1), 1U);
  // The change log has room for four times what it declares; the change after that dies at its log
  // record.
  EXPECT_DEATH(
      {
        for (;;) {
          (void)write(1);
        }
      },
      HasSubstr("no record can be stored in collection entryLogConfig (4000000 of 4000000"));
  const auto control = logControl();
  EXPECT_EQ(control->announced(), 4000001U) << "before anything is stored";
  EXPECT_EQ(configRecord(1).version.value, 4000001U);
  EXPECT_FALSE(logHas(4000001));
  EXPECT_TRUE(logHas(4000000));
  EXPECT_EQ(control->scratchpad(), 4000000U);
  EXPECT_EQ(control->published(), 4000000U);
}

TEST_F(ChangeOrderDeathTest, TheGroupIsToldAfterTheVersionIsSaved) {
  EXPECT_EQ(write(1), 1U);
  // More tables than a record of dependencies names: the group refuses the change.
  const auto needed = Lumen::makeNode<Asic::NeededEntry>();
  for (std::uint32_t i = 0; i < 9; ++i) {
    needed->add({Asic::SwTableId{0x29080500 + i}, Asic::LogVersion{1}});
  }
  const auto second = entry(2);
  EXPECT_DEATH((void)log().entryIs(second.logEntry, second.rsrcKeys, needed, unit0, stats_, false),
               HasSubstr("record.count < kMost"));
  EXPECT_EQ(configRecord(2).version.value, 2U);
  EXPECT_TRUE(logHas(2));
  EXPECT_EQ(logControl()->scratchpad(), 2U);
  EXPECT_EQ(logControl()->published(), 1U) << "dependencies come before the published version";
}

// A cleanup takes the log record away before it touches the configuration collection. Seen by what
// a process leaves that dies when it comes to the configuration collection: it has that one open as
// a reader.
template <class T>
class CleanupOrderDeathTest : public TestSupport::LogFixture<T> {
 protected:
  void expectOrder(std::uint64_t last) {
    using Quilt = typename T::ConfigQuilt;
    auto& log = this->log();
    const auto configQuilt = log.tableConfigQuilt(this->unit0);
    EXPECT_DEATH(
        {
          log.tableConfigQuiltIs(this->unit0,
                                 Lumen::dynamicPtrCast<Quilt>(this->memory()->openReader(
                                     configQuilt->mapBase().path(), configQuilt->typeName())));
          this->cleanup(last);
        },
        HasSubstr("this process has it open as a reader"));
    // What lies in shared memory now, read anew.
    const auto changeLog = log.tableEntryLog();
    const auto left = Lumen::dynamicPtrCast<typename T::EntryLogQuilt>(
        this->memory()->openReader(changeLog->mapBase().path(), changeLog->typeName()));
    bool found = true;
    (void)left->entryLogConfig().find(Asic::LogVersion{last}, found);
    EXPECT_FALSE(found);
    this->expectDeleted(1, last);
  }
};
TYPED_TEST_SUITE(CleanupOrderDeathTest, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(CleanupOrderDeathTest, OfADeleteInTheFirstCleanupOfARun) {
  (void)this->write(1);
  const std::uint64_t last = this->remove(1);
  EXPECT_EQ(this->lastCleaned(), 0U);
  this->expectOrder(last);
}

TYPED_TEST(CleanupOrderDeathTest, OfADeleteInALaterCleanup) {
  (void)this->write(1);
  this->cleanup(1);
  this->expectOrder(this->remove(1));
}

TYPED_TEST(CleanupOrderDeathTest, OfATableDeleteInTheFirstCleanupOfARun) {
  (void)this->write(1);
  this->expectOrder(this->removeAll());
}

TYPED_TEST(CleanupOrderDeathTest, OfATableDeleteInALaterCleanup) {
  (void)this->write(1);
  this->cleanup(1);
  this->expectOrder(this->removeAll());
}

}  // namespace
