#pragma once

#include <cstdint>
#include <string>

#include "kelp/AgentClient.h"

// What an agent tells, for people.

namespace Kelp {

// One line: a string without quotes, {"a":1,"b":[2]} as a=1 b=[2], an object as its path, null as
// "none". Control characters are shown as \xNN.
[[nodiscard]] std::string plainText(const Json& value);
// A key as it stands in a path: port=3,vlan=100, or 3, or "text".
[[nodiscard]] std::string keyText(const Json& key);
// The JSON that an argument of the command line is, or the string that it is if it is none.
[[nodiscard]] Json argumentJson(const std::string& argument);
// A key of an argument: JSON, or FIELD=VALUE,... as an object, or a string.
[[nodiscard]] Json keyArgument(const std::string& argument);
// "0.3 s", "12 s", "3 min", "5 h", "2 d".
[[nodiscard]] std::string durationText(double seconds);
// "1.2 MiB".
[[nodiscard]] std::string bytesText(std::uint64_t bytes);

}  // namespace Kelp
