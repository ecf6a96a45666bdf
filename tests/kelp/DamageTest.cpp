#include <gmock/gmock.h>

#include <algorithm>
#include <random>

#include "StoreOfTable.h"

// Damage: nothing that is shown is wrong, and what is wrong is named.

namespace {

using KelpTest::Json;
using KelpTest::Result;
using testing::HasSubstr;

constexpr std::uint64_t kHeads = 4096;

template <class T>
class KelpOnDamage : public KelpTest::StoreOfTable<T> {
 protected:
  // A stopped store of `count` entries on each unit, and how its entries look.
  void makeStore(std::uint64_t count) {
    this->writeEntries(count);
    const auto& config = this->intf()->entryLog()->tableConfigQuilt(Asic::UnitId{0})->mapBase();
    slotsOffset_ = config.file()->geometry().slotsOffset;
    slotBytes_ = config.file()->geometry().slotBytes;
    logSlotsOffset_ =
        this->intf()->entryLog()->tableEntryLog()->mapBase().file()->geometry().slotsOffset;
    this->stopAgent();
    const Json json = this->kelpOn("entries", {"--json"}).json();
    for (const Json& entry : json["entries"]) {
      whole_.insert(entry.dump());
    }
    ASSERT_EQ(whole_.size(), 2 * count);
  }
  static void flip(const std::string& file, std::uint64_t at, unsigned bit) {
    std::fstream io(file, std::ios::binary | std::ios::in | std::ios::out);
    io.seekg(static_cast<std::streamoff>(at));
    const auto byte = static_cast<char>(io.get() ^ (1 << bit));
    io.seekp(static_cast<std::streamoff>(at));
    io.put(byte);
  }
  // The bytes of a 64-bit word of a file.
  static std::uint64_t word(const std::string& file, std::uint64_t at) {
    std::ifstream in(file, std::ios::binary);
    in.seekg(static_cast<std::streamoff>(at));
    std::uint64_t value = 0;
    in.read(reinterpret_cast<char*>(&value), sizeof value);
    return value;
  }
  static void wordIs(const std::string& file, std::uint64_t at, std::uint64_t value) {
    std::fstream io(file, std::ios::binary | std::ios::in | std::ios::out);
    io.seekp(static_cast<std::streamoff>(at));
    io.write(reinterpret_cast<const char*>(&value), sizeof value);
  }
  // Where the first head stands that leads somewhere.
  std::uint64_t usedHead(const std::string& file) const {
    std::vector<std::uint64_t> heads((slotsOffset_ - kHeads) / 8);
    std::ifstream in(file, std::ios::binary);
    in.seekg(kHeads);
    in.read(reinterpret_cast<char*>(heads.data()),
            static_cast<std::streamsize>(heads.size() * sizeof(std::uint64_t)));
    const auto used = std::find_if(heads.begin(), heads.end(), [](auto head) { return head != 0; });
    return kHeads + 8 * static_cast<std::uint64_t>(used - heads.begin());
  }

