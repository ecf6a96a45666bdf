#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <map>
#include <set>

#include "Brio/Log.h"
#include "Lumen/Exception.h"
#include "TestRecords.h"

// Flipped bytes anywhere in a store file: nobody crashes or hangs, and nobody is shown a record
// that was never written. A lost record is allowed.

namespace StoreTest {
namespace {

constexpr std::uint32_t kCapacity = 12;

std::string bytesOf(const std::filesystem::path& file) {
  std::ifstream stream(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

// The file of a collection that has seen adds, overwrites and removals, and what was ever written
// to it.
struct Image {
  std::string bytes;
  std::set<std::pair<std::uint64_t, std::uint64_t>> written;
  std::map<std::uint64_t, std::uint64_t> live;  // key to version
};

template <class Record>
Record recordOf(std::uint64_t key, std::uint64_t version) {
  if constexpr (std::is_same_v<Record, ConfigRecord>) {
    return ConfigRecord::of(static_cast<std::uint32_t>(key), version);
  } else {
    LogRecord record = LogRecord::of(key);
    record.payload[2] = static_cast<std::uint32_t>(version);
    return record;
  }
}
std::pair<std::uint64_t, std::uint64_t> namesOf(const ConfigRecord& record) {
  return {record.key.port, record.version};
}
std::pair<std::uint64_t, std::uint64_t> namesOf(const LogRecord& record) {
  return {record.version, record.payload[2]};
}
template <class Record>
typename Record::QuiltKey keyOf(std::uint64_t key) {
  return recordOf<Record>(key, 0).quiltKey();
}

template <class Entity, class Record>
Image makeImage() {
  Store store;
  Image image;
  auto entity = store.mount<Entity>("image", kCapacity);
  const auto write = [&](std::uint64_t key, std::uint64_t version) {
    entity->map().recordIs(recordOf<Record>(key, version));
    image.written.emplace(key, version);
    image.live[key] = version;
  };
  for (std::uint64_t key = 1; key <= kCapacity; ++key) {
    write(key, key);
  }
  for (std::uint64_t key = 1; key <= kCapacity; key += 2) {
    write(key, 100 + key);
  }
  for (const std::uint64_t key : {4, 9, 10}) {
    entity->map().recordDel(keyOf<Record>(key));
    image.live.erase(key);
  }
  entity->collectionControl()->scratchpadIs(110);
  entity = nullptr;
  store.manager()->entityDelAll();
  image.bytes = bytesOf(store.file("image"));
  return image;
}

// Reads all that can be read, and holds it against what was ever written. Gives the number of
// records that a walk has shown.
template <class Record>
std::size_t readAll(const Quilt::QuiltMap<Record>& map, const Image& image, bool& corrupt) {
  std::size_t shown = 0;
  EXPECT_LE(map.size(), map.limit());
  try {
    Record record;
    Quilt::IterHint hint;
    for (bool more = map.first(record, hint); more;
         more = map.next(record.quiltKey(), record, hint)) {
      ++shown;
      EXPECT_EQ(image.written.count(namesOf(record)), 1U) << namesOf(record).first;
      EXPECT_EQ(record, recordOf<Record>(namesOf(record).first, namesOf(record).second));
      if (shown > 2 * kCapacity * Quilt::RecordTraits<Record>::kHeadroom + 16) {
        ADD_FAILURE() << "a walk shows more records than there are";
        break;
      }
    }
  } catch (const Lumen::CorruptionDetectedException& exception) {
    map.doCorruptionDetected(exception.msg());
    corrupt = true;
  }
  for (std::uint64_t key = 0; key <= kCapacity + 1; ++key) {
    try {
      bool found = false;
      const Record& record = map.find(keyOf<Record>(key), found);
      if (found) {
        EXPECT_EQ(namesOf(record).first, key);
        EXPECT_EQ(image.written.count(namesOf(record)), 1U) << key;
        EXPECT_EQ(record, recordOf<Record>(key, namesOf(record).second));
      } else {
        EXPECT_EQ(record, Record{});
      }
    } catch (const Lumen::CorruptionDetectedException& exception) {
      corrupt = true;
      EXPECT_THAT(exception.msg(), testing::HasSubstr("image: corruption in collection records"));
    }
  }
  return shown;
}

// Every byte that has a meaning, and one in 16 of those that have none.
std::vector<std::size_t> offsetsOf(const Image& image, std::uint64_t slotsOffset,
                                   std::size_t slotsBytes) {
  std::vector<std::size_t> offsets;
  for (std::size_t offset = 0; offset < image.bytes.size(); ++offset) {
    const bool meant = offset < sizeof(Quilt::Header) ||
                       (offset >= 4096 && offset < 4096 + 16 * 8) ||
                       (offset >= slotsOffset && offset < slotsOffset + slotsBytes);
    if (meant || offset % 16 == 0) {
      offsets.push_back(offset);
    }
  }
  return offsets;
}

// In place, so that a mapping of the file sees it.
class File {
 public:
  explicit File(const std::filesystem::path& path) : fd_(::open(path.c_str(), O_RDWR)) {}
  ~File() { ::close(fd_); }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  void write(std::size_t offset, const char* bytes, std::size_t count) const {
    ASSERT_EQ(::pwrite(fd_, bytes, count, static_cast<off_t>(offset)), static_cast<ssize_t>(count));
  }
  void flip(std::size_t offset, const Image& image, unsigned char mask) const {
    const auto flipped = static_cast<char>(static_cast<unsigned char>(image.bytes[offset]) ^ mask);
    write(offset, &flipped, 1);
  }

 private:
  int fd_;
};

// Keeps log messages to itself while it lives.
class CaughtLog {
 public:
  CaughtLog() {
    before_ = Brio::logSinkIs([this](const Brio::LogRecord& record) {
      texts_.push_back(record.descriptor.name + (" " + Lumen::String(record.text)));
    });
  }
  ~CaughtLog() { Brio::logSinkIs(before_); }
  CaughtLog(const CaughtLog&) = delete;
  CaughtLog& operator=(const CaughtLog&) = delete;

  [[nodiscard]] const std::vector<Lumen::String>& texts() const { return texts_; }

 private:
  Brio::LogSink before_;
  std::vector<Lumen::String> texts_;
};

constexpr std::array<unsigned char, 4> kMasks{0xff, 0x01, 0x10, 0x80};

template <class Entity, class Record>
class Damage : public testing::Test {
 protected:
  Damage() : image_(makeImage<Entity, Record>()) {
    auto made = store_.mount<Entity>("image", kCapacity);
    const Quilt::Geometry geometry = made->map().file()->geometry();
    made = nullptr;
    store_.manager()->entityDelAll();
    offsets_ = offsetsOf(image_, geometry.slotsOffset, std::size_t{geometry.slotBytes} * 24);
  }

  // Puts the image in its place, whole.
  void restore() {
    const File file(store_.file("image"));
    file.write(0, image_.bytes.data(), image_.bytes.size());
  }

  CaughtLog log_;
  Store store_;
  Image image_;
  std::vector<std::size_t> offsets_;
};

template <class Entity, class Record>
void flipUnderAReader(Store& store, const Image& image, const std::vector<std::size_t>& offsets) {
  const File file(store.file("image"));
  file.write(0, image.bytes.data(), image.bytes.size());
  std::size_t noticed = 0;
  bool clean = false;
  const auto mapped = store.reader<Entity>("image");
  EXPECT_EQ(readAll<Record>(mapped->map(), image, clean), image.live.size());
  EXPECT_FALSE(clean);
  for (const std::size_t offset : offsets) {
    for (const unsigned char mask : kMasks) {
      SCOPED_TRACE("offset " + std::to_string(offset) + " mask " + std::to_string(mask));
      file.flip(offset, image, mask);
      bool corrupt = false;
      static_cast<void>(readAll<Record>(mapped->map(), image, corrupt));
      try {
        const auto opened = store.reader<Entity>("image");
        static_cast<void>(readAll<Record>(opened->map(), image, corrupt));
      } catch (const BrioSharedMem::StoreError&) {
        corrupt = true;
      }
      noticed += corrupt ? 1 : 0;
      file.write(offset, &image.bytes[offset], 1);
    }
    if (testing::Test::HasFailure()) {
      return;
    }
  }
  // Bytes of live records and their links; the rest has no meaning or is checked by nobody.
  EXPECT_GT(noticed, offsets.size() / 4);
}

// The writer has the file mapped when the byte flips; then it reads, writes everything anew, and
// all that was written is there, now and after the next mount.
template <class Entity, class Record>
void flipUnderAWriter(Store& store, const Image& image, const std::vector<std::size_t>& offsets) {
  for (const std::size_t offset : offsets) {
    for (const unsigned char mask : kMasks) {
      SCOPED_TRACE("offset " + std::to_string(offset) + " mask " + std::to_string(mask));
      store.manager()->entityDelAll();
      {
        const File file(store.file("image"));
        file.write(0, image.bytes.data(), image.bytes.size());
      }
      auto entity = store.mount<Entity>("image", kCapacity);
      ASSERT_EQ(entity->map().size(), image.live.size());
      {
        const File file(store.file("image"));
        file.flip(offset, image, mask);
      }
      bool corrupt = false;
      static_cast<void>(readAll<Record>(entity->map(), image, corrupt));
      for (const std::uint64_t key : {1, 6, 4}) {
        static_cast<void>(entity->map().recordDel(keyOf<Record>(key)));
      }
      for (std::uint64_t key = 1; key <= kCapacity; ++key) {
        ASSERT_TRUE(entity->map().hasRoomFor(keyOf<Record>(key)));
        const Record record = recordOf<Record>(key, 500 + key);
        entity->map().recordIs(record);
        bool found = false;
        EXPECT_EQ(entity->map().find(keyOf<Record>(key), found), record);
        EXPECT_TRUE(found);
      }
      // What was written after the damage may be lost with a chain that is cut later, but nothing
      // else may come up; and what is written again is there to stay.
      for (std::uint64_t key = 1; key <= kCapacity; ++key) {
        entity->map().recordIs(recordOf<Record>(key, 500 + key));
      }
      for (std::uint64_t key = 1; key <= kCapacity; ++key) {
        bool found = false;
        EXPECT_EQ(entity->map().find(keyOf<Record>(key), found), recordOf<Record>(key, 500 + key));
      }
      EXPECT_LE(entity->map().size(), entity->map().limit());
      if (testing::Test::HasFailure()) {
        return;
      }
    }
  }
}

// The byte has flipped before the writer comes.
template <class Entity, class Record>
void flipBeforeAMount(Store& store, const Image& image, const std::vector<std::size_t>& offsets) {
  std::size_t wiped = 0;
  for (const std::size_t offset : offsets) {
    for (const unsigned char mask : kMasks) {
      SCOPED_TRACE("offset " + std::to_string(offset) + " mask " + std::to_string(mask));
      store.manager()->entityDelAll();
      {
        const File file(store.file("image"));
        file.write(0, image.bytes.data(), image.bytes.size());
        file.flip(offset, image, mask);
      }
      auto entity = store.mount<Entity>("image", kCapacity);
      bool corrupt = false;
      const std::size_t shown = readAll<Record>(entity->map(), image, corrupt);
      EXPECT_FALSE(corrupt) << "a mount leaves nothing that does not add up";
      EXPECT_EQ(shown, entity->map().size());
      EXPECT_GE(shown + 3, image.live.size()) << "one byte costs one chain at most";
      if (shown < image.live.size()) {
        EXPECT_TRUE(entity->collectionControl()->wiped());
        ++wiped;
      }
      for (std::uint64_t key = 1; key <= kCapacity; ++key) {
        entity->map().recordIs(recordOf<Record>(key, 500 + key));
      }
      EXPECT_EQ(entity->map().size(), kCapacity);
      if (testing::Test::HasFailure()) {
        return;
      }
    }
  }
  EXPECT_GT(wiped, 0U);
}

using ConfigDamage = Damage<ConfigQuilt, ConfigRecord>;
using LogDamage = Damage<LogQuilt, LogRecord>;

TEST_F(ConfigDamage, UnderAReader) {
  flipUnderAReader<ConfigQuilt, ConfigRecord>(store_, image_, offsets_);
}
TEST_F(ConfigDamage, UnderAWriter) {
  flipUnderAWriter<ConfigQuilt, ConfigRecord>(store_, image_, offsets_);
}
TEST_F(ConfigDamage, BeforeAMount) {
  flipBeforeAMount<ConfigQuilt, ConfigRecord>(store_, image_, offsets_);
}
TEST_F(LogDamage, UnderAReader) { flipUnderAReader<LogQuilt, LogRecord>(store_, image_, offsets_); }
TEST_F(LogDamage, UnderAWriter) { flipUnderAWriter<LogQuilt, LogRecord>(store_, image_, offsets_); }
TEST_F(LogDamage, BeforeAMount) { flipBeforeAMount<LogQuilt, LogRecord>(store_, image_, offsets_); }

// A collection with three keys in one bucket, and the links of their chain in order.
class OneChain {
 public:
  OneChain() : entity_(store_.mount<ConfigQuilt>("it", 64)), chains_(*entity_->map().file()) {
    using Words = Quilt::KeyWords<ConfigKey>;
    const std::uint32_t bucket = chains_.bucketOf(Words::of(ConfigKey{1}));
    for (std::uint32_t key = 1; keys_.size() < 4; ++key) {
      if (chains_.bucketOf(Words::of(ConfigKey{key})) == bucket) {
        keys_.push_back(key);
      }
    }
    for (int i = 0; i < 3; ++i) {
      entity_->map().recordIs(ConfigRecord::of(keys_[static_cast<std::size_t>(i)], 1));
    }
    links_.push_back(&chains_.head(bucket));
    while (const std::uint64_t link = links_.back()->load()) {
      links_.push_back(&chains_.slot(Quilt::Link::slot(link)).next);
    }
    EXPECT_EQ(links_.size(), 4U);
  }

  CaughtLog log_;
  Store store_;
  Lumen::Ptr<ConfigQuilt> entity_;
  Quilt::Chains<ConfigRecord> chains_;
  std::vector<std::uint32_t> keys_;    // the last one has no record
  std::vector<Quilt::Word64*> links_;  // the head, and `next` of each record
};

TEST(DamagedChain, ThatGoesRoundEnds) {
  for (const std::size_t to : {0, 1, 2}) {
    OneChain one;
    one.links_[3]->store(one.links_[to]->load());
    const auto reader = one.store_.reader<ConfigQuilt>("it");
    for (const auto* map : {&one.entity_->map(), &reader->map()}) {
      bool found = false;
      EXPECT_THROW(static_cast<void>(map->find(ConfigKey{one.keys_[3]}, found)),
                   Lumen::CorruptionDetectedException);
      ConfigRecord record;
      Quilt::IterHint hint;
      EXPECT_THROW(static_cast<void>(map->next(ConfigKey{one.keys_[2]}, record, hint)),
                   Lumen::CorruptionDetectedException);
      EXPECT_EQ(map->find(ConfigKey{one.keys_[2]}, found), ConfigRecord::of(one.keys_[2], 1));
    }
    one.entity_->map().recordIs(ConfigRecord::of(one.keys_[3], 1));
    EXPECT_TRUE(one.entity_->map().damaged());
    EXPECT_EQ(one.entity_->map().size(), 4U);
    for (const std::uint32_t key : one.keys_) {
      bool found = false;
      EXPECT_EQ(reader->map().find(ConfigKey{key}, found), ConfigRecord::of(key, 1));
    }
  }
}

TEST(DamagedChain, ThatLeadsIntoAnotherIsCutAndTheOtherIsNotTouched) {
  OneChain one;
  std::uint32_t other = 1;
  while (std::find(one.keys_.begin(), one.keys_.end(), other) != one.keys_.end()) {
    ++other;
  }
  // Above all others, so that the order alone does not give it away.
  other += 1'000'000;
  one.entity_->map().recordIs(ConfigRecord::of(other, 1));
  const std::uint64_t link =
      one.chains_.head(one.chains_.bucketOf(Quilt::KeyWords<ConfigKey>::of(ConfigKey{other})))
          .load();
  one.links_[2]->store(link);
  one.entity_->map().recordIs(ConfigRecord::of(one.keys_[3], 1));
  EXPECT_TRUE(one.entity_->map().damaged());
  bool found = false;
  for (const std::uint32_t key : {one.keys_[0], one.keys_[1], one.keys_[3], other}) {
    EXPECT_EQ(one.entity_->map().find(ConfigKey{key}, found), ConfigRecord::of(key, 1)) << key;
  }
  EXPECT_EQ(one.entity_->map().size(), 4U);
  one.store_.remount(one.entity_, "it", 64);
  EXPECT_TRUE(one.entity_->collectionControl()->wiped());
  EXPECT_EQ(one.entity_->map().size(), 4U);
}

TEST(DamageReport, IsLoggedOncePerCollectionAndMarksIt) {
  Store store;
  auto entity = store.mount<ConfigQuilt>("config", 8);
  EXPECT_FALSE(entity->map().damaged());
  const CaughtLog log;
  entity->map().doCorruptionDetected("config: one");
  entity->map().doCorruptionDetected("config: two");
  EXPECT_THAT(log.texts(), testing::ElementsAre("QUILT_CORRUPTION_DETECTED config: one"));
  EXPECT_TRUE(entity->map().damaged());
  const auto reader = store.reader<ConfigQuilt>("config");
  EXPECT_TRUE(reader->map().damaged());
  entity->map().recordIs(ConfigRecord::of(1, 1));
  store.remount(entity, "config", 8);
  EXPECT_TRUE(entity->collectionControl()->wiped());
  EXPECT_FALSE(entity->map().damaged());
  EXPECT_EQ(entity->map().size(), 1U);
}

TEST(DamageReport, OfAReaderChangesNothing) {
  Store store;
  const auto entity = store.mount<ConfigQuilt>("config", 8);
  const auto reader = store.reader<ConfigQuilt>("config");
  const CaughtLog log;
  reader->map().doCorruptionDetected("config: one");
  EXPECT_THAT(log.texts(), testing::ElementsAre("QUILT_CORRUPTION_DETECTED config: one"));
  EXPECT_TRUE(reader->map().damaged());
  EXPECT_FALSE(entity->map().damaged());
}

TEST(DamageReport, AReadNamesPathCollectionAndPlace) {
  Store store;
  const auto entity = store.mount<ConfigQuilt>("units/3/config", 8);
  entity->map().recordIs(ConfigRecord::of(1, 1));
  const File file(store.file("units/3/config"));
  const char wrong = 'x';
  file.write(entity->map().file()->geometry().slotsOffset + 20, &wrong, 1);
  try {
    bool found = false;
    static_cast<void>(entity->map().find(ConfigKey{1}, found));
    FAIL() << "no exception";
  } catch (const Lumen::CorruptionDetectedException& exception) {
    EXPECT_THAT(
        exception.msg(),
        testing::HasSubstr("units/3/config: corruption in collection records: a record does "
                           "not fit its checksum (slot 0, generation 1)"));
  }
}

}  // namespace
}  // namespace StoreTest
