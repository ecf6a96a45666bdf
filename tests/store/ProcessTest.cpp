#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <random>

#include "Lumen/Exception.h"
#include "TestRecords.h"

// Processes as processes.

namespace StoreTest {
namespace {

using BrioSharedMem::StoreError;
using testing::HasSubstr;

// A child process that runs `body` and ends; its failures are printed and end it with status 1.
class Child {
 public:
  explicit Child(const std::function<void(int out)>& body) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) {
      std::abort();
    }
    pid_ = ::fork();
    if (pid_ == 0) {
      ::close(ends[0]);
      try {
        body(ends[1]);
      } catch (const std::exception& exception) {
        ADD_FAILURE() << exception.what();
      }
      ::_exit(testing::Test::HasFailure() ? 1 : 0);
    }
    ::close(ends[1]);
    in_ = ends[0];
  }
  ~Child() {
    kill();
    ::close(in_);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  [[nodiscard]] pid_t pid() const { return pid_; }
  // Waits for a byte from the child.
  [[nodiscard]] bool ready() const {
    char byte;
    return ::read(in_, &byte, 1) == 1;
  }
  void kill() {
    if (!reaped_) {
      ::kill(pid_, SIGKILL);
      static_cast<void>(status());
    }
  }
  // Waits for the end; as of waitpid.
  int status() {
    if (!reaped_) {
      ::waitpid(pid_, &status_, 0);
      reaped_ = true;
    }
    return status_;
  }

 private:
  pid_t pid_;
  int in_;
  int status_ = 0;
  bool reaped_ = false;
};

template <class Body>
std::string errorOf(Body&& body) {
  try {
    body();
  } catch (const StoreError& error) {
    return error.what();
  }
  ADD_FAILURE() << "no StoreError";
  return {};
}

TEST(TwoWriters, TheSecondIsRefusedByPathAndProcessBeforeItTouchesAnything) {
  Store store;
  Child first([&](int out) {
    const auto entity = store.mount<LogQuilt>("a/log", 10);
    entity->map().recordIs(LogRecord::of(1));
    ASSERT_EQ(::write(out, "x", 1), 1);
    ::pause();
  });
  ASSERT_TRUE(first.ready());
  const std::string error = errorOf([&] { static_cast<void>(store.mount<LogQuilt>("a/log", 99)); });
  EXPECT_THAT(error, HasSubstr("a/log: process " + std::to_string(first.pid()) + " writes"));
  EXPECT_THAT(error, HasSubstr("stop that process first"));
  EXPECT_EQ(store.manager()->getEntity("a/log"), nullptr);
  bool found = false;
  const auto reader = store.reader<LogQuilt>("a/log");
  EXPECT_EQ(reader->map().find(1, found), LogRecord::of(1));
  EXPECT_EQ(reader->map().capacity(), 10U);
  // Its neighbours are free.
  EXPECT_NE(store.mount<LogQuilt>("a/log2", 10), nullptr);
  first.kill();
  const auto entity = store.mount<LogQuilt>("a/log", 10);
  EXPECT_EQ(entity->map().size(), 1U);
  EXPECT_FALSE(entity->collectionControl()->wiped());
}

TEST(TwoWriters, AForkOfTheWriterIsNotTheWriter) {
  Store store;
  const auto entity = store.mount<LogQuilt>("log", 10);
  const pid_t parent = ::getpid();
  Child child([&](int) {
    EXPECT_EQ(store.manager()->getEntity("log"), nullptr);
    EXPECT_THAT(errorOf([&] { static_cast<void>(store.mount<LogQuilt>("log", 10)); }),
                HasSubstr("log: process " + std::to_string(parent) + " writes"));
    static_cast<void>(store.reader<LogQuilt>("log"));
  });
  EXPECT_EQ(child.status(), 0);
}

// One operation as a table does it: configuration record, log record, version word. A version that
// is a multiple of 5 removes instead; the log is cut from the front.
void writeForEver(Store& store, std::uint64_t seed, const std::function<void()>& started) {
  std::mt19937_64 random(seed);
  const auto config = store.mount<ConfigQuilt>("config", 200);
  const auto log = store.mount<LogQuilt>("log", 100);
  const auto control = log->collectionControl();
  std::uint64_t version = control->scratchpad();
  started();
  for (;;) {
    ++version;
    const auto key = static_cast<std::uint32_t>(random() % 200);
    control->announcedIs(version);
    if (version % 5 == 0) {
      config->map().recordDel(ConfigKey{key});
    } else {
      config->map().recordIs(ConfigRecord::of(key, version));
    }
    log->map().recordIs(LogRecord::of(version));
    control->scratchpadIs(version);
    control->publishedIs(version);
    if (version > 50) {
      log->map().recordDel(version - 50);
    }
  }
}

TEST(Kill, AWriterKilledAtAnyMomentLeavesTheStoreWhole) {
  Store store;
  // Made once, so that the reader has something to open.
  static_cast<void>(store.mount<ConfigQuilt>("config", 200));
  static_cast<void>(store.mount<LogQuilt>("log", 100));
  store.manager()->entityDelAll();
  const auto configReader = store.reader<ConfigQuilt>("config");
  const auto logReader = store.reader<LogQuilt>("log");
  const std::uint64_t seed = std::random_device{}();
  std::mt19937_64 random(seed);
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::uint64_t before = 0;
  std::uint64_t reads = 0;
  for (int round = 0; round < 40; ++round) {
    Child writer([&](int out) {
      writeForEver(store, random(), [&] { ASSERT_EQ(::write(out, "x", 1), 1); });
    });
    ASSERT_TRUE(writer.ready());
    const auto until =
        std::chrono::steady_clock::now() + std::chrono::microseconds(1000 + random() % 15000);
    while (std::chrono::steady_clock::now() < until) {
      const std::uint64_t published = logReader->collectionControl()->published();
      if (published > 40) {
        // Nobody removes so young a version.
        bool found = false;
        const LogRecord& record = logReader->map().find(published, found);
        if (found) {
          ASSERT_EQ(record, LogRecord::of(published));
        } else {
          ASSERT_GT(logReader->collectionControl()->published(), published + 40);
        }
      }
      ConfigRecord record;
      Quilt::IterHint hint;
      for (bool more = configReader->map().first(record, hint); more;
           more = configReader->map().next(record.key, record, hint)) {
        ASSERT_TRUE(record.consistent());
        ++reads;
      }
    }
    writer.kill();

    ASSERT_FALSE(configReader->replaced());
    auto config = store.mount<ConfigQuilt>("config", 200);
    auto log = store.mount<LogQuilt>("log", 100);
    ASSERT_FALSE(config->collectionControl()->wiped());
    ASSERT_FALSE(log->collectionControl()->wiped());
    const std::uint64_t saved = log->collectionControl()->scratchpad();
    ASSERT_GE(saved, before);
    before = saved;
    // Log records up to the saved version without a gap, and at most one beyond it.
    std::uint64_t last = 0;
    std::uint64_t count = 0;
    LogRecord record;
    Quilt::IterHint hint;
    for (bool more = log->map().first(record, hint); more;
         more = log->map().next(record.version, record, hint)) {
      ASSERT_EQ(record, LogRecord::of(record.version));
      ASSERT_TRUE(last == 0 || record.version == last + 1);
      last = record.version;
      ++count;
    }
    ASSERT_TRUE(last == saved || last == saved + 1) << last << " " << saved;
    ASSERT_EQ(count, log->map().size());
    const std::uint64_t announced = log->collectionControl()->announced();
    ASSERT_TRUE(announced == saved || announced == saved + 1);
    // What the writer that died had begun is finished, so that the next one finds no gap.
    if (announced == saved + 1) {
      log->map().recordIs(LogRecord::of(announced));
      log->collectionControl()->scratchpadIs(announced);
    }
    for (std::uint64_t old = announced > 60 ? announced - 60 : 0; old + 50 <= announced; ++old) {
      log->map().recordDel(old);
    }
    ConfigRecord entry;
    Quilt::IterHint configHint;
    std::uint64_t entries = 0;
    for (bool more = config->map().first(entry, configHint); more;
         more = config->map().next(entry.key, entry, configHint)) {
      ASSERT_TRUE(entry.consistent());
      ASSERT_LE(entry.version, saved + 1);
      ++entries;
    }
    ASSERT_EQ(entries, config->map().size());
    config = nullptr;
    log = nullptr;
    store.manager()->entityDelAll();
  }
  EXPECT_GT(before, 1000U);
  EXPECT_GT(reads, 1000U);
}

// A file system of its own, of `bytes`. False if this process may not.
bool mountSmallFileSystem(const std::string& folder, const char* options) {
  return ::unshare(CLONE_NEWNS) == 0 &&
         ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         ::mount("tmpfs", folder.c_str(), "tmpfs", 0, options) == 0;
}

constexpr int kNotPermitted = 42;

// Runs `body` with a store in a file system of the given size, in a process of its own.
int inSmallFileSystem(const char* options, const std::function<void(Store&)>& body) {
  const std::string root = Store::freshRoot();
  Child child([&](int) {
    if (!mountSmallFileSystem(root, options)) {
      ::_exit(kNotPermitted);
    }
    Store store(false, root);
    body(store);
  });
  const int status = child.status();
  std::filesystem::remove_all(root);
  return status;
}

#define KELP_EXPECT_END(status)                                                      \
  do {                                                                               \
    const int ended = (status);                                                      \
    if (WIFEXITED(ended) && WEXITSTATUS(ended) == kNotPermitted) {                   \
      GTEST_SKIP() << "this user may not mount a file system; run the test as root"; \
    }                                                                                \
    EXPECT_EQ(ended, 0) << "signal " << (WIFSIGNALED(ended) ? WTERMSIG(ended) : 0);  \
  } while (false)

TEST(Space, AnExhaustedFileSystemIsARefusalAndNeverABusError) {
  KELP_EXPECT_END(inSmallFileSystem("size=2m", [](Store& store) {
    const std::string ballast = store.root() + "/ballast";
    std::ofstream(ballast) << std::string(300 * 1024, 'x');
    const auto config = store.mount<ConfigQuilt>("config", 65536);
    const auto log = store.mount<LogQuilt>("log", 1'000'000);
    auto& map = config->map();
    std::uint32_t stored = 0;
    while (map.hasRoomFor(ConfigKey{stored})) {
      map.recordIs(ConfigRecord::of(stored, 1));
      ASSERT_LT(++stored, 65536U) << "the file system is larger than it should be";
    }
    EXPECT_GT(stored, 500U);
    // To the last page.
    const int filler = ::open((store.root() + "/filler").c_str(), O_CREAT | O_WRONLY, 0600);
    const char page[4096] = {1};
    while (::write(filler, page, sizeof page) > 0) {
    }
    EXPECT_THAT(errorOf([&] { static_cast<void>(store.mount<LogQuilt>("more", 10)); }),
                HasSubstr("make room in the file system"));
    EXPECT_EQ(store.manager()->getEntity("more"), nullptr);
    // Reads of what is not there, whose pages were never taken, by the writer and by a reader.
    bool found = false;
    const auto configReader = store.reader<ConfigQuilt>("config");
    const auto logReader = store.reader<LogQuilt>("log");
    for (std::uint32_t key = 0; key < 65536; ++key) {
      static_cast<void>(map.find(ConfigKey{key}, found));
      EXPECT_EQ(found, key < stored);
      static_cast<void>(configReader->map().find(ConfigKey{key}, found));
      EXPECT_EQ(found, key < stored);
      static_cast<void>(logReader->map().find(key * 16ULL, found));
      EXPECT_FALSE(found);
      EXPECT_FALSE(log->map().recordDel(key * 16ULL));
    }
    LogRecord record;
    Quilt::IterHint hint;
    EXPECT_FALSE(logReader->map().first(record, hint));
    EXPECT_FALSE(log->map().hasRoomFor(777'777));
    // Overwrites and removals go on; a removal makes room.
    for (std::uint32_t key = 0; key < stored; ++key) {
      ASSERT_TRUE(map.hasRoomFor(ConfigKey{key}));
      map.recordIs(ConfigRecord::of(key, 2));
    }
    EXPECT_FALSE(map.hasRoomFor(ConfigKey{stored}));
    EXPECT_TRUE(map.recordDel(ConfigKey{0}));
    const bool room = map.hasRoomFor(ConfigKey{0});
    EXPECT_TRUE(room);
    map.recordIs(ConfigRecord::of(0, 3));
    EXPECT_EQ(map.size(), stored);
    // With space again, the log takes its first record.
    ::close(filler);
    std::filesystem::remove(ballast);
    EXPECT_TRUE(log->map().hasRoomFor(777'777));
    log->map().recordIs(LogRecord::of(777'777));
    EXPECT_EQ(logReader->map().find(777'777, found), LogRecord::of(777'777));
  }));
}

TEST(Space, ARefusedMountCanBeTriedAgain) {
  KELP_EXPECT_END(inSmallFileSystem("size=256k", [](Store& store) {
    std::filesystem::create_directories(store.folder());
    const std::string filler = store.root() + "/filler";
    const int file = ::open(filler.c_str(), O_CREAT | O_WRONLY, 0600);
    const char page[4096] = {1};
    while (::write(file, page, sizeof page) > 0) {
    }
    ::close(file);
    EXPECT_THAT(errorOf([&] { static_cast<void>(store.mount<LogQuilt>("log", 10)); }),
                HasSubstr("log: cannot "));
    std::filesystem::remove(filler);
    const auto entity = store.mount<LogQuilt>("log", 10);
    EXPECT_FALSE(entity->collectionControl()->wiped());
    entity->map().recordIs(LogRecord::of(1));
  }));
}

TEST(Permission, AForeignFolderIsNamedWithTheRemedy) {
  if (::getuid() != 0) {
    GTEST_SKIP() << "only root can take another user's place; run the test as root";
  }
  Store store;
  static_cast<void>(store.mount<LogQuilt>("a/log", 10));
  store.manager()->entityDelAll();
  ASSERT_EQ(::chmod(store.root().c_str(), 0755), 0);
  Child child([&](int) {
    ASSERT_EQ(::setgid(65534), 0);
    ASSERT_EQ(::setuid(65534), 0);
    for (const std::string& error :
         {errorOf([&] { static_cast<void>(store.mount<LogQuilt>("a/log", 10)); }),
          errorOf([&] { static_cast<void>(store.reader<LogQuilt>("a/log")); })}) {
      EXPECT_THAT(error, HasSubstr("a/log: cannot "));
      EXPECT_THAT(error, HasSubstr("run as the owner of the folder"));
    }
    EXPECT_EQ(store.manager()->findEntities("a", BrioSharedMem::BrioSharedMemType::quilt)->count(),
              0U);
  });
  EXPECT_EQ(child.status(), 0);
}

}  // namespace
}  // namespace StoreTest
