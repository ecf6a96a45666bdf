#include "agent/InspectionJson.h"

#include <fmt/format.h>

#include <cmath>
#include <iterator>
#include <type_traits>

#include "agent/InspectionError.h"
#include "common/JsonRpc.h"

namespace Agent {

using Brio::InspectValue;
using Common::Json;

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

InspectValue toInspectValue(const Json& json, const std::string& name,
                            const ObjectAtPath& objectAt) {
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
        list.push_back(toInspectValue(element, fmt::format("{}[{}]", name, list.size()), objectAt));
      }
      return list;
    }
    case Json::value_t::object: {
      const auto ref = json.find("ref");
      if (json.size() == 1 && ref != json.end() && ref->is_string()) {
        return objectAt(ref->get_ref<const std::string&>());
      }
      InspectValue::Record record;
      record.reserve(json.size());
      for (const auto& [field, value] : json.items()) {
        record.emplace_back(field,
                            toInspectValue(value, fmt::format("{}.{}", name, field), objectAt));
      }
      return record;
    }
    case Json::value_t::number_integer:
      throw InspectionError(Common::JsonRpc::kWrongParams,
                            fmt::format("{}: {} is negative: write a number from 0 on", name,
                                        json.get<std::int64_t>()));
    default:
      return {};
  }
}

}  // namespace Agent
