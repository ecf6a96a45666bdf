#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <random>
#include <string>

#include "common/Intent.h"

namespace Soak {

// What operators and hardware do to the resources that intents name: now and then one gets another
// index, or is being prepared for a while.
class Events {
 public:
  explicit Events(std::uint64_t seed) : random_(seed) {}

  // An intent goes out, `number` of all. The event that comes before it, as a line; mostly none.
  [[nodiscard]] std::optional<std::string> before(const Common::Intent& intent,
                                                  std::uint64_t number);
  // What has been prepared for long enough by the time of so many turns, and with `all` whatever is
  // being prepared, is ready: the next line that says so.
  [[nodiscard]] std::optional<std::string> ready(std::uint64_t turn, bool all);
  // The agent has gone, and with it what it was told.
  void forget() { preparing_.clear(); }
  [[nodiscard]] bool prepares() const noexcept { return !preparing_.empty(); }

 private:
  static constexpr std::uint64_t kOneIn = 50;  // intents comes with an event
  static constexpr std::uint64_t kTurns = 30;

  struct Preparing {
    std::string resource;
    std::uint64_t since;  // turn
  };

  std::mt19937_64 random_;
  std::deque<Preparing> preparing_;
  std::uint64_t turn_ = 0;
};

}  // namespace Soak
