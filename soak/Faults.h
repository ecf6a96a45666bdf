#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <random>

#include "soak/Programs.h"

namespace Soak {

// What befalls the programs, at random: one after the other, now and then one close behind another,
// so that a program is hit while it starts over.
class Faults {
 public:
  using Clock = Programs::Clock;

  enum class Kind : std::uint8_t {
    killAgent,
    killChip,
    killBoth,
    stopAgent,  // with SIGTERM
    pauseAgent,
    pauseChip,
  };
  static constexpr std::size_t kKinds = 6;

  // `mean`: of the time from one to the next.
  Faults(std::uint64_t seed, Clock::duration mean) : random_(seed), mean_(mean) {}

  // The first comes after `now`; from then on strikeIfDue() has them happen.
  void resumeAt(Clock::time_point now) { aim(now); }
  void strikeIfDue(Clock::time_point now, Programs& programs);

  // How many of each kind have happened.
  [[nodiscard]] std::uint64_t count(Kind kind) const {
    return counts_[static_cast<std::size_t>(kind)];
  }

 private:
  void aim(Clock::time_point now);
  [[nodiscard]] Clock::duration upTo(Clock::duration most);

  std::mt19937_64 random_;
  Clock::duration mean_;
  Clock::time_point next_;
  std::array<std::uint64_t, kKinds> counts_{};
};

}  // namespace Soak
