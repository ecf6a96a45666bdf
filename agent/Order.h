#pragma once

#include <string_view>

namespace Agent {

// Whether a line is the word that all has been written again that is still wanted, which is no
// intent: {"op":"replayComplete"}. Throws Common::InputError if something else stands in it.
[[nodiscard]] bool isReplayComplete(std::string_view line);

}  // namespace Agent
