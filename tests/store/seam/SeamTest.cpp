#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <map>

#include "Lumen/Exception.h"
#include "Quilt/Seam.h"
#include "TestRecords.h"

// The writer is ended in front of every single store to shared memory and every operation on a
// file, and what it leaves behind is looked at by a reader and by the next writer.

namespace StoreTest {
namespace {

using Contents = std::map<std::uint64_t, std::uint64_t>;  // key to version

constexpr std::uint32_t kCapacity = 8;

// Runs `work` in a process that ends in front of step `last`. True if it got to its end.
bool runTo(std::uint64_t last, const std::function<void()>& prepare,
           const std::function<void()>& work) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    prepare();
    Quilt::Seam::steps = 0;
    Quilt::Seam::endBefore = last;
    work();
    ::_exit(testing::Test::HasFailure() ? 1 : 0);
  }
  int status = 0;
  ::waitpid(pid, &status, 0);
  EXPECT_TRUE(WIFEXITED(status)) << "signal " << WTERMSIG(status);
  const int code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  EXPECT_TRUE(code == 0 || code == Quilt::Seam::kExitStatus) << code;
  return code != Quilt::Seam::kExitStatus;
}

Contents contentsOf(const Quilt::QuiltMap<ConfigRecord>& map) {
  Contents contents;
  ConfigRecord record;
  Quilt::IterHint hint;
  for (bool more = map.first(record, hint); more; more = map.next(record.key, record, hint)) {
    EXPECT_TRUE(record.consistent());
    EXPECT_TRUE(contents.emplace(record.key.port, record.version).second);
  }
  for (const auto& [key, version] : contents) {
    bool found = false;
    EXPECT_EQ(map.find(ConfigKey{static_cast<std::uint32_t>(key)}, found).version, version);
    EXPECT_TRUE(found);
  }
  return contents;
}

Contents contentsOf(const Quilt::QuiltMap<LogRecord>& map) {
  Contents contents;
  std::uint64_t last = 0;
  LogRecord record;
  Quilt::IterHint hint;
  for (bool more = map.first(record, hint); more; more = map.next(record.version, record, hint)) {
    EXPECT_EQ(record, LogRecord::of(record.version));
    EXPECT_TRUE(contents.empty() || last < record.version);
    last = record.version;
    EXPECT_TRUE(contents.emplace(record.version, record.version).second);
  }
  return contents;
}

template <class Entity>
class Harness {
 public:
  // `prepare` brings a collection into the state from which `change` starts.
  using Change = std::function<void(Entity&)>;

  explicit Harness(Change prepare) {
    auto entity = store_.mount<Entity>("it", kCapacity);
    prepare(*entity);
    before_ = contentsOf(entity->map());
    entity = nullptr;
    store_.manager()->entityDelAll();
    image_ = store_.root() + "-image";
    std::filesystem::copy(store_.root(), image_, std::filesystem::copy_options::recursive);
  }
  ~Harness() { std::filesystem::remove_all(image_); }
  Harness(const Harness&) = delete;
  Harness& operator=(const Harness&) = delete;

  // Ends `change` everywhere. What is found afterwards is as before, or as after the whole change.
  void endEverywhere(const Change& change) {
    Contents after;
    for (std::uint64_t last = 1;; ++last) {
      SCOPED_TRACE("step " + std::to_string(last));
      restore();
      Lumen::Ptr<Entity> entity;
      const bool through = runTo(
          last, [&] { entity = store_.mount<Entity>("it", kCapacity); }, [&] { change(*entity); });
      const Contents seen = contentsOf(store_.reader<Entity>("it")->map());
      entity = store_.mount<Entity>("it", kCapacity);
      EXPECT_FALSE(entity->collectionControl()->wiped());
      EXPECT_EQ(contentsOf(entity->map()), seen);
      EXPECT_EQ(entity->map().size(), seen.size());
      // It works on: the change itself, again, always comes to the same end.
      change(*entity);
      after = contentsOf(entity->map());
      EXPECT_TRUE(seen == before_ || seen == after);
      EXPECT_FALSE(entity->map().damaged());
      entity = nullptr;
      store_.manager()->entityDelAll();
      if (testing::Test::HasFailure()) {
        return;
      }
      if (through) {
        EXPECT_EQ(seen, after);
        EXPECT_GT(last, 2U) << "the steps were not counted";
        return;
      }
    }
  }

 private:
  void restore() {
    std::filesystem::remove_all(store_.root());
    std::filesystem::copy(image_, store_.root(), std::filesystem::copy_options::recursive);
  }

  Store store_;
  std::string image_;
  Contents before_;
};

void fillConfig(ConfigQuilt& entity) {
  for (std::uint32_t key = 0; key < kCapacity - 1; ++key) {
    entity.map().recordIs(ConfigRecord::of(key, 1));
  }
  entity.map().recordIs(ConfigRecord::of(3, 2));
}

TEST(EndOfAWriter, InAnAdd) {
  Harness<ConfigQuilt> harness(fillConfig);
  harness.endEverywhere(
      [](ConfigQuilt& entity) { entity.map().recordIs(ConfigRecord::of(77, 3)); });
}

TEST(EndOfAWriter, InTheFirstAddOfAll) {
  Harness<ConfigQuilt> harness([](ConfigQuilt&) {});
  harness.endEverywhere(
      [](ConfigQuilt& entity) { entity.map().recordIs(ConfigRecord::of(77, 3)); });
}

