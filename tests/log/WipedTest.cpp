#include <array>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include "Asic/GenId.h"
#include "Brio/Log.h"
#include "BrioSharedMem/EntityPath.h"
#include "LogFixture.h"
#include "Vault/Entity.h"
#include "Vault/EntityType.h"

// Collections whose former content is lost, by what really loses it: files that are removed, cut
// or overwritten while no agent runs.

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kRelaunch = "hardware/tinsel/agent/relaunch/config/KelpTunnelNi";

// What may stand where the relaunch generation is looked for.
class OtherEntity final : public Vault::Entity {
 public:
  static constexpr const char* kTypeName = "Test::OtherEntity";
  static constexpr const char* kInitialValue = "untouched";
  using Vault::Entity::Entity;

  [[nodiscard]] std::string value() const {
    const auto row = store().row(path());
    return row ? row->value : "";
  }
};
const Vault::EntityTypeRegistrar<OtherEntity> otherEntityType;

// Collects log messages for its life.
class LogCapture {
 public:
  LogCapture() {
    previous_ = Brio::logSinkIs([this](const Brio::LogRecord& record) {
      lines_.push_back(std::string(record.descriptor.name) + ": " + std::string(record.text));
    });
  }
  ~LogCapture() { Brio::logSinkIs(previous_); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  [[nodiscard]] const std::vector<std::string>& lines() const noexcept { return lines_; }

 private:
  std::vector<std::string> lines_;
  Brio::LogSink previous_;
};

template <class T>
std::string lostItem(const std::string& item) {
  return "HW_ABSTRACTION_ERROR: Hardware abstraction error: unable to load item: " + item +
         "::" + std::string(T::name.view()) + "Kelp";
}

template <class T>
class LogWiped : public TestSupport::LogFixture<T> {
 protected:
  using Constants = KelpEmServer::KelpConstants<T>;

