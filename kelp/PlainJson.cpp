#include "kelp/PlainJson.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <string_view>

#include "common/Json.h"

namespace Kelp {
namespace {

std::string printable(std::string_view text) {
  std::string shown;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    shown += byte < 0x20 || byte == 0x7f ? fmt::format("\\x{:02x}", byte) : std::string{c};
  }
  return shown;
}

// Between the members of an object: blanks at the top, commas in what is nested.
std::string membersText(const Json& object, std::string_view between) {
  std::string text;
  for (const auto& [name, value] : object.items()) {
    text += text.empty() ? "" : between;
    text += printable(name) + '=';
    text += value.is_object() && !value.contains("ref")
                ? fmt::format("{{{}}}", membersText(value, ","))
                : plainText(value);
  }
  return text;
}

}  // namespace

std::string plainText(const Json& value) {
  if (value.is_string()) {
    return printable(value.get_ref<const std::string&>());
  }
  if (value.is_null()) {
    return "none";
  }
  if (value.is_array()) {
    std::string text;
    for (const Json& one : value) {
      text += text.empty() ? "" : ", ";
      text += one.is_object() && !one.contains("ref") ? fmt::format("{{{}}}", membersText(one, ","))
                                                      : plainText(one);
    }
    return fmt::format("[{}]", text);
  }
  if (value.is_object()) {
    return value.size() == 1 && value.contains("ref") ? plainText(value["ref"])
                                                      : membersText(value, " ");
  }
  return value.dump();
}

std::string keyText(const Json& key) {
  if (key.is_object()) {
    return membersText(key, ",");
  }
  return key.is_string() ? key.dump(-1, ' ', false, Json::error_handler_t::replace)
                         : plainText(key);
}

Json argumentJson(const std::string& argument) {
  Json json = Json::parse(argument, nullptr, false);
  return json.is_discarded() ? Json(argument) : json;
}

Json keyArgument(const std::string& argument) {
  const std::size_t equals = argument.find('=');
  if (argument.empty() || argument.front() == '{' || equals == std::string::npos) {
    return argumentJson(argument);
  }
  Json key = Json::object();
  for (std::size_t at = 0; at <= argument.size();) {
    const std::size_t end = std::min(argument.find(',', at), argument.size());
    const std::string pair = argument.substr(at, end - at);
    at = end + 1;
    const std::size_t middle = pair.find('=');
    if (middle == std::string::npos || middle == 0 || middle + 1 == pair.size()) {
      throw Common::InputError(
          fmt::format("\"{}\" is no part of a key: write FIELD=VALUE,... or JSON", pair));
    }
    key[pair.substr(0, middle)] = argumentJson(pair.substr(middle + 1));
  }
  return key;
}

std::string durationText(double seconds) {
  if (seconds < 10) {
    return fmt::format("{:.1f} s", seconds);
  }
  if (seconds < 120) {
    return fmt::format("{:.0f} s", seconds);
  }
  if (seconds < 7200) {
    return fmt::format("{:.0f} min", seconds / 60);
  }
  return seconds < 172800 ? fmt::format("{:.0f} h", seconds / 3600)
                          : fmt::format("{:.0f} d", seconds / 86400);
}

std::string bytesText(std::uint64_t bytes) {
  constexpr std::array kUnits = {"KiB", "MiB", "GiB", "TiB"};
  if (bytes < 1024) {
    return fmt::format("{} B", bytes);
  }
  double value = static_cast<double>(bytes) / 1024;
  std::size_t unit = 0;
  while (value >= 1024 && unit + 1 < kUnits.size()) {
    value /= 1024;
    ++unit;
  }
  return fmt::format("{:.1f} {}", value, kUnits[unit]);
}

}  // namespace Kelp
