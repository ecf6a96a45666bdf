#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <nlohmann/json.hpp>
#include <vector>

#include "agent/Intake.h"
#include "common/Json.h"

namespace Agent {

// Remembers at which version the log of each table was, second by second, so that a version can be
// told from a time: neither records nor entries carry one.
class VersionHistory {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::seconds kStep{1};
  static constexpr std::size_t kMost = 3600;  // steps that are remembered

  explicit VersionHistory(const Intake& intake);

  // To be called now and then, at least once a kStep. Notes nothing if there is less to it.
  void look(Clock::time_point now);

  // Where the logs were:
  //
  //   {"seconds":S,"since":TIME,"tables":[{"table","from":V,"to":W}]}
  //
  // At the time `since`, `seconds` ago, the log was at version `from`, and is at `to` now.
  // `params` may have `seconds`, of which the answer is the nearest that is not less and that is
  // remembered; 60 if left out. Throws Common::InputError for other params.
  [[nodiscard]] nlohmann::ordered_json report(const Common::Json& params) const;

 private:
  struct Step {
    Clock::time_point time;
    std::vector<std::uint64_t> versions;  // by table
  };

  [[nodiscard]] std::vector<std::uint64_t> versions() const;

  const Intake& intake_;
  std::deque<Step> steps_;
};

}  // namespace Agent
