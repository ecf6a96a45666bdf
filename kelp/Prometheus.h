#pragma once

#include <string>

#include "kelp/AgentClient.h"

namespace Kelp {

// Adds what the method "stats" gives as metrics in the text format of Prometheus, version 0.0.4.
// What the agent does not tell is left out.
void appendMetrics(std::string& out, const Json& stats);

}  // namespace Kelp
