#include "BrioSharedMem/Bell.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <memory>
#include <optional>
#include <random>
#include <thread>

#include "TempFolder.h"

namespace {

using BrioSharedMem::Bell;
using BrioSharedMem::BellError;
using testing::HasSubstr;

// Far longer than any wake-up takes: reaching it means that one was lost.
constexpr int kPatienceMilliseconds = 20000;

bool rung(const Bell& bell, int milliseconds = 0) {
  pollfd wait{bell.fd(), POLLIN, 0};
  return poll(&wait, 1, milliseconds) == 1;
}

template <class Action>
Lumen::String errorOf(Action action) {
  try {
    action();
  } catch (const BellError& error) {
    return error.msg();
  }
  return "no error";
}

// What a listener does between two pieces of work. False: it slept for good.
template <class HasWork>
bool waitForWork(Bell& bell, HasWork hasWork) {
  while (!hasWork()) {
    bell.arm();
    if (!hasWork() && !rung(bell, kPatienceMilliseconds)) {
      return false;
    }
    bell.disarm();
  }
  return true;
}

class Bells : public testing::Test {
 protected:
  std::string folder() const { return folder_.path() + "/sys"; }
  TempFolder folder_;
};

TEST_F(Bells, AreRungOnceOnAttach) {
  Bell listener(folder(), "up", Bell::Role::listener);
  EXPECT_TRUE(rung(listener));
  listener.disarm();
  EXPECT_FALSE(rung(listener));
  const Bell ringer(folder(), "up", Bell::Role::ringer);
  EXPECT_TRUE(rung(listener));
}

TEST_F(Bells, WriteOneByteForAnArmedListenerAndNoneForABusyOne) {
  Bell listener(folder(), "up", Bell::Role::listener);
  Bell ringer(folder(), "up", Bell::Role::ringer);
  listener.disarm();
  const std::uint64_t before = ringer.wakeUps();
  for (int i = 0; i < 1000; ++i) {
    ringer.ring();
  }
  EXPECT_EQ(ringer.wakeUps(), before);
  EXPECT_FALSE(rung(listener));

  listener.arm();
  EXPECT_TRUE(listener.armed());
  for (int i = 0; i < 1000; ++i) {
    ringer.ring();
  }
  EXPECT_EQ(ringer.wakeUps(), before + 1);
  EXPECT_FALSE(listener.armed());
  EXPECT_TRUE(rung(listener));
  listener.disarm();
  EXPECT_FALSE(rung(listener));
}

TEST_F(Bells, OfDifferentNamesAreApart) {
  Bell up(folder(), "up", Bell::Role::listener);
  Bell down(folder(), "down", Bell::Role::listener);
  up.disarm();
  down.disarm();
  up.arm();
  down.arm();
  Bell ringer(folder(), "down", Bell::Role::ringer);
  ringer.ring();
  EXPECT_FALSE(rung(up));
  EXPECT_TRUE(rung(down));
}

TEST_F(Bells, KeepTheirFilesToTheirGroup) {
  const Bell bell(folder(), "up", Bell::Role::listener);
  struct stat status {};
  ASSERT_EQ(stat(folder().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0027U, 0U);
  for (const char* file : {"/.bell-up.pipe", "/.bell-up.page"}) {
    ASSERT_EQ(stat((folder() + file).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0137U, 0U) << file;
  }
}

TEST_F(Bells, NeverBlockNorDieWithAFullPipeOrWithoutAListener) {
  Bell ringer(folder(), "up", Bell::Role::ringer);
  {
    Bell listener(folder(), "up", Bell::Role::listener);
    for (int i = 0; i < 100000; ++i) {
      listener.arm();
      ringer.ring();
    }
    EXPECT_GT(ringer.wakeUps(), 100000U);
    listener.disarm();
    EXPECT_FALSE(rung(listener));
    listener.arm();
  }
  ringer.ring();
  ringer.ring();
  Bell listener(folder(), "up", Bell::Role::listener);
  EXPECT_TRUE(rung(listener));
}

TEST_F(Bells, RefuseASecondListener) {
  std::optional<Bell> first;
  first.emplace(folder(), "up", Bell::Role::listener);
  const auto error = errorOf([&] { const Bell second(folder(), "up", Bell::Role::listener); });
  EXPECT_THAT(error, HasSubstr(".bell-up.page"));
  EXPECT_THAT(error, HasSubstr("stop it first"));
  first.reset();
  EXPECT_EQ(errorOf([&] { const Bell again(folder(), "up", Bell::Role::listener); }), "no error");
}

TEST_F(Bells, NameTheFileThatStandsInTheWay) {
  { const Bell bell(folder(), "other", Bell::Role::ringer); }
  std::ofstream(folder() + "/.bell-up.pipe") << "a plain file";
  EXPECT_THAT(errorOf([&] { const Bell bell(folder(), "up", Bell::Role::ringer); }),
              testing::AllOf(HasSubstr(".bell-up.pipe"), HasSubstr("remove it")));
  EXPECT_THAT(errorOf([&] { const Bell bell(folder(), "a/b", Bell::Role::ringer); }),
              HasSubstr("one path component"));
  EXPECT_THAT(errorOf([&] { const Bell bell(folder() + "/x/y", "up", Bell::Role::ringer); }),
              HasSubstr("make the folder above it"));
}

// Two threads as the two halves: the ringer stores work now and then, the listener sleeps in
// between. The pauses are drawn so that stores fall before, into and after the listener's arming.
TEST_F(Bells, LoseNoWakeUpBetweenTwoThreads) {
  constexpr std::uint64_t kWork = 20000;
  std::atomic<std::uint64_t> stored{0};
  std::atomic<std::uint64_t> seen{0};
  std::atomic<bool> lost{false};
  Bell listener(folder(), "up", Bell::Role::listener);
  Bell ringer(folder(), "up", Bell::Role::ringer);
  std::thread sleeper([&] {
    std::uint64_t done = 0;
    while (done < kWork && !lost) {
      if (!waitForWork(listener, [&] { return stored.load(std::memory_order_acquire) > done; })) {
        lost = true;
      }
      done = stored.load(std::memory_order_acquire);
      seen.store(done, std::memory_order_release);
    }
  });
  std::mt19937 random(7);
  for (std::uint64_t i = 1; i <= kWork && !lost; ++i) {
    stored.store(i, std::memory_order_release);
    ringer.ring();
    switch (random() % 4) {
      case 0:
        while (seen.load(std::memory_order_acquire) < i && !lost) {
          std::this_thread::yield();
        }
        break;
      case 1:
        for (unsigned spin = random() % 2000; spin != 0; --spin) {
          seen.load(std::memory_order_relaxed);
        }
        break;
      default:
        break;
    }
  }
  sleeper.join();
  EXPECT_FALSE(lost) << "the listener slept while work was there";
  EXPECT_EQ(seen, kWork);
  EXPECT_GT(ringer.wakeUps(), 1U);
}

// The one race that matters, over and over with both sides started at the same instant: the
// listener arms and looks, the ringer stores and rings. Either the listener sees the work or it
// finds itself rung.
TEST_F(Bells, NeverMissEachOtherWhenArmingAndRingingMeet) {
  constexpr std::uint32_t kRounds = 200000;
  constexpr std::uint32_t kStop = ~0U;
  // On a machine that is busy with other things every round waits for the scheduler: fewer must do.
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  struct alignas(64) Line {
    std::atomic<std::uint32_t> value{0};
  };
  const auto spinUntil = [](const Line& line, std::uint32_t goal) {
    for (unsigned spins = 1;; ++spins) {
      const std::uint32_t value = line.value.load(std::memory_order_acquire);
      if (value == goal || value == kStop) {
        return value;
      }
      if (spins % 1024 == 0) {
        std::this_thread::yield();  // the other side may have no processor of its own
      }
    }
  };
  Line round;  // both may start
  Line rungs;  // the last round that the ringer is through with
  Line work;
  Bell listener(folder(), "up", Bell::Role::listener);
  Bell ringer(folder(), "up", Bell::Role::ringer);
  listener.disarm();
  std::thread other([&] {
    for (std::uint32_t i = 1; spinUntil(round, i) != kStop; ++i) {
      work.value.store(i, std::memory_order_release);
      ringer.ring();
      rungs.value.store(i, std::memory_order_release);
    }
  });
  std::uint32_t missed = 0;
  std::uint32_t slept = 0;
  for (std::uint32_t i = 1; i <= kRounds && std::chrono::steady_clock::now() < end; ++i) {
    round.value.store(i, std::memory_order_release);
    for (unsigned delay = i % 512; delay != 0; --delay) {
      work.value.load(std::memory_order_relaxed);
    }
    listener.arm();
    const bool found = work.value.load(std::memory_order_acquire) == i;
    spinUntil(rungs, i);
    if (!found) {
      ++slept;
      missed += listener.armed() || !rung(listener) ? 1 : 0;
    }
    listener.disarm();
  }
  round.value.store(kStop, std::memory_order_release);
  other.join();
  EXPECT_EQ(missed, 0U) << "of " << slept << " rounds in which the listener would have slept";
}

// Memory that this process and its children share.
struct Shared {
  std::atomic<std::uint64_t> stored{0};
  std::atomic<std::uint64_t> seen{0};
};

[[noreturn]] void listenForEver(const std::string& folder, Shared& shared) {
  Bell bell(folder, "up", Bell::Role::listener);
  while (true) {
    if (!waitForWork(bell, [&] { return shared.stored > shared.seen; })) {
      _exit(1);
    }
    shared.seen = shared.stored.load();
  }
}

[[noreturn]] void ringForEver(const std::string& folder, Shared& shared) {
  Bell bell(folder, "up", Bell::Role::ringer);
  while (true) {
    ++shared.stored;
    bell.ring();
    usleep(50);
  }
}

TEST_F(Bells, SurviveTheKillOfEitherSide) {
  void* memory =
      mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(memory, MAP_FAILED);
  auto& shared = *new (memory) Shared;
  const auto start = [&](auto body) {
    const pid_t child = fork();
    if (child == 0) {
      body(folder(), shared);
    }
    return child;
  };
  const auto stop = [](pid_t child) {
    kill(child, SIGKILL);
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL)
        << "the child ended by itself, status " << status;
  };
  const auto reaches = [&](std::uint64_t goal) {
    for (int waited = 0; waited < kPatienceMilliseconds; ++waited) {
      if (shared.seen >= goal) {
        return true;
      }
      usleep(1000);
    }
    return false;
  };

  pid_t listener = start(listenForEver);
  pid_t ringer = start(ringForEver);
  std::mt19937 random(11);
  for (int round = 0; round < 40; ++round) {
    usleep(random() % 5000);
    if (random() % 2 == 0) {
      stop(listener);
      listener = start(listenForEver);
    } else {
      stop(ringer);
      ringer = start(ringForEver);
    }
    ASSERT_TRUE(reaches(shared.stored + 3)) << "round " << round;
  }
  // The last ringer dies in the middle of something; the next one's attaching heals what it left
  // unsaid.
  stop(ringer);
  const Bell healer(folder(), "up", Bell::Role::ringer);
  EXPECT_TRUE(reaches(shared.stored));
  stop(listener);
  munmap(memory, sizeof(Shared));
}

}  // namespace
