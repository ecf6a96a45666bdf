#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <map>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "Floor.h"
#include "Peers.h"
#include "Records.h"

// Measures the store against the least that its work can cost, against LMDB and against private
// memory, all in one run on one file system. The rounds are interleaved; the smallest time of each
// counts.
//
//   store_bench [ROUNDS] [FOLDER]      15 rounds in /dev/shm unless told otherwise

namespace StoreBench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr char kConfigPath[] = "bench/config/1";
constexpr char kLogPath[] = "bench/log";
constexpr std::uint32_t kLogCapacity = 1'000'000;

const BrioSharedMem::EntityTypeRegistrar<ConfigQuilt> kConfigType{"StoreBench::ConfigQuilt"};
const BrioSharedMem::EntityTypeRegistrar<LogQuilt> kLogType{"StoreBench::LogQuilt"};

std::uint64_t sink = 0;

class Bench {
 public:
  explicit Bench(const std::string& folder)
      : folder_(folder), floor_((folder + "/floor").c_str()), lmdb_(folder + "/lmdb") {
    BrioSharedMem::EntityManager::rootIs("bench", folder);
    manager_ = BrioSharedMem::EntityManager::getEntityManager("bench", false);
    std::mt19937 random(1);
    std::vector<std::uint32_t> all(4 * kKeys);
    std::iota(all.begin(), all.end(), 1U);
    std::shuffle(all.begin(), all.end(), random);
    keys_.assign(all.begin(), all.begin() + kKeys);
    absent_.assign(all.begin() + kKeys, all.begin() + 2 * kKeys);
    order_ = keys_;
    std::shuffle(order_.begin(), order_.end(), random);
    mount();
  }

  // Each contender does all its work in one go, so that it finds its own pages in the caches.
  void round() {
    floorRound();
    storeRound();
    const std::uint64_t version = version_;
    lmdb_.clear();
    measure("W lmdb", [&] { lmdb_.write(keys_, version); });
    sink += lmdb_.read(order_);
    measure("H lmdb", [&] { sink += lmdb_.read(order_); });
    private_.clear();
    measure("W private", [&] { private_.write(keys_, version); });
    sink += private_.read(order_);
    measure("H private", [&] { sink += private_.read(order_); });
    version_ += 3 * kKeys;
  }

  void print() const {
    std::printf("%-28s %10s %10s\n", "per operation", "least ns", "median ns");
    for (const auto& name : names_) {
      std::printf("%-28s %10.2f %10.2f\n", name.c_str(), least(name), median(name));
    }
    std::printf("\n%-52s %8s %8s\n", "ratio of the least times", "ratio", "goal");
    ratio("new record and its log record, store : floor", "W store", "W floor", "1.25");
    ratio("overwrite and its log record, store : floor", "overwrite store", "overwrite floor",
          "1.25");
    ratio("log record removed, store : floor", "log delete store", "log delete floor", "1.25");
    ratio("hit by reference, store : floor", "H store, reference", "H floor, reference", "1.25");
    ratio("hit copied out, store : floor", "H store, copied out", "H floor, copied out", "1.25");
    ratio("miss, store : floor", "miss store", "miss floor", "1.25");
    ratio("walk in the writer, store : floor", "walk store, writer", "walk floor", "1.25");
    ratio("walk in a reader, store : floor", "walk store, reader", "walk floor", "1.25");
    ratio("new record, lmdb : store", "W lmdb", "W store", ">= 8");
    ratio("hit, lmdb : store, copied out", "H lmdb", "H store, copied out", ">= 8");
    ratio("new record, private memory : store", "W private", "W store", "");
    ratio("hit, private memory : store, copied out", "H private", "H store, copied out", "");
  }

 private:
  template <class Body>
  void measure(const std::string& name, Body&& body, double operations = kKeys) {
    const auto from = Clock::now();
    body();
    const std::chrono::duration<double, std::nano> took = Clock::now() - from;
    if (times_.find(name) == times_.end()) {
      names_.push_back(name);
    }
    times_[name].push_back(took.count() / operations);
  }