  [[nodiscard]] std::string fileOf(const Lumen::String& path) {
    return this->root_.path() + "/kelp-test/" + BrioSharedMem::encodedPath(path) + ".quilt";
  }
  [[nodiscard]] std::string logFile() { return fileOf(Constants::tableEntryLogQuiltPath()); }
  [[nodiscard]] std::string configFile(Asic::UnitId unit) {
    return fileOf(Constants::configQuiltPath(unit));
  }
  [[nodiscard]] std::uint64_t relaunchGeneration() {
    this->start();
    return Lumen::dynamicPtrCast<Asic::GenId>(this->vault_->getEntity(kRelaunch))->majorId();
  }
  // Three live entries and a deleted one on unit 0, one on unit 1, then no agent.
  void leaveSomething() {
    for (std::uint64_t i = 0; i < 4; ++i) {
      (void)this->write(i);
    }
    (void)this->write(7, 0, this->unit1);
    (void)this->remove(3);
    this->stop();
  }
};
TYPED_TEST_SUITE(LogWiped, TestSupport::AllTableTypes, TestSupport::TableTestName);

void overwrite(const std::string& file, std::uint64_t at, std::size_t bytes) {
  std::fstream stream(file, std::ios::in | std::ios::out | std::ios::binary);
  stream.seekp(static_cast<std::streamoff>(at));
  const std::string garbage(bytes, '\x5a');
  stream.write(garbage.data(), static_cast<std::streamsize>(bytes));
  ASSERT_TRUE(stream.good()) << file;
}

struct Cause {
  const char* name;
  std::function<void(const std::string&)> lose;
};

const std::array<Cause, 5>& causes() {
  static const std::array<Cause, 5> all{{
      {"removed", [](const std::string& file) { std::filesystem::remove(file); }},
      {"emptied", [](const std::string& file) { std::filesystem::resize_file(file, 0); }},
      {"cut",
       [](const std::string& file) {
         std::filesystem::resize_file(file, std::filesystem::file_size(file) / 2);
       }},
      {"another file",
       [](const std::string& file) {
         std::ofstream(file, std::ios::trunc) << std::string(20000, 'x');
       }},
      {"garbled header", [](const std::string& file) { overwrite(file, 0, 600); }},
  }};
  return all;
}

TYPED_TEST(LogWiped, AWipedConfigurationIsReportedAndLeavesTheOthersAsTheyWere) {
  std::uint64_t generation = 0;
  for (const Cause& cause : causes()) {
    SCOPED_TRACE(cause.name);
    this->leaveSomething();
    const std::uint64_t version = this->tableVersion();
    const auto logged = this->logVersions();
    const std::uint64_t incarnation = this->logControl()->incarnation();
    this->stop();
    ASSERT_TRUE(std::filesystem::exists(this->configFile(this->unit0)));
    cause.lose(this->configFile(this->unit0));

    LogCapture messages;
    (void)this->log(this->unit0);
    EXPECT_THAT(messages.lines(), ElementsAre(lostItem<TypeParam>("entryCfg")));
    EXPECT_EQ(this->relaunchGeneration(), ++generation);
    EXPECT_EQ(this->records(this->unit0), 0U);
    EXPECT_FALSE(this->log().tableConfigQuilt(this->unit0)->collectionControl()->wiped());
    EXPECT_EQ(this->records(this->unit1), 1U);
    EXPECT_EQ(this->tableVersion(), version);
    EXPECT_EQ(this->logVersions(), logged);
    EXPECT_EQ(this->logControl()->incarnation(), incarnation);
    EXPECT_EQ(messages.lines().size(), 1U);
    // Work goes on.
    EXPECT_EQ(this->write(1), version + 1);
  }
}

TYPED_TEST(LogWiped, AWipedLogStartsItsVersionsOverInANewIncarnation) {
  std::uint64_t generation = 0;
  for (const Cause& cause : causes()) {
    SCOPED_TRACE(cause.name);
    this->leaveSomething();
    const std::uint64_t incarnation = this->logControl()->incarnation();
    const std::uint64_t records = this->records(this->unit0);
    this->stop();
    cause.lose(this->logFile());

    LogCapture messages;
    (void)this->bareLog();
    EXPECT_THAT(messages.lines(), ElementsAre(lostItem<TypeParam>("entryLog")));
    EXPECT_EQ(this->relaunchGeneration(), ++generation);
    EXPECT_EQ(this->tableVersion(), 0U);
    EXPECT_THAT(this->logVersions(), IsEmpty());
    EXPECT_NE(this->logControl()->incarnation(), incarnation);
    EXPECT_EQ(this->records(this->unit0), records) << "the configuration stays";
    EXPECT_EQ(messages.lines().size(), 1U);
    EXPECT_EQ(this->write(1), 1U);
  }
}

TYPED_TEST(LogWiped, TheRelaunchGenerationRisesByOneForEachWipedCollection) {
  this->leaveSomething();
  for (const std::string& file :
       {this->logFile(), this->configFile(this->unit0), this->configFile(this->unit1)}) {
    std::filesystem::remove(file);
  }
  LogCapture messages;
  (void)this->bareLog();
  EXPECT_EQ(this->relaunchGeneration(), 1U);
  (void)this->log(this->unit0);
  EXPECT_EQ(this->relaunchGeneration(), 2U);
  (void)this->log(this->unit1);
  EXPECT_EQ(this->relaunchGeneration(), 3U);
  EXPECT_THAT(messages.lines(),
              ElementsAre(lostItem<TypeParam>("entryLog"), lostItem<TypeParam>("entryCfg"),
                          lostItem<TypeParam>("entryCfg")));
}

TYPED_TEST(LogWiped, ALossIsReportedOnce) {
  this->leaveSomething();
  std::filesystem::remove(this->configFile(this->unit0));
  LogCapture messages;
  (void)this->log(this->unit0);
  this->restart();
  (void)this->log(this->unit0);
  this->bareLog().mountQuiltConfig(this->unit0, Asic::LogVersion{});
  EXPECT_EQ(messages.lines().size(), 1U);
  EXPECT_EQ(this->relaunchGeneration(), 1U);
}

TYPED_TEST(LogWiped, WithoutARelaunchEntityTheReportIsClearedAllTheSame) {
  this->leaveSomething();
  std::filesystem::remove(this->configFile(this->unit0));
  this->start();
  this->vault_->entityDel(kRelaunch);
  LogCapture messages;
  (void)this->log(this->unit0);
  EXPECT_EQ(messages.lines().size(), 1U);
  EXPECT_FALSE(this->log().tableConfigQuilt(this->unit0)->collectionControl()->wiped());
  EXPECT_EQ(this->vault_->getEntity(kRelaunch), nullptr) << "none is made";
}

TYPED_TEST(LogWiped, AnEntityOfAnotherTypeAtTheRelaunchPathIsPassedOver) {
  this->leaveSomething();
  std::filesystem::remove(this->configFile(this->unit0));
  this->start();
  this->vault_->entityDel(kRelaunch);
  const auto other = this->vault_->template entityIs<OtherEntity>(kRelaunch);
  LogCapture messages;
  (void)this->log(this->unit0);
  EXPECT_EQ(messages.lines().size(), 1U);
  EXPECT_FALSE(this->log().tableConfigQuilt(this->unit0)->collectionControl()->wiped());
  EXPECT_EQ(other->value(), "untouched");
}

TYPED_TEST(LogWiped, AFirstStartIsNoLoss) {
  LogCapture messages;
  (void)this->log(this->unit0);
  EXPECT_THAT(messages.lines(), IsEmpty());
  EXPECT_EQ(this->relaunchGeneration(), 0U);
}

TYPED_TEST(LogWiped, OfADamagedConfigurationTheWholeRecordsAreTakenOver) {
  for (std::uint64_t i = 0; i < 100; ++i) {
    (void)this->write(i);
  }
  const auto& map = this->log().tableConfigQuilt(this->unit0)->swTableEntries();
  const std::uint64_t slots = map.file()->geometry().slotsOffset;
  const std::uint64_t slotBytes = map.file()->geometry().slotBytes;
  const std::string file = this->configFile(this->unit0);
  this->stop();
  overwrite(file, slots + 3 * slotBytes + 16, 8);  // the first bytes of one record
  LogCapture messages;
  EXPECT_EQ(this->records(), 99U);
  EXPECT_THAT(messages.lines(), ElementsAre(lostItem<TypeParam>("entryCfg")));
  EXPECT_EQ(this->relaunchGeneration(), 1U);
  std::uint64_t whole = 0;
  for (std::uint64_t i = 0; i < 100; ++i) {
    if (this->hasRecord(i)) {
      ++whole;
      EXPECT_TRUE(TestSupport::isAsked(this->record(i).entry, this->entry(i)));
      EXPECT_EQ(this->record(i).version.value, i + 1);
    }
  }
  EXPECT_EQ(whole, 99U);
}

TYPED_TEST(LogWiped, AStateDatabaseThatCannotBeReadHoldsUpNothing) {
  (void)this->write(1);
  const std::string database = this->vault_->file();
  const std::string file = this->configFile(this->unit0);
  this->start();
  ASSERT_TRUE(std::filesystem::exists(database));
  (void)this->bareLog();
  this->bareLog().tableConfigQuiltDelAll();
  this->memory()->entityDel(KelpEmServer::KelpConstants<TypeParam>::configQuiltPath(this->unit0));
  std::filesystem::remove(file);
  {
    // A row that is no generation.
    const auto text = Lumen::makeNode<Vault::Store>(database);
    (void)text->valueChange("hardware/tinsel/agent/relaunch/config/KelpTunnelNi",
                            [](const Lumen::String&) { return Lumen::String("no number"); });
  }
  LogCapture messages;
  TestSupport::TraceCapture traces("MountQuilt/1");
  this->bareLog().mountQuiltConfig(this->unit0, Asic::LogVersion{});
  EXPECT_THAT(messages.lines(), ElementsAre(lostItem<TypeParam>("entryCfg")));
  ASSERT_EQ(traces.lines().size(), 1U);
  EXPECT_THAT(traces.lines()[0].text, testing::HasSubstr("The relaunch generation was not raised"));
  EXPECT_FALSE(this->bareLog().tableConfigQuilt(this->unit0)->collectionControl()->wiped());
}

TYPED_TEST(LogWiped, ADamagedLogKeepsItsWholeRecordsAndItsVersions) {
  for (std::uint64_t i = 0; i < 10; ++i) {
    (void)this->write(i);
  }
  const auto& map = this->bareLog().tableEntryLog()->entryLogConfig();
  const std::uint64_t slots = map.file()->geometry().slotsOffset;
  const std::uint64_t slotBytes = map.file()->geometry().slotBytes;
  const std::string file = this->logFile();
  const std::uint64_t incarnation = this->logControl()->incarnation();
  this->stop();
  overwrite(file, slots + 3 * slotBytes + 16, 8);
  LogCapture messages;
  EXPECT_EQ(this->tableVersion(), 10U);
  EXPECT_THAT(messages.lines(), ElementsAre(lostItem<TypeParam>("entryLog")));
  EXPECT_EQ(this->logVersions().size(), 9U);
  EXPECT_NE(this->logControl()->incarnation(), incarnation);
  EXPECT_EQ(this->logControl()->published(), 10U);
  EXPECT_EQ(this->write(11), 11U);
}

TYPED_TEST(LogWiped, ASavedVersionBehindThePublishedOneIsDamageAndReusesNoVersion) {
  for (std::uint64_t i = 0; i < 10; ++i) {
    (void)this->write(i);
  }
  this->logControl()->scratchpadIs(3);
  this->stop();
  TestSupport::TraceCapture traces(std::string(TypeParam::name.view()) + "KelpEntryLog/1");
  EXPECT_EQ(this->tableVersion(), 10U);
  EXPECT_EQ(this->write(11), 11U);
  EXPECT_TRUE(traces.has(1, " The saved version 3 is behind the published one: 10"));
}

// --- the records of the messages

TEST(LogMessages, TheRecordsAreRegisteredWithTheirTexts) {
  std::vector<const Brio::LogDescriptor*> records;
  Brio::LogSection::forEach([&](std::string_view library, const Brio::LogDescriptor& record) {
    if (library == "KelpEmServer") {
      records.push_back(&record);
    }
  });
  ASSERT_EQ(records.size(), 3U);
  const auto expectRecord = [](const Brio::LogDescriptor& record, const char* name,
                               const char* format, const char* explanation) {
    EXPECT_STREQ(record.name, name);
    EXPECT_STREQ(record.format, format);
    EXPECT_STREQ(record.explanation, explanation);
    EXPECT_STREQ(record.action, "\x01");
    EXPECT_EQ(record.severity, 3);
  };
  expectRecord(*records[0], "HW_ABSTRACTION_EXCEPTION", "%s", "Exception");
  expectRecord(*records[1], "HW_ABSTRACTION_RELAUNCH_ERROR", "%s",
               "Duplicate Writer Detected, quilt path not cleaned up");
  expectRecord(*records[2], "HW_ABSTRACTION_ERROR",
               "Hardware abstraction error: unable to load item: %s",
               "Hardware abstraction error: unable to load some persistent items. Some agents will "
               "be restarted");
}

}  // namespace
