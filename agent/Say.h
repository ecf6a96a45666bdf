#pragma once

#include <fmt/format.h>

#include <string>
#include <string_view>

namespace Agent {

// Writes a line to stderr, behind the program's name. Whether anybody reads it does not matter.
void sayText(std::string_view text) noexcept;

template <class... Args>
void say(fmt::format_string<const Args&...> format, const Args&... args) {
  sayText(fmt::format(format, args...));
}

}  // namespace Agent