  void floorRound() {
    const std::uint64_t version = version_;
    measure("W floor", [&] {
      for (std::uint32_t i = 0; i < kKeys; ++i) {
        floor_.write(configRecord(keys_[i], version + i), logRecord(keys_[i], version + i));
      }
    });
    const auto hit = [&] {
      for (const std::uint32_t key : order_) {
        sink += floor_.find(key)->version;
      }
    };
    hit();
    measure("H floor, reference", hit);
    measure("H floor, copied out", [&] {
      ConfigRecord record;
      for (const std::uint32_t key : order_) {
        sink += floor_.copyOut(key, record) ? record.version : 0;
      }
    });
    measure("miss floor", [&] {
      for (const std::uint32_t key : absent_) {
        sink += floor_.find(key) != nullptr ? 1 : 0;
      }
    });
    measure("walk floor", [&] { sink += floor_.walk(); });
    measure("log delete floor", [&] {
      for (std::uint32_t i = 0; i < kKeys; ++i) {
        floor_.logDel(version + i);
      }
    });
    measure("overwrite floor", [&] {
      for (std::uint32_t i = 0; i < kKeys; ++i) {
        floor_.write(configRecord(keys_[i], version + kKeys + i),
                     logRecord(keys_[i], version + kKeys + i));
      }
    });
    // Back to empty, in the order that leaves the free slots in the order of their places.
    for (std::uint32_t i = kKeys; i-- > 0;) {
      floor_.configDel(keys_[i]);
      floor_.logDel(version + kKeys + i);
    }
  }

  void storeRound() {
    const std::uint64_t version = version_;
    measure("W store", [&] {
      for (std::uint32_t i = 0; i < kKeys; ++i) {
        write(keys_[i], version + i);
      }
    });
    const auto hit = [&] {
      bool found;
      for (const std::uint32_t key : order_) {
        sink += config_->map().find(ConfigKey{key}, found).version;
      }
    };
    hit();
    measure("H store, reference", hit);
    readerPart();
    measure("miss store", [&] {
      bool found;
      for (const std::uint32_t key : absent_) {
        sink += config_->map().find(ConfigKey{key}, found).version;
      }
    });
    measure("walk store, writer", [&] { sink += walk(config_->map()); });
    attach();
    measure("log delete store", [&] {
      for (std::uint32_t i = 0; i < kKeys; ++i) {
        log_->map().recordDel(version + i);
      }
    });
    measure("overwrite store", [&] {
      for (std::uint32_t i = 0; i < kKeys; ++i) {
        write(keys_[i], version + kKeys + i);
      }
    });
    for (std::uint32_t i = kKeys; i-- > 0;) {
      config_->map().recordDel(ConfigKey{keys_[i]});
      log_->map().recordDel(version + kKeys + i);
    }
  }

  void readerPart() {
    const auto entity = Lumen::dynamicPtrCast<ConfigQuilt>(
        manager_->openReader(kConfigPath, "StoreBench::ConfigQuilt"));
    const auto& reader = entity->map();
    // The first touch of the pages of a fresh mapping is no part of a hit.
    sink += walk(reader);
    measure("H store, copied out", [&] {
      bool found;
      for (const std::uint32_t key : order_) {
        const ConfigRecord record = reader.find(ConfigKey{key}, found);
        sink += record.version;
      }
    });
    measure("walk store, reader", [&] { sink += walk(reader); });
    const auto log =
        Lumen::dynamicPtrCast<LogQuilt>(manager_->openReader(kLogPath, "StoreBench::LogQuilt"));
    sink += walk(log->map());
    measure("walk of the log, reader", [&] { sink += walk(log->map()); });
  }

