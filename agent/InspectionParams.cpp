#include "agent/InspectionParams.h"

#include <fmt/format.h>

#include <algorithm>
#include <limits>
#include <vector>

#include "agent/InspectionError.h"
#include "common/JsonRpc.h"

namespace Agent {

using Common::Json;

namespace {

[[noreturn]] void fail(std::string_view name, std::string_view wrong, std::string_view remedy) {
  throw InspectionError(Common::JsonRpc::kWrongParams,
                        Common::InputError(fmt::format("{}: {}: {}", name, wrong, remedy)).what());
}

}  // namespace

InspectionParams::InspectionParams(const Json& json, std::initializer_list<std::string_view> known)
    : json_(json) {
  for (const auto& [name, value] : json.items()) {
    if (std::find(known.begin(), known.end(), name) == known.end()) {
      fail(name, "no param of this method",
           known.size() == 0
               ? std::string("leave it out")
               : fmt::format("leave it out, or write {}", Common::choiceText(std::vector(known))));
    }
  }
}

bool InspectionParams::has(std::string_view name) const {
  return json_.is_object() && json_.contains(name);
}

const Json& InspectionParams::required(std::string_view name, std::string_view what) const {
  if (!has(name)) {
    fail(name, "missing", fmt::format("write {}", what));
  }
  return json_[name];
}

const Json& InspectionParams::value(std::string_view name) const {
  return required(name, "a value");
}

const std::string& InspectionParams::text(std::string_view name) const {
  const Json& value = required(name, "a string");
  if (!value.is_string()) {
    fail(name, value.type_name(), "write a string");
  }
  return value.get_ref<const std::string&>();
}

std::uint64_t InspectionParams::number(std::string_view name, std::uint64_t least,
                                       std::uint64_t most) const {
  const std::string remedy = most == std::numeric_limits<std::uint64_t>::max()
                                 ? std::string("write the number that was given")
                                 : fmt::format("write a whole number from {} to {}", least, most);
  const Json& value = required(name, "a number");
  if (!value.is_number_unsigned()) {
    fail(name, "no whole number", remedy);
  }
  const auto number = value.get<std::uint64_t>();
  if (number < least || number > most) {
    fail(name, fmt::format("{} is out of range", number), remedy);
  }
  return number;
}

std::uint64_t InspectionParams::number(std::string_view name, std::uint64_t least,
                                       std::uint64_t most, std::uint64_t otherwise) const {
  return has(name) ? number(name, least, most) : otherwise;
}

const Json& InspectionParams::list(std::string_view name) const {
  const Json& value = required(name, "a list");
  if (!value.is_array()) {
    fail(name, value.type_name(), "write a list, [...]");
  }
  return value;
}

}  // namespace Agent
