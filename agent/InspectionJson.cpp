#include "agent/InspectionJson.h"

#include <fmt/format.h>

#include <cmath>
#include <cstddef>
#include <iterator>
#include <type_traits>

#include "agent/InspectionError.h"
#include "common/JsonRpc.h"

namespace Agent {

using Brio::InspectValue;
using Common::Json;

namespace {

// Where in a value another one stands; put into words only if something is wrong there.
struct Place {
  std::string_view name;  // null: an element
  std::size_t index = 0;
  const Place* outer = nullptr;

  [[nodiscard]] std::string text() const {
    if (outer == nullptr) {
      return std::string(name);
    }
    return outer->text() +
           (name.data() == nullptr ? fmt::format("[{}]", index) : fmt::format(".{}", name));
  }
};

[[noreturn]] void fail(const Place& place, std::string_view wrong, std::string_view remedy) {
  throw InspectionError(Common::JsonRpc::kWrongParams,
                        fmt::format("{}: {}: {}", place.text(), wrong, remedy));
}

InspectValue valueAt(const Json& json, const Place& place) {
  switch (json.type()) {
    case Json::value_t::boolean:
      return json.get<bool>();
    case Json::value_t::number_unsigned:
      return json.get<std::uint64_t>();
    case Json::value_t::number_float:
      return json.get<double>();
    case Json::value_t::string:
      return json.get_ref<const std::string&>();
    case Json::value_t::array: {
      InspectValue::List list;
      list.reserve(json.size());
      for (const Json& element : json) {
        list.push_back(valueAt(element, {{}, list.size(), &place}));
      }
      return list;
    }
    case Json::value_t::object: {
      if (refOf(json) != nullptr) {
        fail(place, "no place for an object", "only an argument itself can be one");
      }
      InspectValue::Record record;
      record.reserve(json.size());
      for (const auto& [field, value] : json.items()) {
        record.emplace_back(field, valueAt(value, {field, 0, &place}));
      }
      return record;
    }
    case Json::value_t::number_integer:
      fail(place, fmt::format("{} is negative", json.get<std::int64_t>()),
           "write a number from 0 on");
    default:
      return {};
  }
}

}  // namespace

void appendInspectValue(std::string& out, const InspectValue& value, const PathOfObject& pathOf) {
  value.visit([&](const auto& given) {
    using T = std::remove_cvref_t<decltype(given)>;
    if constexpr (std::is_same_v<T, std::monostate>) {
      out += "null";
    } else if constexpr (std::is_same_v<T, bool>) {
      out += given ? "true" : "false";
    } else if constexpr (std::is_same_v<T, std::uint64_t>) {
      const fmt::format_int digits(given);
      out.append(digits.data(), digits.size());
    } else if constexpr (std::is_same_v<T, double>) {
      out += std::isfinite(given) ? fmt::format("{}", given) : "null";
    } else if constexpr (std::is_same_v<T, Lumen::String>) {
      Common::appendString(out, given);
    } else if constexpr (std::is_same_v<T, InspectValue::NodePtr>) {
      if (!given) {
        out += "null";
        return;
      }
      const std::string path = pathOf(given);
      out += R"({"ref":)";
      Common::appendString(out, path);
      out += '}';
    } else if constexpr (std::is_same_v<T, InspectValue::Record>) {
      char before = '{';
      for (const auto& [name, field] : given) {
        out += before;
        before = ',';
        out += '"';
        out += name;  // an identifier of the source
        out += "\":";
        appendInspectValue(out, field, pathOf);
      }
      out += given.empty() ? "{}" : "}";
    } else {
      char before = '[';
      for (const InspectValue& element : given) {
        out += before;
        before = ',';
        appendInspectValue(out, element, pathOf);
      }
      out += given.empty() ? "[]" : "]";
    }
  });
}

const std::string* refOf(const Json& json) {
  if (!json.is_object() || json.size() != 1 || json.begin().key() != "ref") {
    return nullptr;
  }
  return json.begin()->get_ptr<const std::string*>();
}

InspectValue toInspectValue(const Json& json, std::string_view name) {
  return valueAt(json, {name});
}

}  // namespace Agent
