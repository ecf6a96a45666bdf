#include "BriskTrace/Clock.h"

#include <ctime>
#if defined(__x86_64__)
#include <cpuid.h>
#endif

namespace BriskTrace {
namespace {

std::uint64_t nanosecondsOf(clockid_t clock) noexcept {
  timespec time{};
  clock_gettime(clock, &time);
  return static_cast<std::uint64_t>(time.tv_sec) * 1'000'000'000 +
         static_cast<std::uint64_t>(time.tv_nsec);
}

bool hasSteadyCounter() noexcept {
#if defined(__x86_64__)
  unsigned eax = 0;
  unsigned ebx = 0;
  unsigned ecx = 0;
  unsigned edx = 0;
  return __get_cpuid(0x80000007U, &eax, &ebx, &ecx, &edx) != 0 && (edx & (1U << 8)) != 0;
#else
  return false;
#endif
}

std::uint64_t measuredRate() noexcept {
  constexpr std::uint64_t kSpan = 2'000'000;
  const std::uint64_t startTime = nanosecondsOf(CLOCK_MONOTONIC);
  const std::uint64_t startTicks = Clock::ticks();
  std::uint64_t time = startTime;
  while (time - startTime < kSpan) {
    time = nanosecondsOf(CLOCK_MONOTONIC);
  }
  const std::uint64_t ticks = Clock::ticks() - startTicks;
  return static_cast<std::uint64_t>(static_cast<double>(ticks) * 1e9 /
                                    static_cast<double>(time - startTime));
}

}  // namespace

const bool Clock::kHasSteadyCounter = hasSteadyCounter();

std::uint64_t Clock::ticksPerSecond() noexcept {
  static const std::uint64_t rate = measuredRate();
  return rate;
}

Clock::Pair Clock::now() noexcept {
  const std::uint64_t before = ticks();
  const std::uint64_t time = nanosecondsOf(CLOCK_REALTIME);
  const std::uint64_t after = ticks();
  return {before + (after - before) / 2, time};
}

std::uint64_t Clock::monotonicNanoseconds() noexcept { return nanosecondsOf(CLOCK_MONOTONIC); }

}  // namespace BriskTrace
