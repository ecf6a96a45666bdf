#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "Asic/UnitId.h"
#include "Brio/TraceHandle.h"
#include "BrioSharedMem/Bell.h"
#include "BriskTrace/Report.h"
#include "Lumen/SlabAlloc.h"
#include "Lumen/Trace.h"

// What the platform's services cost. Each line is the best of some rounds, taken in turns with all
// others so that a drift of the machine's speed meets all alike, and stands as a ratio to a peer of
// the same run.

namespace {

constexpr int kRounds = 15;

// Keeps a number or pointer, and what leads to it, from being optimised away.
template <class T>
void keep(T& value) {
  asm volatile("" : "+r"(value) : : "memory");
}

struct Case {
  std::string name;
  std::uint64_t operations;
  std::function<void(std::uint64_t)> run;
  double best = 1e30;  // nanoseconds an operation
};

void measure(std::vector<Case>& cases) {
  for (int round = 0; round < kRounds; ++round) {
    for (Case& one : cases) {
      const auto start = std::chrono::steady_clock::now();
      one.run(one.operations);
      const std::chrono::duration<double, std::nano> took =
          std::chrono::steady_clock::now() - start;
      one.best = std::min(one.best, took.count() / static_cast<double>(one.operations));
    }
  }
}

void print(const char* title, const std::vector<Case>& cases) {
  fmt::print("\n{}\n", title);
  for (const Case& one : cases) {
    fmt::print("  {:<52} {:8.2f} ns   {:5.2f} of the first\n", one.name, one.best,
               one.best / cases.front().best);
  }
}

Brio::TraceHandle& traceHandle() {
  static Brio::TraceHandle handle("ServicesBench", true);
  return handle;
}

// Blocks come and go in pairs, as the objects of one write do.
template <class Alloc, class Free>
void pairs(std::uint64_t operations, std::size_t bytes, Alloc alloc, Free release) {
  constexpr std::uint64_t kHeld = 16;
  void* held[kHeld];
  for (std::uint64_t done = 0; done < operations; done += kHeld) {
    for (void*& block : held) {
      block = alloc(bytes);
      keep(block);
    }
    for (void* block : held) {
      release(block, bytes);
    }
  }
}

void* mallocBlock(std::size_t bytes) { return std::malloc(bytes); }
void freeBlock(void* memory, std::size_t) { std::free(memory); }

void reportTo(BriskTrace::TraceHandle* handle, std::uint64_t operations, bool twoArguments) {
  BriskTrace::defaultBriskTraceHandle = handle;
  const Asic::UnitId unit{3};
  for (std::uint64_t i = 0; i < operations; ++i) {
    const auto count = static_cast<std::uint32_t>(i);
    if (twoArguments) {
      static BriskTrace::Site site;
      BriskTrace::report(site, "Bench", "two", "Restored {} entries, unitId: {}", count, unit);
    } else {
      static BriskTrace::Site site;
      BriskTrace::report(site, "Bench", "one", "Swept {} entries", count);
    }
  }
  BriskTrace::defaultBriskTraceHandle = nullptr;
}

std::string scratchFolder() {
  // The trace's own ground is a file in memory, as an agent's is.
  std::string folder = std::filesystem::is_directory("/dev/shm") ? "/dev/shm" : "/tmp";
  folder += fmt::format("/kelp-services-bench-{}", ::getpid());
  std::filesystem::create_directories(folder);
  return folder;
}

}  // namespace