  void mount() {
    const auto group = manager_->getMountGroup();
    BrioQuilt::MountInfo config(BrioQuilt::BrioQuiltType::collection);
    config.collectionInfoIs(BrioQuilt::CollectionInfo("config", kKeys, false));
    group->mount(kConfigPath, "StoreBench::ConfigQuilt", config);
    BrioQuilt::MountInfo log(BrioQuilt::BrioQuiltType::collection);
    log.collectionInfoIs(BrioQuilt::CollectionInfo("log", kLogCapacity, false));
    group->mount(kLogPath, "StoreBench::LogQuilt", log);
    group->doClose();
    config_ = Lumen::dynamicPtrCast<ConfigQuilt>(manager_->getEntity(kConfigPath));
    log_ = Lumen::dynamicPtrCast<LogQuilt>(manager_->getEntity(kLogPath));
    control_ = log_->collectionControl();
  }

  void write(std::uint32_t key, std::uint64_t version) {
    config_->map().recordIs(configRecord(key, version));
    log_->map().recordIs(logRecord(key, version));
    control_->scratchpadIs(version);
  }

  template <class Record>
  static std::uint64_t walk(const Quilt::QuiltMap<Record>& map) {
    std::uint64_t sum = 0;
    Record record;
    Quilt::IterHint hint;
    for (bool more = map.first(record, hint); more;
         more = map.next(record.quiltKey(), record, hint)) {
      sum += record.version;
    }
    return sum;
  }

  // Both collections full: 131,072 live slots.
  void attach() {
    measure(
        "reader attach",
        [&] { static_cast<void>(manager_->openReader(kConfigPath, "StoreBench::ConfigQuilt")); },
        1);
    config_ = nullptr;
    log_ = nullptr;
    control_ = nullptr;
    manager_->entityDelAll();
    measure(
        "writer attach, both", [&] { mount(); }, 1);
    // Its first touch of pages, so that what follows is not measured with it.
    sink += walk(config_->map()) + walk(log_->map());
  }

  [[nodiscard]] double least(const std::string& name) const {
    const auto& times = times_.at(name);
    return *std::min_element(times.begin(), times.end());
  }
  [[nodiscard]] double median(const std::string& name) const {
    std::vector<double> times = times_.at(name);
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
  }
  void ratio(const char* what, const char* of, const char* to, const char* goal) const {
    std::printf("%-52s %8.2f %8s\n", what, least(of) / least(to), goal);
  }

  std::string folder_;
  Floor floor_;
  Lmdb lmdb_;
  PrivateMap private_;
  Lumen::Ptr<BrioSharedMem::EntityManager> manager_;
  Lumen::Ptr<ConfigQuilt> config_;
  Lumen::Ptr<LogQuilt> log_;
  Lumen::Ptr<BrioQuilt::CollectionControl> control_;
  std::vector<std::uint32_t> keys_;
  std::vector<std::uint32_t> order_;
  std::vector<std::uint32_t> absent_;
  std::uint64_t version_ = 1;
  std::vector<std::string> names_;
  std::map<std::string, std::vector<double>> times_;
};

}  // namespace
}  // namespace StoreBench

int main(int argc, char** argv) {
  const int rounds = argc > 1 ? std::atoi(argv[1]) : 15;
  std::string folder = argc > 2 ? argv[2] : "/dev/shm";
  folder += "/kelp-store-bench-XXXXXX";
  if (rounds < 1 || ::mkdtemp(folder.data()) == nullptr) {
    std::fprintf(stderr, "usage: store_bench [ROUNDS] [FOLDER]: FOLDER must be writable: %s\n",
                 folder.c_str());
    return 2;
  }
  {
    StoreBench::Bench bench(folder);
    for (int i = 0; i < rounds; ++i) {
      bench.round();
    }
    bench.print();
  }
  std::error_code ignored;
  std::filesystem::remove_all(folder, ignored);
  // Keeps the measured work from being thought needless.
  return StoreBench::sink == 42 ? 3 : 0;
}
