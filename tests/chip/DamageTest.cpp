#include <cstring>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include "BrioSharedMem/StoreError.h"
#include "ChipFixture.h"
#include "FlipByte.h"
#include "chip/Summary.h"
#include "common/RecordJson.h"

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
  const Isem1Tag::Entry::LogEntry second = swTable_->entryFromConfig(key(1)).logEntry;
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

TEST_F(ChipMeets, AnAgentThatNeverPausesAndStillComesToAVerdict) {
  write(0, 3);
  settle();
  const auto control = intf()->entryLog()->tableEntryLog()->collectionControl();
  std::atomic<bool> enough{false};
  const auto start = std::chrono::steady_clock::now();
  const auto elapsed = [&] { return std::chrono::steady_clock::now() - start; };
  // Versions faster than they can be taken in.
  std::thread agent([&, &log = *control] {
    for (std::uint64_t version = 4; !enough && elapsed() < std::chrono::seconds(60); ++version) {
      log.publishedIs(version);
    }
  });
  const Chip::CheckResult result = chip_->check();
  EXPECT_LT(elapsed(), std::chrono::seconds(30));
  enough = true;
  agent.join();
  EXPECT_THAT(result.text(), testing::HasSubstr("check: "));
  // The agent's next word is the true one.
  write(3, 4);
  settle();
  EXPECT_EQ(onChip(), 4U);
  EXPECT_TRUE(chip_->check().same());
}

// Bytes in all files of a table and of its group, most of them where something stands. No crash and
// no hang; nothing on the chip that was never written; and whatever the check calls equal is so.
class ChipMeetsFlippedBytes : public ChipMeets, public testing::WithParamInterface<unsigned> {
 protected:
  void writeAndNote(std::uint64_t from, std::uint64_t to, std::uint64_t variant) {
    for (std::uint64_t i = from; i < to; ++i) {
      std::string text;
      Common::appendJson(text, entry(i, variant).logEntry);
      written_.insert(std::move(text));
    }
    write(from, to, variant);
  }
  // Flips a byte of the header's words, of what is not zero, or of any page that has its space.
  void flipSomewhere(const std::filesystem::path& file, unsigned kind) {
    if (kind == 0) {
      flip(file, random_() % 1024);
      return;
    }
    std::vector<std::uint64_t> places;
    const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0) << file;
    for (off_t at = ::lseek(fd, 4096, SEEK_DATA); at >= 0;) {
      const off_t end = ::lseek(fd, at, SEEK_HOLE);
      std::vector<char> bytes(static_cast<std::size_t>(end - at));
      ASSERT_EQ(::pread(fd, bytes.data(), bytes.size(), at), static_cast<ssize_t>(bytes.size()));
      for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (kind == 2 || bytes[i] != 0) {
          places.push_back(static_cast<std::uint64_t>(at) + i);
        }
      }
      at = ::lseek(fd, end, SEEK_DATA);
    }
    ::close(fd);
    if (!places.empty()) {
      flip(file, places[random_() % places.size()]);
    }
  }
  // An entry as it was written, whatever index it got.
  static std::string withoutIndexes(std::string entry) {
    for (const char* field : {R"("inLif0Index":)", R"("inLif1Index":)"}) {
      const auto at = entry.find(field);
      if (at != std::string::npos) {
        const auto from = at + std::strlen(field);
        entry.replace(from, entry.find_first_not_of("0123456789", from) - from, "0");
      }
    }
    return entry;
  }
  void expectOnlyWhatWasWritten() {
    std::istringstream lines(Chip::modelJsonLines(*chip_));
    const std::string before = R"("entry":)";
    for (std::string line; std::getline(lines, line);) {
      const auto at = line.find(before);
      ASSERT_NE(at, std::string::npos) << line;
      const std::string entry =
          line.substr(at + before.size(), line.size() - at - before.size() - 1);
      EXPECT_TRUE(written_.contains(withoutIndexes(entry))) << line;
    }
  }

  std::mt19937_64 random_{GetParam()};
  std::set<std::string> written_;
};

TEST_P(ChipMeetsFlippedBytes, AndHoldsNothingThatWasNeverWritten) {
  writeAndNote(0, 100, 0);
  settle();
  const std::string groupName = group()->canonicalName();
  const std::vector<std::filesystem::path> files{
      fileOf("log"), fileOf("config/0"),
      TestSupport::entityFile(root_.path(), Asic::Constants::groupStatusPath(groupName)),
      TestSupport::entityFile(root_.path(),
                              Asic::Constants::groupNeededPath(groupName, Isem1Tag::tableId))};
  unsigned ended = 0;
  unsigned differed = 0;
  unsigned equal = 0;
  for (unsigned round = 0; round < 20; ++round) {
    SCOPED_TRACE(round);
    swTable_ = nullptr;
    for (const auto& file : files) {
      flipSomewhere(file, static_cast<unsigned>(random_() % 3));
    }
    swTable_ = table();
    writeAndNote(0, 30, round);
    try {
      settle();
      const Chip::CheckResult result = chip_->check();
      ++(result.same() ? equal : differed);
      // It says where, or that a collection is damaged or not taken in to its end.
      EXPECT_TRUE(result.same() || result.text().find("THE CHIP DIFFERS") != std::string::npos);
    } catch (const BrioSharedMem::StoreError& error) {
      // What the program ends with: a file of another layout, or one that it can't write.
      EXPECT_THAT(error.what(), testing::HasSubstr("/"));
      ++ended;
    }
    expectOnlyWhatWasWritten();
    if (round % 10 == 9) {
      swTable_ = nullptr;
      stop();
      killChip();
      startChip();
      swTable_ = table();
    }
  }
  RecordProperty("ended", static_cast<int>(ended));
  RecordProperty("differed", static_cast<int>(differed));
  RecordProperty("equal", static_cast<int>(equal));
  // Once nothing is flipped any more, an agent that starts anew makes all whole again.
  swTable_ = nullptr;
  stop();
  killChip();
  swTable_ = table();
  startChip();
  writeAndNote(0, 100, 1000);
  settle();
  expectOnlyWhatWasWritten();
  const Chip::CheckResult result = chip_->check();
  EXPECT_TRUE(result.same()) << result.text();
  EXPECT_GE(onChip(), 100U);
}

INSTANTIATE_TEST_SUITE_P(Seeds, ChipMeetsFlippedBytes, testing::Values(20240611, 1, 2));

}  // namespace
