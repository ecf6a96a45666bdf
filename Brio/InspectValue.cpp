#include "Brio/InspectValue.h"

#include <fmt/format.h>

#include <type_traits>

namespace Brio {

InspectError::~InspectError() = default;
InspectSyntaxError::~InspectSyntaxError() = default;

const InspectValue* InspectValue::field(std::string_view name) const noexcept {
  if (const Record* record = as<Record>()) {
    for (const auto& [fieldName, value] : *record) {
      if (fieldName == name) {
        return &value;
      }
    }
  }
  return nullptr;
}

Lumen::String InspectValue::text() const {
  return visit([](const auto& value) -> Lumen::String {
    using T = std::remove_cvref_t<decltype(value)>;
    if constexpr (std::is_same_v<T, std::monostate>) {
      return "null";
    } else if constexpr (std::is_same_v<T, Lumen::String>) {
      Lumen::String text = "\"";
      for (const char character : value) {
        text += character == '"' || character == '\\' ? "\\" : "";
        text += character;
      }
      return text + '"';
    } else if constexpr (std::is_same_v<T, NodePtr>) {
      return value ? Lumen::String(value->typeData().className) : "null";
    } else if constexpr (std::is_same_v<T, Record>) {
      Lumen::String text = "{";
      for (const auto& [name, field] : value) {
        text += fmt::format("{}{}={}", text.size() > 1 ? "," : "", name, field.text());
      }
      return text + "}";
    } else if constexpr (std::is_same_v<T, List>) {
      Lumen::String text = "[";
      for (const InspectValue& element : value) {
        text += fmt::format("{}{}", text.size() > 1 ? "," : "", element.text());
      }
      return text + "]";
    } else {
      return fmt::format("{}", value);
    }
  });
}

}  // namespace Brio