  std::uint64_t slotsOffset_ = 0;
  std::uint64_t slotBytes_ = 0;
  std::uint64_t logSlotsOffset_ = 0;
  std::set<std::string> whole_;
};
TYPED_TEST_SUITE(KelpOnDamage, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(KelpOnDamage, NamesFileSlotAndCauseOfARecordAndShowsTheOthers) {
  this->makeStore(20);
  const std::string file = this->fileOf("config/0");
  // The first word of the record in slot 4 is behind the successor, generation and checksum.
  this->flip(file, this->slotsOffset_ + 4 * this->slotBytes_ + 16, 3);
  const Result check = this->kelp({"check"});
  EXPECT_EQ(check.status, 3) << check.out;
  EXPECT_THAT(check.out, HasSubstr(file + ": slot 4: a record does not fit its checksum"));
  EXPECT_THAT(check.out, HasSubstr("1 damage\n"));
  const Json json = this->kelp({"check", "--json"}).json();
  EXPECT_EQ(json["sound"], false);
  EXPECT_EQ(json["damageCount"], 1U);

  const Result entries = this->kelpOn("entries", {"--json"});
  EXPECT_EQ(entries.status, 3);
  EXPECT_THAT(entries.err, HasSubstr("slot 4: a record does not fit its checksum"));
  const Json shown = entries.json();
  EXPECT_EQ(shown["shown"], 39U) << "all but the damaged one";
  for (const Json& entry : shown["entries"]) {
    EXPECT_TRUE(this->whole_.count(entry.dump())) << entry;
  }
  EXPECT_EQ(this->kelp({"tables"}).status, 3);
  // The other unit is as it was.
  EXPECT_EQ(this->kelpOn("entries", {"--unit", "1"}).status, 0);
}

TYPED_TEST(KelpOnDamage, FindsALinkThatIsLost) {
  this->makeStore(20);
  const std::string file = this->fileOf("config/0");
  const std::uint64_t head = this->usedHead(file);
  ASSERT_LT(head, this->slotsOffset_);
  this->wordIs(file, head, 0);
  Result check = this->kelp({"check"});
  // This process was the store's writer and lives: no kill can have left the count so.
  EXPECT_EQ(check.status, 3) << check.out;
  EXPECT_THAT(check.out, HasSubstr("the header counts 20 records, and 19 are there"));
  this->wordIs(file, head, 0x7fffffff7fffffff);
  check = this->kelp({"check"});
  EXPECT_EQ(check.status, 3);
  EXPECT_THAT(check.out, HasSubstr("a link leads out of the slots"));
  EXPECT_EQ(this->kelpOn("entries", {"--json"}).json()["shown"], 39U);
}

TYPED_TEST(KelpOnDamage, FindsALostRecordOfTheLog) {
  this->makeStore(5);
  const std::string file = this->fileOf("log");
  // A version's bucket is the version.
  this->wordIs(file, kHeads + 4 * 8, 0);
  const Result check = this->kelp({"check"});
  EXPECT_EQ(check.status, 3);
  EXPECT_THAT(check.out, HasSubstr("no record of the versions 4 to 4"));
}

TYPED_TEST(KelpOnDamage, FindsWordsOfALogThatCanNotBe) {
  this->makeStore(5);
  const std::string file = this->fileOf("log");
  for (const auto& [at, what] : {std::pair{512U, "published"},
                                 {576U, "issued"},
                                 {584U, "announced"},
                                 {592U, "the header counts"},
                                 {608U, "outside the bounds"},
                                 {640U, "leads out of the slots"}}) {
    const std::uint64_t before = this->word(file, at);
    this->wordIs(file, at, at == 608 || at == 640 ? 3 : before + 5);
    const Result check = this->kelp({"check"});
    EXPECT_EQ(check.status, 3) << what << check.out;
    EXPECT_THAT(check.out, HasSubstr(what));
    this->wordIs(file, at, before);
  }
  EXPECT_EQ(this->kelp({"check"}).status, 0);
}

TYPED_TEST(KelpOnDamage, ShowsTheLogAroundADamagedRecord) {
  this->makeStore(5);
  const std::string file = this->fileOf("log");
  this->flip(file, this->logSlotsOffset_ + 16 + 8, 0);
  const Result log = this->kelpOn("log", {"--json"});
  EXPECT_EQ(log.status, 3);
  EXPECT_EQ(log.jsonLines().size(), 9U) << log.out;
  EXPECT_THAT(log.err, HasSubstr("a record does not fit its checksum"));
}

TYPED_TEST(KelpOnDamage, FlippedBitsNeverShowWhatWasNotWritten) {
  this->makeStore(12);
  const std::string file = this->fileOf("config/0");
  const auto seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  const std::uint64_t slotsEnd = this->slotsOffset_ + 12 * this->slotBytes_;
  for (int round = 0; round < 20; ++round) {
    // Headers, heads in use, and slots in turn.
    std::uint64_t at = random() % 832;
    if (round % 4 == 1) {
      at = this->usedHead(file) + random() % 8;
    } else if (round % 4 != 0) {
      at = this->slotsOffset_ + random() % (slotsEnd - this->slotsOffset_);
    }
    const unsigned bit = random() % 8;
    SCOPED_TRACE("byte " + std::to_string(at) + ", bit " + std::to_string(bit));
    this->flip(file, at, bit);
    const Result entries = this->kelpOn("entries", {"--json"});
    EXPECT_THAT(entries.status, testing::AnyOf(0, 1, 3)) << entries.err;
    const Json json = entries.json();
    for (const Json& entry : json["entries"]) {
      EXPECT_TRUE(this->whole_.count(entry.dump())) << entry;
    }
    if (json["entries"].size() != 24) {
      EXPECT_EQ(this->kelp({"check"}).status, 3) << "something is missing";
    }
    for (const std::string command : {"tables", "pending", "check"}) {
      EXPECT_THAT(this->kelp({command}).status, testing::AnyOf(0, 1, 3));
    }
    EXPECT_THAT(this->kelpOn("entry", {this->keyText(3)}).status, testing::AnyOf(0, 1, 3));
    this->flip(file, at, bit);
  }
  EXPECT_EQ(this->kelp({"check"}).status, 0);
}

class KelpOnOneTable : public KelpOnDamage<KelpEmServer::Isem1Tag> {
 protected:
  [[nodiscard]] std::string statusFile() const {
    return folder() + "/orderedTable/KelpTunnelNi/KelpEmServerGroup/status.quilt";
  }
};

// No bytes make it crash or go on for ever: long chains of records that are all damaged, with every
// head leading into them.
TEST_F(KelpOnOneTable, EndsOnAFileOfNoise) {
  makeStore(200);
  for (const std::string collection : {"config/0", "config/1", "log"}) {
    const std::string file = fileOf(collection);
    std::mt19937_64 random(7);
    std::fstream io(file, std::ios::binary | std::ios::in | std::ios::out);
    io.seekp(kHeads);
    for (int i = 0; i < 8192; ++i) {
      // Slot numbers that exist, with the generation that slots used once have.
      const std::uint64_t link = 1ULL << 32 | random() % 200;
      io.write(reinterpret_cast<const char*>(&link), sizeof link);
    }
    const std::uint64_t slots = collection == "log" ? logSlotsOffset_ : slotsOffset_;
    const std::uint64_t bytes = collection == "log" ? 40 : slotBytes_;
    for (std::uint64_t i = 0; i < 200; ++i) {
      io.seekp(static_cast<std::streamoff>(slots + i * bytes));
      const std::uint64_t link = 1ULL << 32 | (i + 1) % 200;
      io.write(reinterpret_cast<const char*>(&link), sizeof link);
      if (collection != "config/1") {
        io.seekp(static_cast<std::streamoff>(slots + i * bytes + 16));
        io.write(reinterpret_cast<const char*>(&i), sizeof i);
      }
    }
  }
  const Result check = kelp({"check"});
  EXPECT_EQ(check.status, 3);
  EXPECT_THAT(check.out, HasSubstr("and "));
  EXPECT_EQ(kelpOn("entries").status, 3);
  EXPECT_EQ(kelpOn("log").status, 3);
  EXPECT_EQ(kelp({"tables"}).status, 3);
}

// Nor does a version that has no successor, in a log that holds no record.
TEST_F(KelpOnOneTable, EndsOnTheLastVersionThatThereCanBe) {
  stopAgent();
  wordIs(fileOf("log"), 512, ~std::uint64_t{0});
  const Result check = kelp({"check"});
  EXPECT_EQ(check.status, 3);
  EXPECT_THAT(check.out, HasSubstr("version 18446744073709551615 is published, and 0 is the last"));
  EXPECT_EQ(kelpOn("log").status, 0);
  EXPECT_EQ(kelp({"pending"}).status, 0);
}

TEST_F(KelpOnOneTable, TellsFilesThatAreGoneCutOrOfAnotherLayout) {
  static_cast<void>(hardware());  // makes the status collection
  makeStore(5);
  const std::string file = fileOf("config/1");
  std::filesystem::copy_file(file, fileOf("config/7"));
  std::filesystem::resize_file(fileOf("config/7"), 5000);
  Result check = kelp({"check"});
  EXPECT_EQ(check.status, 3);
  EXPECT_THAT(check.out, HasSubstr("config/7.quilt is too short (5000 bytes)"));
  const Result entries = kelpOn("entries");
  EXPECT_EQ(entries.status, 1);
  EXPECT_THAT(entries.err, HasSubstr("is too short"));
  EXPECT_EQ(entries.lines().back(), "10 entries");
  std::filesystem::remove(fileOf("config/7"));

  std::filesystem::rename(file, file + ".away");
  check = kelp({"check"});
  EXPECT_EQ(check.status, 3);
  EXPECT_THAT(check.out, HasSubstr("the collection has existed, and its file is gone"));
  EXPECT_THAT(check.out, HasSubstr("config/1"));

  // A collection of another type in its place.
  std::filesystem::copy_file(statusFile(), file);
  check = kelp({"check"});
  EXPECT_EQ(check.status, 3);
  EXPECT_THAT(check.out, HasSubstr("has another layout"));
  EXPECT_EQ(kelpOn("entries", {"--unit", "1"}).status, 1);
  std::filesystem::rename(file + ".away", file);
  EXPECT_EQ(kelp({"check"}).status, 0);

  // Both copies of the header.
  flip(fileOf("log"), 30, 1);
  check = kelp({"check"});
  EXPECT_THAT(check.out, HasSubstr("one of the two copies of the header is damaged"));
  flip(fileOf("log"), 256 + 30, 1);
  check = kelp({"check"});
  EXPECT_EQ(check.status, 3);
  EXPECT_THAT(check.out, HasSubstr("no whole header"));
  const Result log = kelpOn("log");
  EXPECT_EQ(log.status, 1);
  EXPECT_THAT(log.err, HasSubstr("no whole header"));
}

TEST_F(KelpOnOneTable, DoesNotVouchForACollectionThatItDoesNotKnow) {
  static_cast<void>(hardware());
  makeStore(2);
  std::filesystem::copy_file(statusFile(), folder() + "/other.quilt");
  const Result check = kelp({"check"});
  EXPECT_EQ(check.status, 1) << check.out;
  EXPECT_THAT(check.out, HasSubstr("which this program does not know"));
}

}  // namespace
