#pragma once

#include <cstdint>

namespace Soak {

struct Settings {
  double seconds = 60;
  unsigned units = 2;
  std::uint64_t seed = 1;
  std::uint64_t rate = 0;   // intents a second at most; 0: as many as the agent takes
  double faultEvery = 0.4;  // seconds, in the mean
  double checkEvery = 5;    // seconds
  bool keep = false;        // the folder with all that the programs have written
  bool quiet = false;       // no progress
};

// Runs an agent and a hardware side as two processes over a store of their own, loads them with
// intents through the agent's socket, kills, stops and pauses them at random, and checks again and
// again that what was answered holds: in the configuration collections and on the chip, entry by
// entry. Prints what was done. Returns the exit status: 0 only if nothing was ever wrong. Throws
// std::runtime_error.
[[nodiscard]] int runSoak(const Settings& settings);

}  // namespace Soak
