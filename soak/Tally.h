#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "soak/Faults.h"

namespace Soak {

// What a soak has done and found.
struct Tally {
  double seconds = 0;
  std::uint64_t sent = 0;
  std::uint64_t succeeded = 0;
  std::uint64_t refused = 0;     // they named an entry that had gone with an agent
  std::uint64_t unanswered = 0;  // when the agent went
  std::uint64_t carriedOut = 0;  // keys that hold what such an intent asked for
  std::uint64_t dropped = 0;     // keys that hold what they held before
  std::uint64_t events = 0;      // of resources, that were carried out
  std::uint64_t eventsInVain = 0;
  std::uint64_t lives = 0;   // of the agent
  std::vector<double> back;  // ms from the agent's start until its replay was complete
  std::uint64_t checks = 0;
  std::uint64_t entries = 0;       // that were compared, on the chip and in the collections
  std::vector<std::string> wrong;  // what must not be, in words

  // One line, for a terminal.
  [[nodiscard]] std::string progress(const Faults& faults) const;
  [[nodiscard]] std::string text(const Faults& faults) const;
};

}  // namespace Soak