TEST(EndOfAWriter, InAnOverwriteOfEachRecord) {
  for (std::uint32_t key = 0; key < kCapacity - 1; ++key) {
    Harness<ConfigQuilt> harness(fillConfig);
    harness.endEverywhere(
        [key](ConfigQuilt& entity) { entity.map().recordIs(ConfigRecord::of(key, 9)); });
  }
}

TEST(EndOfAWriter, InARemovalOfEachRecord) {
  for (std::uint32_t key = 0; key < kCapacity - 1; ++key) {
    Harness<ConfigQuilt> harness(fillConfig);
    harness.endEverywhere([key](ConfigQuilt& entity) { entity.map().recordDel(ConfigKey{key}); });
  }
}

TEST(EndOfAWriter, InAnAddToTheLog) {
  Harness<LogQuilt> harness([](LogQuilt& entity) {
    for (std::uint64_t version = 5; version < 16; ++version) {
      entity.map().recordIs(LogRecord::of(version));
    }
  });
  harness.endEverywhere([](LogQuilt& entity) { entity.map().recordIs(LogRecord::of(16)); });
  harness.endEverywhere([](LogQuilt& entity) { entity.map().recordIs(LogRecord::of(2)); });
  harness.endEverywhere([](LogQuilt& entity) { entity.map().recordIs(LogRecord::of(1000)); });
}

TEST(EndOfAWriter, InARemovalFromTheLog) {
  Harness<LogQuilt> harness([](LogQuilt& entity) {
    for (std::uint64_t version = 5; version < 16; ++version) {
      entity.map().recordIs(LogRecord::of(version));
    }
  });
  for (const std::uint64_t version : {5, 9, 15}) {
    harness.endEverywhere([version](LogQuilt& entity) { entity.map().recordDel(version); });
  }
}

// --- mounts

// Ends a mount in front of each of its steps. `harm` is done to a collection of seven records
// first; `check` looks at what the next mount finds.
void endMountsEverywhere(const std::function<void(const Store&)>& harm,
                         const std::function<void(ConfigQuilt&)>& check) {
  for (std::uint64_t last = 1;; ++last) {
    SCOPED_TRACE("step " + std::to_string(last));
    Store store;
    Lumen::Ptr<ConfigQuilt> entity;
    if (harm) {
      entity = store.mount<ConfigQuilt>("it", kCapacity);
      fillConfig(*entity);
      entity->collectionControl()->scratchpadIs(44);
      entity = nullptr;
      store.manager()->entityDelAll();
      harm(store);
    }
    const bool through = runTo(
        last, [] {}, [&] { static_cast<void>(store.mount<ConfigQuilt>("it", kCapacity)); });
    entity = store.mount<ConfigQuilt>("it", kCapacity);
    check(*entity);
    entity->map().recordIs(ConfigRecord::of(1, 50));
    entity = nullptr;
    store.manager()->entityDelAll();
    for (const auto& file : std::filesystem::directory_iterator(store.folder())) {
      EXPECT_EQ(file.path().string().find(".new"), std::string::npos) << file.path();
    }
    if (through || testing::Test::HasFailure()) {
      EXPECT_GT(last, harm ? 2U : 10U) << "the steps were not counted";
      return;
    }
  }
}

const Contents kFilled{{0, 1}, {1, 1}, {2, 1}, {3, 2}, {4, 1}, {5, 1}, {6, 1}};

TEST(EndOfAMount, OfACollectionThatNeverWas) {
  endMountsEverywhere(nullptr, [](ConfigQuilt& entity) {
    EXPECT_FALSE(entity.collectionControl()->wiped());
    EXPECT_TRUE(contentsOf(entity.map()).empty());
  });
}

TEST(EndOfAMount, OfASoundCollection) {
  endMountsEverywhere([](const Store&) {},
                      [](ConfigQuilt& entity) {
                        EXPECT_FALSE(entity.collectionControl()->wiped());
                        EXPECT_EQ(contentsOf(entity.map()), kFilled);
                        EXPECT_EQ(entity.collectionControl()->scratchpad(), 44U);
                      });
}

TEST(EndOfAMount, OfADamagedCollection) {
  endMountsEverywhere(
      [](const Store& store) {
        std::fstream file(store.file("it"), std::ios::binary | std::ios::in | std::ios::out);
        file.seekp(offsetof(Quilt::Header, damaged));
        file.put('\1');
      },
      [](ConfigQuilt& entity) {
        EXPECT_TRUE(entity.collectionControl()->wiped());
        EXPECT_EQ(contentsOf(entity.map()), kFilled);
        EXPECT_EQ(entity.collectionControl()->scratchpad(), 44U);
      });
}

TEST(EndOfAMount, OfAMissingCollection) {
  endMountsEverywhere([](const Store& store) { std::filesystem::remove(store.file("it")); },
                      [](ConfigQuilt& entity) {
                        EXPECT_TRUE(entity.collectionControl()->wiped());
                        EXPECT_TRUE(contentsOf(entity.map()).empty());
                      });
}

TEST(EndOfAMount, OfACollectionOfAnotherLayout) {
  endMountsEverywhere(
      [](const Store& store) {
        std::fstream file(store.file("it"), std::ios::binary | std::ios::in | std::ios::out);
        file << std::string(512, 'x');
      },
      [](ConfigQuilt& entity) {
        EXPECT_TRUE(entity.collectionControl()->wiped());
        EXPECT_TRUE(contentsOf(entity.map()).empty());
      });
}

}  // namespace
}  // namespace StoreTest
