#pragma once

#include <cstdint>
#if defined(__x86_64__)
#include <x86intrin.h>
#endif

namespace BriskTrace {

// The time of a message: the processor's time stamp counter where it runs at one rate on all cores
// and through all sleep states, else the monotonic clock. The counter costs a third of a call to
// the clock and tells messages apart that the coarse clock would give one time; what a tick is
// worth is measured, and read against UTC again about once a second by whoever writes.
class Clock {
 public:
  [[nodiscard]] static std::uint64_t ticks() noexcept {
#if defined(__x86_64__)
    if (kHasSteadyCounter) [[likely]] {
      return __rdtsc();
    }
#endif
    return monotonicNanoseconds();
  }
  // Measured at the first call, which takes 2 ms.
  [[nodiscard]] static std::uint64_t ticksPerSecond() noexcept;

  // Ticks and UTC (nanoseconds since 1970), read as close together as can be.
  struct Pair {
    std::uint64_t ticks;
    std::uint64_t nanoseconds;
  };
  [[nodiscard]] static Pair now() noexcept;

 private:
  [[nodiscard]] static std::uint64_t monotonicNanoseconds() noexcept;

  static const bool kHasSteadyCounter;
};

}  // namespace BriskTrace
