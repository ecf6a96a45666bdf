#pragma once

#include <fmt/format.h>

#include <algorithm>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <vector>

#include "Brio/Array.h"
#include "Brio/Fields.h"
#include "Netkit/IntfId.h"
#include "common/Json.h"

// Values with named fields as JSON, both ways, from the one list of fields that each type has. The
// form of a value follows from its type:
//
//   whole number               a number, no larger than the field allows
//   enumeration                its name: "push"
//   interface (IntfId)         its name: "Ethernet3/1.100"
//   array by an enumeration    an object by the names of the enumerators; what is left out is a
//                              default element
//   record                     an object by the names of its fields; a record of a single field is
//                              written as that field alone
//
// Written text holds every field of a record, and only those elements of an array that are not
// default ones. What was written reads back as the same value.

namespace Common {

// What a field that the input leaves out means.
enum class Absent : std::uint8_t { refused, keepsItsValue };

// Whether T is an array, and then of what.
template <class T>
struct ArrayOf {
  static constexpr bool is = false;
};
template <class T, class Index, std::size_t N, std::size_t First>
struct ArrayOf<Brio::Array<T, Index, N, First>> {
  static constexpr bool is = true;
  using Element = T;
  // The name of the element at `position`.
  [[nodiscard]] static std::string_view nameOf(std::size_t position) {
    return name(static_cast<Index>(First + position));
  }
};

template <Brio::HasFields T>
inline constexpr std::size_t kFieldCount = std::tuple_size_v<decltype(T::fields())>;

// The names of a record's fields, in declared order.
template <Brio::HasFields T>
[[nodiscard]] std::vector<std::string_view> fieldNames() {
  std::vector<std::string_view> names;
  Brio::forEachField<T>([&](const auto& field) { names.push_back(field.name); });
  return names;
}

// Adds a value as JSON text.
template <class T>
void appendJson(std::string& out, const T& value) {
  if constexpr (std::is_integral_v<T>) {
    fmt::format_to(std::back_inserter(out), "{}", value);
  } else if constexpr (std::is_enum_v<T>) {
    appendString(out, name(value));
  } else if constexpr (std::same_as<T, Netkit::IntfId>) {
    appendString(out, value.name());
  } else if constexpr (ArrayOf<T>::is) {
    out += '{';
    bool first = true;
    for (std::size_t i = 0; i < T::size(); ++i) {
      if (value.elements[i] == typename ArrayOf<T>::Element()) {
        continue;
      }
      out += first ? "" : ",";
      first = false;
      appendString(out, ArrayOf<T>::nameOf(i));
      out += ':';
      appendJson(out, value.elements[i]);
    }
    out += '}';
  } else if constexpr (kFieldCount<T> == 1) {
    appendJson(out, value.*std::get<0>(T::fields()).member);
  } else {
    out += '{';
    bool first = true;
    Brio::forEachField<T>([&](const auto& field) {
      out += first ? "" : ",";
      first = false;
      appendString(out, field.name);
      out += ':';
      appendJson(out, value.*field.member);
    });
    out += '}';
  }
}
// The same as a string of its own.
template <class T>
[[nodiscard]] std::string jsonText(const T& value) {
  std::string text;
  appendJson(text, value);
  return text;
}

// What to write in the place of a T, for messages.
template <class T>
[[nodiscard]] std::string remedyFor(std::uint64_t most) {
  if constexpr (std::is_integral_v<T>) {
    return fmt::format("write a whole number from 0 to {}", most);
  } else if constexpr (std::is_enum_v<T>) {
    std::vector<std::string_view> names;
    for (std::uint64_t i = 0; i <= most; ++i) {
      names.push_back(name(static_cast<T>(i)));
    }
    return "write " + choiceText(names);
  } else if constexpr (std::same_as<T, Netkit::IntfId>) {
    return "write an interface name such as \"Ethernet3/1.100\"";
  } else if constexpr (ArrayOf<T>::is) {
    return "write an object";
  } else {
    return "write an object with " + listText(fieldNames<T>());
  }
}

template <Brio::HasFields T>
void readFields(const Json& json, T& value, const Place& place, Absent absent);

// Reads a value whose field allows numbers up to `most`. Throws InputError, which names the place,
// what is wrong there and what is allowed; the value may be changed in part then.
template <class T>
void readJson(const Json& json, T& value, const Place& place, std::uint64_t most) {
  if constexpr (std::is_integral_v<T>) {
    value = static_cast<T>(readNumber(json, place, most));
  } else if constexpr (std::is_enum_v<T>) {
    if (json.is_string()) {
      for (std::uint64_t i = 0; i <= most; ++i) {
        if (name(static_cast<T>(i)) == json.get_ref<const std::string&>()) {
          value = static_cast<T>(i);
          return;
        }
      }
    }
    failValue(place, json, remedyFor<T>(most));
  } else if constexpr (std::same_as<T, Netkit::IntfId>) {
    try {
      value = Netkit::IntfId::fromName(
          readString(json, place, "an interface name such as \"Ethernet3/1.100\""));
    } catch (const std::invalid_argument& error) {
      throw InputError(fmt::format("{}: {}; {}", place.text(), error.what(), remedyFor<T>(most)));
    }
  } else if constexpr (ArrayOf<T>::is) {
    checkObject(json, place);
    for (const auto& [elementName, element] : json.items()) {
      const Place inner{elementName, &place};
      std::size_t at = 0;
      while (at < T::size() && ArrayOf<T>::nameOf(at) != elementName) {
        ++at;
      }
      if (at == T::size()) {
        std::vector<std::string_view> names;
        for (std::size_t i = 0; i < T::size(); ++i) {
          names.push_back(ArrayOf<T>::nameOf(i));
        }
        failAt(inner, "unknown", "write " + choiceText(names));
      }
      readJson(element, value.elements[at], inner, 0);
    }
  } else if constexpr (kFieldCount<T> == 1) {
    const auto field = std::get<0>(T::fields());
    readJson(json, value.*field.member, place, field.most);
  } else {
    readFields(json, value, place, Absent::keepsItsValue);
  }
}

// Reads the fields of a record, which stand in the object `json` by their names.
template <Brio::HasFields T>
void readFields(const Json& json, T& value, const Place& place, Absent absent) {
  checkObject(json, place);
  checkNames(json, fieldNames<T>(), place);
  Brio::forEachField<T>([&](const auto& field) {
    using Member = std::remove_cvref_t<decltype(value.*field.member)>;
    const Place inner{field.name, &place};
    const auto found = json.find(field.name);
    if (found != json.end()) {
      readJson(*found, value.*field.member, inner, field.most);
    } else if (absent == Absent::refused) {
      failAt(inner, "missing", remedyFor<Member>(field.most));
    }
  });
}

}  // namespace Common
