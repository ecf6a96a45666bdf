#include <gmock/gmock.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

#include "BrioSharedMem/StoreError.h"
#include "ChipFixture.h"

// Gaps, damage and nonsense in what the hardware side reads.

namespace {

using KelpEmServer::Isem1Tag;

class ChipMeets : public TestSupport::ChipFixture<Isem1Tag> {
 protected:
  void SetUp() override {
    swTable_ = table();
    startChip();
    settle();
  }
  void TearDown() override {
    swTable_ = nullptr;
    ChipFixture::TearDown();
  }
  void write(std::uint64_t from, std::uint64_t to, std::uint64_t variant = 0) {
    for (std::uint64_t i = from; i < to; ++i) {
      commit(swTable_, i, variant);
    }
  }
  Quilt::QuiltMap<Isem1Tag::EntryLogQuilt::Record>& log() {
    return intf()->entryLog()->tableEntryLog()->entryLogConfig();
  }
  // Where the bytes of a record stand in a file, by the bytes themselves.
  template <class Value>
  static std::vector<std::uint64_t> placesOf(const std::filesystem::path& file,
                                             const Value& value) {
    std::ifstream in(file, std::ios::binary);
    const std::string all((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const std::string wanted(reinterpret_cast<const char*>(&value), sizeof(value));
    std::vector<std::uint64_t> places;
    for (auto at = all.find(wanted); at != std::string::npos; at = all.find(wanted, at + 1)) {
      places.push_back(at);
    }
    return places;
  }
  static void flip(const std::filesystem::path& file, std::uint64_t at) {
    std::fstream io(file, std::ios::binary | std::ios::in | std::ios::out);
    io.seekg(static_cast<std::streamoff>(at));
    const auto byte = static_cast<char>(io.get() ^ 0x40);
    io.seekp(static_cast<std::streamoff>(at));
    io.put(byte);
  }
  void waitForRetry() { std::this_thread::sleep_for(std::chrono::milliseconds(1050)); }

  Lumen::Ptr<Table> swTable_;
};

TEST_F(ChipMeets, AGapAndPassesOverIt) {
  write(0, 3);
  log().recordDel(Asic::LogVersion{2});
  settle();
  EXPECT_EQ(chipTable().reached(), 3U);
  EXPECT_EQ(chipTable().counts().gaps, 1U);
  EXPECT_EQ(chipTable().counts().records, 2U);
  EXPECT_TRUE(wasSaid("Isem1Tag: no record of the versions 2 to 2 in its log"));
  // What the lost record said is found in the collections.
  EXPECT_EQ(chipTable().counts().resyncs, 2U);
  EXPECT_EQ(onChip(), 3U);
  // Not again and again.
  write(3, 5);
  log().recordDel(Asic::LogVersion{4});
  settle();
  EXPECT_EQ(chipTable().counts().resyncs, 2U);
  EXPECT_EQ(onChip(), 4U);
  waitForRetry();
  settle();
  EXPECT_EQ(chipTable().counts().resyncs, 3U);
  EXPECT_EQ(onChip(), 5U);
  EXPECT_TRUE(chip_->check().same());
}

TEST_F(ChipMeets, AGapUpToThePublishedVersion) {
  write(0, 2);
  intf()->entryLog()->tableEntryLog()->collectionControl()->publishedIs(5'000'000'000'000);
  settle();
  EXPECT_EQ(chipTable().reached(), 5'000'000'000'000U);
  EXPECT_EQ(onChip(), 2U);
  // The agent's next word is the true one.
  write(2, 4);
  settle();
  EXPECT_EQ(chipTable().reached(), 4U);
  EXPECT_EQ(onChip(), 4U);
  EXPECT_TRUE(chip_->check().same());
}

TEST_F(ChipMeets, ADamagedLogRecordAndReadsTheCollectionsInstead) {
  write(0, 3);
  const auto file = fileOf("log");
  Isem1Tag::Entry::LogEntry second = entry(1).logEntry;
  const auto places = placesOf(file, second);
  ASSERT_EQ(places.size(), 1U);
  flip(file, places.front() + 5);
  settle();
  EXPECT_EQ(chipTable().reached(), 3U);
  EXPECT_EQ(chipTable().counts().records, 1U);
  EXPECT_EQ(chipTable().counts().resyncs, 2U);
  EXPECT_TRUE(
      wasSaid("Isem1Tag: read from its configuration collections since its log is damaged"));
  EXPECT_EQ(onChip(), 3U);
  write(3, 5);
  settle();
  EXPECT_EQ(chipTable().reached(), 5U);
  EXPECT_TRUE(chip_->check().same());
}

TEST_F(ChipMeets, ADamagedCollectionAndKeepsWhatItCannotSee) {
  write(0, 200);
  settle();
  const auto file = fileOf("config/0");
  const auto places = placesOf(file, entry(100).logEntry);
  ASSERT_FALSE(places.empty());
  flip(file, places.front() + 1);
  // A reason to read it: the generation rises.
  Lumen::dynamicPtrCast<Asic::GenId>(
      vault_->getEntity("hardware/tinsel/agent/relaunch/config/KelpTunnelNi"))
      ->majorIdInc(1);
  settle();
  EXPECT_EQ(onChip(), 200U);
  EXPECT_FALSE(chipTable().units().front().whole);
  EXPECT_FALSE(chip_->check().same());
  EXPECT_THAT(chip_->check().text(), testing::HasSubstr("collection damaged"));
  // It goes on with the log, and the agent's handles come to their end.
  write(300, 301);
  settle();
  EXPECT_FALSE(swTable_->hasPendingHwWrites());
  EXPECT_EQ(onChip(), 201U);
  // The agent's next start makes the collection anew, with what is whole.
  swTable_ = nullptr;
  stop();
  swTable_ = table();
  EXPECT_LT(swTable_->entrys(), 201U);
  settle();
  EXPECT_EQ(onChip(), swTable_->entrys());
  EXPECT_TRUE(chip_->check().same());
}

TEST_F(ChipMeets, AReportThatSaysMoreThanThereIsAndTakesItBack) {
  write(0, 3);
  settle();
  killChip();
  // Without a chip the test writes its row.
  hardware().report(Isem1Tag::tableId, ~std::uint64_t{0},
                    intf()->entryLog()->tableEntryLog()->collectionControl()->incarnation());
  hardware_.reset();
  memory()->entityDel(Asic::Constants::groupStatusPath(group()->canonicalName()));
  startChip();
  // From here on the agent believes no more than is true, and keeps its records.
  write(3, 6);
  group()->pollStatus();
  EXPECT_TRUE(swTable_->hasPendingHwWrites());
  settle();
  EXPECT_EQ(onChip(), 6U);
  EXPECT_FALSE(swTable_->hasPendingHwWrites());
  EXPECT_TRUE(chip_->check().same());
}

TEST_F(ChipMeets, ARelaunchAndReadsAllTablesAgain) {
  write(0, 3);
  settle();
  Lumen::dynamicPtrCast<Asic::GenId>(
      vault_->getEntity("hardware/tinsel/agent/relaunch/config/KelpTunnelNi"))
      ->majorIdInc(1);
  settle();
  EXPECT_EQ(chip_->relaunchGeneration(), 1U);
  EXPECT_EQ(chipTable().counts().resyncs, 2U);
  EXPECT_TRUE(wasSaid("since the relaunch generation has risen"));
  EXPECT_EQ(chipTable().changes().programmed, 3U);
}

TEST_F(ChipMeets, ALogOfAnotherLayoutAndNamesIt) {
  swTable_ = nullptr;
  stop();
  killChip();
  // A program of another version would look for another type in this place.
  std::filesystem::copy_file(fileOf("config/0"), fileOf("log"),
                             std::filesystem::copy_options::overwrite_existing);
  try {
    startChip();
    FAIL() << "it took the file for its own";
  } catch (const BrioSharedMem::OtherLayoutError& error) {
    EXPECT_THAT(error.what(), testing::HasSubstr("has another layout"));
    EXPECT_THAT(error.what(), testing::HasSubstr("Isem1TagKelp/log"));
  }
}

TEST_F(ChipMeets, AnEmptiedFolderAndStartsOver) {
  write(0, 3);
  settle();
  swTable_ = nullptr;
  stop();
  std::filesystem::remove_all(root_.path() + "/kelp-test");
  settle();
  swTable_ = table();
  write(0, 2);
  settle();
  EXPECT_EQ(onChip(), 2U);
  EXPECT_FALSE(swTable_->hasPendingHwWrites());
  EXPECT_TRUE(chip_->check().same());
}

// Any bytes in any file: no crash, no hang, and a look at the model that says what is wrong.
TEST_F(ChipMeets, FlippedBytesAnywhere) {
  write(0, 100);
  settle();
  std::mt19937_64 random(20240611);
  for (int round = 0; round < 60; ++round) {
    SCOPED_TRACE(round);
    swTable_ = nullptr;
    for (const char* name : {"log", "config/0"}) {
      const auto file = fileOf(name);
      for (int i = 0; i < 3; ++i) {
        // Pages that hold something: the header, heads, slots. Most of the file is a hole.
        const std::uint64_t size = std::filesystem::file_size(file);
        std::uint64_t at = random() % (round % 3 == 0 ? 4096 : size);
        flip(file, at);
      }
    }
    swTable_ = table();
    write(0, 30, static_cast<std::uint64_t>(round));
    try {
      settle();
      (void)chip_->check();
    } catch (const BrioSharedMem::OtherLayoutError&) {
      // A header that says something else, whole: the program ends, with this text.
    }
    if (round % 10 == 9) {
      swTable_ = nullptr;
      stop();
      killChip();
      startChip();
    }
  }
}

}  // namespace
