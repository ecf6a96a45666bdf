#pragma once

#include <algorithm>
#include <chrono>

namespace Agent {

// When inspection may work next. While the agent has work of its own, what inspection does is
// followed by a pause of kPause times its length, so that it takes a tenth of the loop's time;
// otherwise there are no pauses. None is longer than kLongestPause, whatever has come before it.
class InspectionPace {
 public:
  using Clock = std::chrono::steady_clock;

  static constexpr int kPause = 9;
  static constexpr std::chrono::milliseconds kLongestPause{1000};

  [[nodiscard]] Clock::time_point next() const noexcept { return next_; }
  // Inspection has worked until `now`, for `time`.
  void worked(Clock::time_point now, Clock::duration time, bool isBusy) {
    next_ = isBusy ? std::min(std::max(next_, now) + kPause * time, now + kLongestPause) : now;
  }

 private:
  Clock::time_point next_{};
};

}  // namespace Agent
