#include "Brio/InspectType.h"

#include <fmt/format.h>

#include <charconv>

namespace Brio::Impl {

bool inspectBool(const InspectValue& from, std::string_view name) {
  if (const bool* value = from.as<bool>()) {
    return *value;
  }
  throw InspectError(fmt::format("{}: {} is neither true nor false", name, from.text()));
}

std::uint64_t inspectNumber(const InspectValue& from, std::string_view name, std::uint64_t most) {
  std::uint64_t value = 0;
  if (const auto* number = from.as<std::uint64_t>()) {
    value = *number;
  } else {
    const auto* text = from.as<Lumen::String>();
    const char* end = text == nullptr ? nullptr : text->data() + text->size();
    if (text == nullptr || text->empty() ||
        std::from_chars(text->data(), end, value) != std::from_chars_result{end, std::errc()}) {
      throw InspectError(
          fmt::format("{}: {} is no number; give one from 0 to {}", name, from.text(), most));
    }
  }
  if (value > most) {
    throw InspectError(fmt::format("{}: {} is above the largest value, {}", name, value, most));
  }
  return value;
}

double inspectReal(const InspectValue& from, std::string_view name) {
  if (const auto* number = from.as<std::uint64_t>()) {
    return static_cast<double>(*number);
  }
  if (const auto* number = from.as<double>()) {
    return *number;
  }
  throw InspectError(fmt::format("{}: {} is no number", name, from.text()));
}

Lumen::String inspectText(const InspectValue& from, std::string_view name) {
  if (const auto* value = from.as<Lumen::String>()) {
    return *value;
  }
  throw InspectError(fmt::format("{}: {} is no text; put it in quotes", name, from.text()));
}

const InspectValue::Record& inspectRecord(const InspectValue& from, std::string_view name) {
  if (const auto* value = from.as<InspectValue::Record>()) {
    return *value;
  }
  throw InspectError(
      fmt::format("{}: {} is no record; name its fields as name=value", name, from.text()));
}

void inspectNoField(std::string_view name, std::string_view field, const Lumen::String& known) {
  throw InspectError(fmt::format("{}: no field '{}'; there are: {}", name, field,
                                 known.empty() ? Lumen::String("none") : known));
}

void inspectNotWritable(std::string_view name, std::string_view type) {
  throw InspectError(fmt::format("{}: a {} can't be given from outside", name, type));
}

void inspectRethrow(std::string_view name, const char* what) {
  throw InspectError(fmt::format("{}: {}", name, what));
}

Lumen::String inspectFieldName(std::string_view name, std::string_view field) {
  return fmt::format("{}.{}", name, field);
}

}  // namespace Brio::Impl
