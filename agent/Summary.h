#pragma once

#include <cstdint>
#include <string>

#include "agent/Intake.h"
#include "agent/Options.h"
#include "agent/Restart.h"

namespace Agent {

// What the run has done so far and where each table stands, as JSON: totals of the intents, and for
// each table and unit what Common::TableFigures holds, and what came of the replay. Costs a walk of
// all tables.
[[nodiscard]] std::string summaryText(const Options& options, const Intake& intake,
                                      const Restart& restart, std::uint64_t skipped);

// Writes it to `target`: a file, which is replaced as a whole, or "-", the standard output. False
// if that failed, which has been said then.
[[nodiscard]] bool writeSummary(const std::string& target, const std::string& text);

}  // namespace Agent
