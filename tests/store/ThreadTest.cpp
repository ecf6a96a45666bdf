#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "Lumen/Exception.h"
#include "TestRecords.h"

// A writer thread and reader threads over one mapping, so that a thread sanitizer sees every word
// that they share; and over mappings of their own, as processes have them.

namespace StoreTest {
namespace {

constexpr std::uint32_t kKeys = 64;

struct Outcome {
  std::uint64_t records = 0;
  std::uint64_t walks = 0;
  std::string failure;
};

// Finds and walks until the writer is through.
void readUntil(const std::atomic<bool>& done, const Quilt::QuiltMap<ConfigRecord>& config,
               const Quilt::QuiltMap<LogRecord>& log, Outcome& outcome) {
  std::mt19937 random(5);
  try {
    bool last = false;
    while (!last) {
      // One round more when the writer is through.
      last = done.load(std::memory_order_acquire);
      bool found = false;
      const ConfigRecord& record =
          config.find(ConfigKey{static_cast<std::uint32_t>(random() % kKeys)}, found);
      if (found && !record.consistent()) {
        outcome.failure = "a record that was never written";
      }
      outcome.records += found ? 1 : 0;
      const LogRecord& change = log.find(random() % 1000, found);
      if (found && !(change == LogRecord::of(change.version))) {
        outcome.failure = "a log record that was never written";
      }
      if (random() % 16 == 0 || last) {
        ConfigRecord shown;
        Quilt::IterHint hint;
        std::uint64_t seen = 0;
        for (bool more = config.first(shown, hint); more;
             more = config.next(shown.key, shown, hint)) {
          if (!shown.consistent() || ((seen >> shown.key.port) & 1U) != 0) {
            outcome.failure = "a walk shows a record twice or one that was never written";
          }
          seen |= std::uint64_t{1} << shown.key.port;
          ++outcome.records;
        }
        std::uint64_t before = 0;
        LogRecord change2;
        for (bool more = log.first(change2, hint); more;
             more = log.next(change2.version, change2, hint)) {
          if (change2.version <= before) {
            outcome.failure = "a walk of the log goes down";
          }
          before = change2.version;
        }
        ++outcome.walks;
      }
    }
  } catch (const Lumen::CorruptionDetectedException& exception) {
    outcome.failure = exception.msg();
  }
}

void writeAll(Quilt::QuiltMap<ConfigRecord>& config, Quilt::QuiltMap<LogRecord>& log,
              int operations) {
  std::mt19937 random(7);
  for (int i = 1; i <= operations; ++i) {
    const auto version = static_cast<std::uint64_t>(i);
    // Half of all changes to one key, so that slots come back at once.
    const auto key = static_cast<std::uint32_t>(random() % 2 == 0 ? 7 : random() % kKeys);
    if (random() % 4 == 0) {
      config.recordDel(ConfigKey{key});
    } else {
      config.recordIs(ConfigRecord::of(key, version));
    }
    log.recordIs(LogRecord::of(version));
    if (i > 30) {
      log.recordDel(version - 30);
    }
  }
}

template <class MakeReader>
void run(Store& store, int operations, MakeReader&& makeReader) {
  const auto config = store.mount<ConfigQuilt>("config", kKeys);
  const auto log = store.mount<LogQuilt>("log", 64);
  std::atomic<bool> done{false};
  constexpr int kReaders = 2;
  Outcome outcomes[kReaders];
  std::vector<std::thread> readers;
  using Pair = std::pair<std::shared_ptr<const Quilt::QuiltMap<ConfigRecord>>,
                         std::shared_ptr<const Quilt::QuiltMap<LogRecord>>>;
  std::vector<Pair> maps;
  for (int i = 0; i < kReaders; ++i) {
    maps.push_back(makeReader(*config, *log));
  }
  for (int i = 0; i < kReaders; ++i) {
    readers.emplace_back([&maps, &done, &outcomes, i] {
      const auto at = static_cast<std::size_t>(i);
      readUntil(done, *maps[at].first, *maps[at].second, outcomes[at]);
    });
  }
  writeAll(config->map(), log->map(), operations);
  done.store(true, std::memory_order_release);
  for (std::thread& reader : readers) {
    reader.join();
  }
  for (const Outcome& outcome : outcomes) {
    EXPECT_EQ(outcome.failure, "");
    EXPECT_GT(outcome.records, 0U);
    EXPECT_GT(outcome.walks, 0U);
  }
}

TEST(Threads, ReadersOverTheWritersMappingSeeOnlyWholeRecords) {
  Store store;
  run(store, 200'000, [](const ConfigQuilt& config, const LogQuilt& log) {
    return std::pair(std::make_shared<const Quilt::QuiltMap<ConfigRecord>>(config.map().file()),
                     std::make_shared<const Quilt::QuiltMap<LogRecord>>(log.map().file()));
  });
}

TEST(Threads, ReadersOverMappingsOfTheirOwnSeeOnlyWholeRecords) {
  Store store;
  run(store, 200'000, [](const ConfigQuilt& config, const LogQuilt& log) {
    return std::pair(
        std::make_shared<const Quilt::QuiltMap<ConfigRecord>>(config.map().file()->mapAgain()),
        std::make_shared<const Quilt::QuiltMap<LogRecord>>(log.map().file()->mapAgain()));
  });
}

}  // namespace
}  // namespace StoreTest
