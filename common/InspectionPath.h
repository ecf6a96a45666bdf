#pragma once

#include <string>

namespace Common {

// Where the agent of a store listens for inspection unless told otherwise: inspect.sock in the
// folder of the store, which is its user's own.
[[nodiscard]] std::string inspectionPath(const std::string& root, const std::string& name);

}  // namespace Common
