#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "common/Json.h"

namespace Agent {

// Whether the params ask for a change.
[[nodiscard]] bool setsTrace(const Common::Json& params);

// The trace handles of the process, by name:
//
//   {"handles":[{"handle","levels":"1-3,8","mask":270}],"ring":PATH}
//
// `ring` is the file of the ring buffer, null without one. `params` may have `handle`, a name in
// which * stands for any text: only these are told; and `levels` with it, as KELP_TRACE has them,
// or "none": sets them first, also for handles that are made later. Throws Common::InputError for
// other params.
[[nodiscard]] nlohmann::ordered_json traceReport(const std::string& ring,
                                                 const Common::Json& params);

}  // namespace Agent
