#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <optional>
#include <random>
#include <vector>

#include "TestRecords.h"

namespace StoreTest {
namespace {

template <class Record>
std::vector<Record> all(const Quilt::QuiltMap<Record>& map) {
  std::vector<Record> records;
  Record record;
  Quilt::IterHint hint;
  for (bool more = map.first(record, hint); more;
       more = map.next(record.quiltKey(), record, hint)) {
    records.push_back(record);
  }
  return records;
}

std::vector<std::uint64_t> versions(const Quilt::QuiltMap<LogRecord>& map) {
  std::vector<std::uint64_t> found;
  for (const LogRecord& record : all(map)) {
    EXPECT_EQ(record, LogRecord::of(record.version));
    found.push_back(record.version);
  }
  return found;
}

TEST(QuiltMap, FindsWhatWasStoredAndTheDefaultRecordOtherwise) {
  Store store;
  const auto entity = store.mount<ConfigQuilt>("a/config/1", 100);
  bool found = true;
  EXPECT_EQ(entity->map().find(ConfigKey{5}, found), ConfigRecord{});
  EXPECT_FALSE(found);
  entity->swTableEntriesIs(ConfigRecord::of(5, 1));
  EXPECT_EQ(entity->map().find(ConfigKey{5}, found), ConfigRecord::of(5, 1));
  EXPECT_TRUE(found);
  entity->swTableEntriesIs(ConfigRecord::of(5, 2));
  EXPECT_EQ(entity->map().find(ConfigKey{5}, found), ConfigRecord::of(5, 2));
  EXPECT_EQ(entity->map().size(), 1U);
  EXPECT_TRUE(entity->swTableEntriesDel(ConfigKey{5}));
  EXPECT_FALSE(entity->swTableEntriesDel(ConfigKey{5}));
  EXPECT_EQ(entity->map().find(ConfigKey{5}, found), ConfigRecord{});
  EXPECT_FALSE(found);
  EXPECT_EQ(entity->map().size(), 0U);
}

TEST(QuiltMap, TheWriterReadsInPlaceAndAReaderReadsACopy) {
  Store store;
  const auto writer = store.mount<ConfigQuilt>("config", 100);
  const auto reader = store.reader<ConfigQuilt>("config");
  const auto other = store.reader<ConfigQuilt>("config");
  writer->map().recordIs(ConfigRecord::of(1, 1));
  bool found = false;
  const ConfigRecord* inPlace = &writer->map().find(ConfigKey{1}, found);
  EXPECT_EQ(inPlace, &writer->map().find(ConfigKey{1}, found));
  const ConfigRecord& copy = reader->map().find(ConfigKey{1}, found);
  EXPECT_TRUE(found);
  EXPECT_EQ(copy, ConfigRecord::of(1, 1));
  writer->map().recordIs(ConfigRecord::of(1, 2));
  EXPECT_EQ(copy.version, 1U) << "a copy does not change until the next read of its map";
  EXPECT_EQ(other->map().find(ConfigKey{1}, found).version, 2U);
  EXPECT_EQ(reader->map().find(ConfigKey{1}, found).version, 2U);
  EXPECT_EQ(reader->map().size(), 1U);
  EXPECT_EQ(reader->map().capacity(), 100U);
  EXPECT_TRUE(reader->readOnly());
  EXPECT_FALSE(writer->readOnly());
}

TEST(QuiltMap, AnEmptyCollectionHasNoFirstAndNoNext) {
  Store store;
  const auto config = store.mount<ConfigQuilt>("config", 100);
  const auto log = store.mount<LogQuilt>("log", 100);
  ConfigRecord configRecord;
  LogRecord logRecord;
  Quilt::IterHint hint;
  EXPECT_FALSE(config->map().first(configRecord, hint));
  EXPECT_FALSE(config->map().next(ConfigKey{3}, configRecord, hint));
  EXPECT_FALSE(log->map().first(logRecord, hint));
  EXPECT_FALSE(log->map().next(0, logRecord, hint));
  EXPECT_FALSE(log->map().next(~0ULL, logRecord, hint));
}

TEST(QuiltMap, AWalkShowsEachRecordOnceInTheSameOrderToAll) {
  Store store;
  const auto writer = store.mount<ConfigQuilt>("config", 1000);
  for (std::uint32_t key = 1; key <= 1000; ++key) {
    writer->map().recordIs(ConfigRecord::of(key * 7, key));
  }
  const auto shown = all(writer->map());
  ASSERT_EQ(shown.size(), 1000U);
  std::map<std::uint32_t, int> times;
  for (const ConfigRecord& record : shown) {
    EXPECT_TRUE(record.consistent());
    ++times[record.key.port];
  }
  EXPECT_EQ(times.size(), 1000U);
  EXPECT_EQ(all(store.reader<ConfigQuilt>("config")->map()), shown);
}

TEST(QuiltMap, NextAfterAnAbsentKeyIsWhatWouldHaveFollowedIt) {
  Store store;
  const auto writer = store.mount<ConfigQuilt>("config", 64);
  const auto reader = store.reader<ConfigQuilt>("config");
  for (std::uint32_t key = 0; key < 64; ++key) {
    writer->map().recordIs(ConfigRecord::of(key, 1));
  }
  const auto before = all(writer->map());
  for (std::size_t i = 0; i < before.size(); ++i) {
    const ConfigKey gone = before[i].key;
    writer->map().recordDel(gone);
    for (const auto* map : {&writer->map(), &reader->map()}) {
      ConfigRecord record;
      Quilt::IterHint hint;
      const bool more = map->next(gone, record, hint);
      ASSERT_EQ(more, i + 1 < before.size());
      if (more) {
        EXPECT_EQ(record, before[i + 1]);
      }
    }
    writer->map().recordIs(before[i]);
  }
}

TEST(QuiltMap, RemovingTheCurrentOrTheNextRecordDoesNotDisturbAWalk) {
  Store store;
  const auto writer = store.mount<ConfigQuilt>("config", 256);
  for (std::uint32_t key = 0; key < 256; ++key) {
    writer->map().recordIs(ConfigRecord::of(key, 1));
  }
  const auto before = all(writer->map());
  // Of every four: the first is removed when it is shown, and with it the one that would follow.
  std::vector<std::uint32_t> shown;
  ConfigRecord record;
  Quilt::IterHint hint;
  std::size_t position = 0;
  for (bool more = writer->map().first(record, hint); more;
       more = writer->map().next(record.key, record, hint)) {
    shown.push_back(record.key.port);
    if (position % 4 == 0) {
      EXPECT_TRUE(writer->map().recordDel(record.key));
      EXPECT_TRUE(writer->map().recordDel(before[position + 1].key));
      position += 1;
    } else if (position % 4 == 2) {
      // A record that is replaced moves to another slot, and stays in its place of the order.
      writer->map().recordIs(ConfigRecord::of(record.key.port, 2));
    }
    ++position;
  }
  std::vector<std::uint32_t> expected;
  for (std::size_t i = 0; i < before.size(); ++i) {
    if (i % 4 != 1) {
      expected.push_back(before[i].key.port);
    }
  }
  EXPECT_EQ(shown, expected);
  EXPECT_EQ(writer->map().size(), 128U);
}

TEST(QuiltMap, AHintOfAnotherCollectionChangesNoAnswer) {
  Store store;
  const auto one = store.mount<ConfigQuilt>("one", 64);
  const auto two = store.mount<ConfigQuilt>("two", 64);
  for (std::uint32_t key = 0; key < 64; ++key) {
    one->map().recordIs(ConfigRecord::of(key, 1));
    two->map().recordIs(ConfigRecord::of(key, 2));
  }
  two->map().recordDel(ConfigKey{9});
  one->map().recordDel(ConfigKey{11});
  const auto expected = all(two->map());
  std::vector<ConfigRecord> shown;
  ConfigRecord record;
  ConfigRecord stray;
  Quilt::IterHint hint;
  bool more = two->map().first(record, hint);
  while (more) {
    shown.push_back(record);
    static_cast<void>(one->map().next(record.key, stray, hint));
    more = two->map().next(record.key, record, hint);
  }
  EXPECT_EQ(shown, expected);
}

TEST(QuiltMap, AHintWhoseSlotHasBeenTakenForAnotherRecordChangesNoAnswer) {
  Store store;
  const auto entity = store.mount<ConfigQuilt>("it", 64);
  for (std::uint32_t key = 0; key < 32; ++key) {
    entity->map().recordIs(ConfigRecord::of(key, 1));
  }
  const auto reader = store.reader<ConfigQuilt>("it");
  for (Quilt::QuiltMap<ConfigRecord>* map : {&entity->map(), &reader->map()}) {
    for (std::uint32_t key = 0; key < 31; ++key) {
      ConfigRecord record;
      Quilt::IterHint hint;
      ASSERT_TRUE(map->first(record, hint));
      while (record.key.port != key) {
        ASSERT_TRUE(map->next(record.key, record, hint));
      }
      // The slot of `key` goes to another one, which lies in another bucket.
      ASSERT_TRUE(entity->map().recordDel(ConfigKey{key}));
      entity->map().recordIs(ConfigRecord::of(1000 + key, 1));
      const ConfigKey taken{1000 + key};
      ConfigRecord expected;
      Quilt::IterHint fresh;
      const bool more = map->next(taken, expected, fresh);
      ASSERT_EQ(map->next(taken, record, hint), more);
      if (more) {
        ASSERT_EQ(record.key.port, expected.key.port);
      }
      ASSERT_TRUE(entity->map().recordDel(taken));
      entity->map().recordIs(ConfigRecord::of(key, 1));
    }
  }
}

TEST(QuiltMap, TheLogIsWalkedInTheOrderOfItsVersions) {
  Store store;
  const auto writer = store.mount<LogQuilt>("log", 1000);
  const auto reader = store.reader<LogQuilt>("log");
  std::vector<std::uint64_t> expected;
  // Across the point where versions wrap around the buckets, which are 1024.
  for (std::uint64_t version = 900; version < 1400; version += version % 5 == 0 ? 3 : 1) {
    expected.push_back(version);
  }
  auto stored = expected;
  std::shuffle(stored.begin(), stored.end(), std::mt19937(3));
  for (const std::uint64_t version : stored) {
    writer->map().recordIs(LogRecord::of(version));
  }
  EXPECT_EQ(versions(writer->map()), expected);
  EXPECT_EQ(versions(reader->map()), expected);
  // From the front, as cleanup does.
  for (std::size_t i = 0; i + 1 < expected.size(); ++i) {
    EXPECT_TRUE(writer->map().recordDel(expected[i]));
    LogRecord record;
    Quilt::IterHint hint;
    ASSERT_TRUE(reader->map().first(record, hint));
    EXPECT_EQ(record.version, expected[i + 1]);
    ASSERT_TRUE(writer->map().next(expected[i], record, hint));
    EXPECT_EQ(record.version, expected[i + 1]);
  }
}

TEST(QuiltMap, TheLogBeginsBehindWhatCleanupHasRemoved) {
  Store store;
  const auto writer = store.mount<LogQuilt>("log", 100);
  const auto reader = store.reader<LogQuilt>("log");
  for (std::uint64_t version = 1; version <= 50; ++version) {
    writer->map().recordIs(LogRecord::of(version));
  }
  for (std::uint64_t version = 1; version <= 50; ++version) {
    for (const auto* map : {&writer->map(), &reader->map()}) {
      LogRecord record;
      Quilt::IterHint hint;
      ASSERT_TRUE(map->first(record, hint));
      EXPECT_EQ(record, LogRecord::of(version));
    }
    EXPECT_TRUE(writer->map().recordDel(version));
  }
  // A version below all others comes back into view.
  writer->map().recordIs(LogRecord::of(60));
  writer->map().recordIs(LogRecord::of(40));
  EXPECT_EQ(versions(reader->map()), (std::vector<std::uint64_t>{40, 60}));
}

TEST(QuiltMap, TheLogIsInOrderEvenWithVersionsFarApart) {
  Store store;
  const auto writer = store.mount<LogQuilt>("log", 16);
  const auto reader = store.reader<LogQuilt>("log");
  const std::vector<std::uint64_t> expected{
      0, 1, 5, 16, 17, 33, 1000, 1016, 1ULL << 40, (1ULL << 40) + 16, ~0ULL - 16, ~0ULL};
  for (auto at = expected.rbegin(); at != expected.rend(); ++at) {
    writer->map().recordIs(LogRecord::of(*at));
  }
  EXPECT_EQ(versions(writer->map()), expected);
  EXPECT_EQ(versions(reader->map()), expected);
  LogRecord record;
  Quilt::IterHint hint;
  ASSERT_TRUE(reader->map().next(34, record, hint));
  EXPECT_EQ(record.version, 1000U);
  for (const std::uint64_t version : expected) {
    EXPECT_TRUE(writer->map().recordDel(version));
  }
  EXPECT_FALSE(reader->map().first(record, hint));
}

TEST(QuiltMap, AGapDoesNotHoldTheLowBoundOfTheLogForEver) {
  Store store;
  const auto writer = store.mount<LogQuilt>("log", 1000);
  std::uint64_t version = 1;
  for (int round = 0; round < 100; ++round) {
    writer->map().recordIs(LogRecord::of(version));
    writer->map().recordIs(LogRecord::of(version + 2));
    EXPECT_TRUE(writer->map().recordDel(version + 2));
    EXPECT_TRUE(writer->map().recordDel(version));
    version += 4;
  }
  writer->map().recordIs(LogRecord::of(version));
  const auto& header = writer->map().file()->header();
  EXPECT_LE(header.lowKey.load(), version);
  EXPECT_GE(header.lowKey.load() + 64, version);
}

TEST(QuiltMap, AFullCollectionRefusesNewKeysAndNothingElse) {
  Store store;
  const auto entity = store.mount<ConfigQuilt>("config", 10);
  auto& map = entity->map();
  for (std::uint32_t key = 0; key < 10; ++key) {
    EXPECT_TRUE(map.hasRoomFor(ConfigKey{key}));
    map.recordIs(ConfigRecord::of(key, 1));
  }
  EXPECT_FALSE(map.hasRoomFor(ConfigKey{10}));
  for (std::uint64_t version = 2; version < 50; ++version) {
    for (std::uint32_t key = 0; key < 10; ++key) {
      ASSERT_TRUE(map.hasRoomFor(ConfigKey{key}));
      map.recordIs(ConfigRecord::of(key, version));
    }
  }
  EXPECT_EQ(map.size(), 10U);
  EXPECT_TRUE(map.recordDel(ConfigKey{3}));
  EXPECT_TRUE(map.hasRoomFor(ConfigKey{10}));
  map.recordIs(ConfigRecord::of(10, 1));
  EXPECT_FALSE(map.hasRoomFor(ConfigKey{3}));
}

TEST(QuiltMap, TheLogHasRoomForAMultipleOfItsCapacity) {
  Store store;
  const auto log = store.mount<LogQuilt>("log", 100);
  EXPECT_EQ(log->map().capacity(), 100U);
  EXPECT_EQ(log->map().limit(), 400U);
  for (std::uint64_t version = 1; version <= 400; ++version) {
    ASSERT_TRUE(log->map().hasRoomFor(version));
    log->map().recordIs(LogRecord::of(version));
  }
  EXPECT_FALSE(log->map().hasRoomFor(401));
  EXPECT_EQ(versions(log->map()).size(), 400U);
  store.manager()->entityDelAll();
}

using QuiltMapDeathTest = testing::Test;

TEST(QuiltMapDeathTest, AnAssertionNamesTheCollectionThatIsFull) {
  Store store;
  const auto entity = store.mount<ConfigQuilt>("units/7/config", 2);
  entity->map().recordIs(ConfigRecord::of(1, 1));
  entity->map().recordIs(ConfigRecord::of(2, 1));
  EXPECT_DEATH(entity->map().recordIs(ConfigRecord::of(3, 1)),
               "units/7/config: no record can be stored in collection records .*full");
  const auto reader = store.reader<ConfigQuilt>("units/7/config");
  EXPECT_DEATH(reader->map().recordIs(ConfigRecord::of(1, 2)), "units/7/config: .*as a reader");
  EXPECT_DEATH(reader->map().recordDel(ConfigKey{1}), "units/7/config: .*as a reader");
  EXPECT_DEATH(reader->collectionControl()->scratchpadIs(1), "readOnly");
}

TEST(QuiltMap, AnEmptyLogCostsAFewPages) {
  Store store;
  const auto log = store.mount<LogQuilt>("log", 1'000'000);
  LogRecord record;
  Quilt::IterHint hint;
  bool found;
  EXPECT_FALSE(log->map().first(record, hint));
  static_cast<void>(log->map().find(77777, found));
  EXPECT_FALSE(log->map().recordDel(77777));
  const auto reader = store.reader<LogQuilt>("log");
  EXPECT_FALSE(reader->map().first(record, hint));
  for (std::uint64_t version = 0; version < 1'000'000; version += 1000) {
    static_cast<void>(reader->map().find(version, found));
  }
  struct stat status {};
  ASSERT_EQ(::stat(store.file("log").c_str(), &status), 0);
  EXPECT_GT(status.st_size, 100'000'000);
  EXPECT_LE(status.st_blocks * 512, 3 * 4096);
  log->map().recordIs(LogRecord::of(500'000));
  EXPECT_EQ(versions(reader->map()), std::vector<std::uint64_t>{500'000});
  ASSERT_EQ(::stat(store.file("log").c_str(), &status), 0);
  EXPECT_LE(status.st_blocks * 512, 4 * 65536);
}

TEST(QuiltMap, KeysOfAnyWidthAndPlaceWork) {
  Store store;
  const auto odd = store.mount<OddQuilt>("odd", 500);
  const auto wide = store.mount<WideQuilt>("wide", 500);
  for (std::uint16_t i = 0; i < 500; ++i) {
    OddRecord record;
    record.key.part[5] = i;
    record.key.part[0] = static_cast<std::uint16_t>(i % 3);
    record.value[3] = static_cast<std::uint16_t>(i * 3);
    record.tail = i;
    odd->map().recordIs(record);
    WideRecord large;
    large.key = i * 1000ULL;
    large.value[72] = i;
    large.value[0] = ~large.key;
    wide->map().recordIs(large);
  }
  for (const auto* map : {&odd->map()}) {
    EXPECT_EQ(all(*map).size(), 500U);
  }
  const auto oddReader = store.reader<OddQuilt>("odd");
  const auto wideReader = store.reader<WideQuilt>("wide");
  EXPECT_EQ(all(wideReader->map()).size(), 500U);
  for (std::uint16_t i = 0; i < 500; ++i) {
    OddKey key;
    key.part[5] = i;
    key.part[0] = static_cast<std::uint16_t>(i % 3);
    bool found = false;
    EXPECT_EQ(oddReader->map().find(key, found).tail, i);
    EXPECT_TRUE(found);
    EXPECT_EQ(wideReader->map().find(i * 1000ULL, found).value[72], i);
    EXPECT_EQ(wide->map().find(i * 1000ULL, found).value[0], ~(i * 1000ULL));
  }
  OddKey absent;
  absent.part[2] = 1;
  bool found = true;
  EXPECT_EQ(oddReader->map().find(absent, found).tail, 0);
  EXPECT_FALSE(found);
}

TEST(QuiltMap, LocalModeSharesNothingAndLeavesNoFile) {
  const std::string root = Store::freshRoot();
  Store store(true, root);
  const auto entity = store.mount<ConfigQuilt>("config", 100);
  entity->map().recordIs(ConfigRecord::of(1, 1));
  entity->collectionControl()->scratchpadIs(5);
  EXPECT_FALSE(std::filesystem::exists(store.folder()));
  EXPECT_NE(entity->collectionControl()->incarnation(), 0U);
  EXPECT_FALSE(entity->collectionControl()->wiped());
  const auto reader = store.reader<ConfigQuilt>("config");
  bool found = false;
  EXPECT_EQ(reader->map().find(ConfigKey{1}, found), ConfigRecord::of(1, 1));
  EXPECT_EQ(reader->collectionControl()->scratchpad(), 5U);
  EXPECT_TRUE(reader->readOnly());
  EXPECT_EQ(store.mount<ConfigQuilt>("config", 100), entity) << "kept for the process's life";
  EXPECT_EQ(store.manager()->findEntities("", BrioSharedMem::BrioSharedMemType::quilt)->count(),
            1U);
  const auto shared =
      BrioSharedMem::EntityManager::getEntityManager(store.manager()->name(), false);
  EXPECT_EQ(shared->getEntity("config"), nullptr);
  EXPECT_THROW(static_cast<void>(shared->openReader("config", "StoreTest::ConfigQuilt")),
               BrioSharedMem::StoreError);
}

// --- against a model

std::uint64_t seed() {
  const char* given = std::getenv("KELP_TEST_SEED");
  return given != nullptr ? std::strtoull(given, nullptr, 10) : std::random_device{}();
}

template <class Entity, class Record, class Make>
void runModel(std::uint64_t seedUsed, std::uint32_t capacity, std::uint64_t keys, Make&& make) {
  SCOPED_TRACE("KELP_TEST_SEED=" + std::to_string(seedUsed));
  std::mt19937_64 random(seedUsed);
  Store store;
  auto entity = store.mount<Entity>("model", capacity);
  auto reader = store.reader<Entity>("model");
  std::map<std::uint64_t, Record> model;
  std::uint64_t version = 1;
  const auto compare = [&](const Quilt::QuiltMap<Record>& map) {
    ASSERT_EQ(map.size(), model.size());
    std::map<std::uint64_t, Record> shown;
    std::uint64_t last = 0;
    for (const Record& record : all(map)) {
      std::uint64_t key = 0;
      std::memcpy(&key, &record.quiltKey(), sizeof record.quiltKey());
      ASSERT_TRUE(shown.emplace(key, record).second);
      if constexpr (Quilt::RecordTraits<Record>::kOrderedByKey) {
        ASSERT_TRUE(shown.size() == 1 || last < key);
        last = key;
      }
    }
    ASSERT_TRUE(shown == model);
  };
  for (int step = 0; step < 20000 && !testing::Test::HasFatalFailure(); ++step) {
    const std::uint64_t key = random() % keys;
    const Record record = make(key, version++);
    switch (random() % 8) {
      case 0:
      case 1:
      case 2:
        ASSERT_EQ(entity->map().recordDel(record.quiltKey()), model.erase(key) == 1);
        break;
      case 3: {
        bool found = false;
        const auto there = model.find(key);
        for (const auto* map : {&entity->map(), &reader->map()}) {
          const Record& shown = map->find(record.quiltKey(), found);
          ASSERT_EQ(found, there != model.end());
          ASSERT_EQ(shown, there != model.end() ? there->second : Record{});
        }
        break;
      }
      default: {
        const bool room = model.count(key) != 0 || model.size() < entity->map().limit();
        ASSERT_EQ(entity->map().hasRoomFor(record.quiltKey()), room);
        if (room) {
          entity->map().recordIs(record);
          model[key] = record;
        }
      }
    }
    if (step % 2000 == 0) {
      compare(entity->map());
      compare(reader->map());
      entity->collectionControl()->scratchpadIs(version);
      store.remount(entity, "model", capacity);
      ASSERT_FALSE(entity->collectionControl()->wiped());
      ASSERT_EQ(entity->collectionControl()->scratchpad(), version);
      ASSERT_EQ(entity->map().size(), model.size());
    }
  }
  compare(entity->map());
  compare(reader->map());
  EXPECT_FALSE(entity->map().damaged());
  EXPECT_FALSE(reader->replaced());
}

TEST(QuiltMapModel, AConfigurationCollectionBehavesLikeAMap) {
  runModel<ConfigQuilt, ConfigRecord>(seed(), 300, 500, [](std::uint64_t key, std::uint64_t v) {
    return ConfigRecord::of(static_cast<std::uint32_t>(key), v);
  });
}

TEST(QuiltMapModel, ALogBehavesLikeAMap) {
  runModel<LogQuilt, LogRecord>(seed(), 50, 700, [](std::uint64_t key, std::uint64_t v) {
    LogRecord record = LogRecord::of(key);
    record.payload[2] = static_cast<std::uint32_t>(v);
    return record;
  });
}

}  // namespace
}  // namespace StoreTest
