#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>

#include "agent/Intake.h"
#include "agent/Options.h"
#include "agent/Store.h"

namespace Agent {

// What the loop of the agent has counted.
struct LoopFigures {
  std::chrono::steady_clock::time_point started;
  std::uint64_t passes = 0;  // of the resolver
  std::uint64_t linesSkipped = 0;
  std::size_t peers = 0;  // of the socket of intents, and of that of inspection
  std::size_t inspectionPeers = 0;
};

// Every counter of the agent; docs/inspection.md tells what is in it. Costs a look at all intents
// in flight.
[[nodiscard]] nlohmann::ordered_json statsReport(const Options& options, const Store& store,
                                                 const Intake& intake, const LoopFigures& loop);

}  // namespace Agent
