#pragma once

#include <cstdint>
#include <string>

#include "demo/Generator.h"

namespace Demo {

struct Settings {
  std::string file;  // intents of the user's own; empty: they are generated
  Plan plan;
  unsigned kills = 0;   // how often the programs are killed on the way
  std::string inspect;  // where the agent is inspected; empty: nowhere
  bool keep = false;    // the folder with all that the programs have written
  bool quiet = false;   // no progress
};

// Runs a switch: an agent and a hardware side as two processes over a store of their own, fed with
// intents; shows how far they are, then what came of it, and whether the chip holds exactly what it
// should: what the configuration collections hold, and what the intents add up to. With intents
// that are made up, and without kills, the agent is killed halfway and started again, and only what
// it still owed may reach the chip. Returns the exit status: 0 only if all of that is so, and every
// intent was carried out. Throws std::runtime_error.
[[nodiscard]] int runDemo(const Settings& settings);

}  // namespace Demo