int main() {
  const std::string folder = scratchFolder();
  {
    std::vector<Case> cases;
    cases.push_back({"an addition in a loop", 20'000'000, [](std::uint64_t operations) {
                       std::uint64_t sum = 0;
                       for (std::uint64_t i = 0; i < operations; ++i) {
                         sum += i;
                         keep(sum);
                       }
                     }});
    cases.push_back({"the same, and a trace that is off", 20'000'000, [](std::uint64_t operations) {
                       const Brio::TraceHandle& handle = traceHandle();
                       std::uint64_t sum = 0;
                       for (std::uint64_t i = 0; i < operations; ++i) {
                         sum += i;
                         keep(sum);
                         LUMEN_TRACE(handle, 8, "Bench", " key: {} unitId:{}", sum, i);
                       }
                     }});
    cases.push_back(
        {"the same, and a report to no ring buffer", 20'000'000, [](std::uint64_t operations) {
           std::uint64_t sum = 0;
           for (std::uint64_t i = 0; i < operations; ++i) {
             sum += i;
             keep(sum);
             static BriskTrace::Site site;
             BriskTrace::report(site, "Bench", "none", "{}", sum);
           }
         }});
    measure(cases);
    print("Traces that are off (goal: 1 ns more than without)", cases);
  }
  {
    BriskTrace::TraceHandle own(folder + "/own.brisk");
    BriskTrace::TraceHandle shared(folder + "/shared.brisk", {16384, 0, true});
    std::vector<Case> cases;
    cases.push_back({"reading the clock (CLOCK_REALTIME)", 1'000'000, [](std::uint64_t operations) {
                       for (std::uint64_t i = 0; i < operations; ++i) {
                         timespec now{};
                         clock_gettime(CLOCK_REALTIME, &now);
                         keep(now.tv_nsec);
                       }
                     }});
    cases.push_back({"reading the ticks of a message", 1'000'000, [](std::uint64_t operations) {
                       for (std::uint64_t i = 0; i < operations; ++i) {
                         std::uint64_t ticks = BriskTrace::Clock::ticks();
                         keep(ticks);
                       }
                     }});
    cases.push_back({"a report of one argument", 1'000'000,
                     [&](std::uint64_t operations) { reportTo(&own, operations, false); }});
    cases.push_back({"a report of two arguments", 1'000'000,
                     [&](std::uint64_t operations) { reportTo(&own, operations, true); }});
    cases.push_back({"the same, multi-threaded handle, no second thread", 1'000'000,
                     [&](std::uint64_t operations) { reportTo(&shared, operations, true); }});
    cases.push_back({"the text alone, formatted", 1'000'000, [](std::uint64_t operations) {
                       fmt::memory_buffer text;
                       for (std::uint64_t i = 0; i < operations; ++i) {
                         text.clear();
                         fmt::format_to(fmt::appender(text), "Restored {} entries, unitId: {}", i,
                                        3);
                         const char* data = text.data();
                         keep(data);
                       }
                     }});
    measure(cases);
    print("Ring-buffer trace (goal: a report under 20 ns)", cases);
  }
  {
    std::vector<Case> cases;
    for (const std::size_t bytes : {48U, 192U, 512U}) {
      cases.push_back({fmt::format("malloc and free, {} bytes", bytes), 4'000'000,
                       [bytes](std::uint64_t operations) {
                         pairs(operations, bytes, mallocBlock, freeBlock);
                       }});
      cases.push_back(
          {fmt::format("slab, {} bytes", bytes), 4'000'000, [bytes](std::uint64_t operations) {
             pairs(operations, bytes, PoolSlab::slabAllocOrStdMalloc, PoolSlab::slabFreeOrStdFree);
           }});
    }
    measure(cases);
    print("One allocation and its release", cases);
  }
  {
    using BrioSharedMem::Bell;
    Bell listener(folder, "bench", Bell::Role::listener);
    Bell ringer(folder, "bench", Bell::Role::ringer);
    std::vector<Case> cases;
    cases.push_back({"ring() at a busy listener", 4'000'000, [&](std::uint64_t operations) {
                       listener.disarm();
                       for (std::uint64_t i = 0; i < operations; ++i) {
                         ringer.ring();
                       }
                     }});
    cases.push_back(
        {"arm(), ring() and disarm(): a wake-up", 100'000, [&](std::uint64_t operations) {
           for (std::uint64_t i = 0; i < operations; ++i) {
             listener.arm();
             ringer.ring();
             listener.disarm();
           }
         }});
    measure(cases);
    print("The bell", cases);
  }
  std::filesystem::remove_all(folder);
  return 0;
}
