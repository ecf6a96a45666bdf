#pragma once

#include <string>

#include "chip/CheckResult.h"
#include "chip/HardwareSide.h"

namespace Chip {

// What the hardware side has done and where it stands, as one JSON object. `check` may be null.
[[nodiscard]] std::string summaryJson(const HardwareSide& side, const CheckResult* check);

// The entries of the model, one JSON object a line: table, unit, the version that the entry is of,
// and the entry as the log has it, with its key.
[[nodiscard]] std::string modelJsonLines(const HardwareSide& side);

// Writes a file so that whoever reads it sees the old content or the new. Throws
// std::runtime_error, which names the file and the reason.
void writeWhole(const std::string& file, const std::string& content);

}  // namespace Chip
