#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <new>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <vector>

#include "Brio/Fields.h"
#include "Brio/InspectValue.h"
#include "Lumen/String.h"
#include "Lumen/TypeName.h"

namespace Brio {

namespace Impl {

// What a value is taken from: each gives it in the type asked for, or throws InspectError that
// names the field.
[[nodiscard]] bool inspectBool(const InspectValue& from, std::string_view name);
[[nodiscard]] std::uint64_t inspectNumber(const InspectValue& from, std::string_view name,
                                          std::uint64_t most);
[[nodiscard]] double inspectReal(const InspectValue& from, std::string_view name);
[[nodiscard]] Lumen::String inspectText(const InspectValue& from, std::string_view name);
[[nodiscard]] const InspectValue::Record& inspectRecord(const InspectValue& from,
                                                        std::string_view name);
[[noreturn]] void inspectNoField(std::string_view name, std::string_view field,
                                 const Lumen::String& known);
[[noreturn]] void inspectNotWritable(std::string_view name, std::string_view type);
[[noreturn]] void inspectRethrow(std::string_view name, const char* what);
[[nodiscard]] Lumen::String inspectFieldName(std::string_view name, std::string_view field);

}  // namespace Impl

// A value that people know by name.
template <class V>
concept HasNames = requires(const V& value, const Lumen::String& name) {
  V::fromName(name);
  value.name();
};
// A number with a type of its own.
template <class V>
concept WrapsNumber = !HasFields<V> && !HasNames<V> && requires(const V& value) {
  requires std::is_integral_v<std::remove_cvref_t<decltype(value.value)>>;
};
// Any number of values, one behind the other.
template <class V>
concept IsList = std::is_same_v<V, std::vector<typename V::value_type>>;
// One value for each of a number of places.
template <class V>
concept HasElements = requires(const V& value) {
  value.elements[0];
};

template <class V>
[[nodiscard]] InspectValue toInspect(const V& value) {
  if constexpr (std::is_same_v<V, bool> || std::is_same_v<V, Lumen::String>) {
    return value;
  } else if constexpr (std::is_integral_v<V> || std::is_enum_v<V>) {
    return static_cast<std::uint64_t>(value);
  } else if constexpr (std::is_floating_point_v<V>) {
    return static_cast<double>(value);
  } else if constexpr (HasFields<V>) {
    InspectValue::Record record;
    record.reserve(std::tuple_size_v<decltype(V::fields())>);
    forEachField<V>([&](const auto& field) {
      record.emplace_back(Lumen::String(field.name), toInspect(value.*field.member));
    });
    return record;
  } else if constexpr (HasNames<V>) {
    return value.name();
  } else if constexpr (WrapsNumber<V>) {
    return static_cast<std::uint64_t>(value.value);
  } else if constexpr (IsList<V>) {
    InspectValue::List list;
    for (const auto& element : value) {
      list.push_back(toInspect(element));
    }
    return list;
  } else if constexpr (HasElements<V>) {
    InspectValue::List list;
    for (const auto& element : value.elements) {
      list.push_back(toInspect(element));
    }
    return list;
  } else {
    return Lumen::String(Lumen::typeName<V>());
  }
}

// Gives `to` what `from` says; a field that it does not name stays as it is. `name` is what is set,
// for errors. Throws InspectError, and `to` may have been changed in part.
template <class V>
void fromInspect(const InspectValue& from, V& to, std::string_view name, std::uint64_t most = 0) {
  if constexpr (std::is_same_v<V, bool>) {
    to = Impl::inspectBool(from, name);
  } else if constexpr (std::is_same_v<V, Lumen::String>) {
    to = Impl::inspectText(from, name);
  } else if constexpr (std::is_enum_v<V>) {
    using Number = std::underlying_type_t<V>;
    to = static_cast<V>(
        Impl::inspectNumber(from, name, most != 0 ? most : std::numeric_limits<Number>::max()));
  } else if constexpr (std::is_integral_v<V>) {
    to = static_cast<V>(
        Impl::inspectNumber(from, name, most != 0 ? most : std::numeric_limits<V>::max()));
  } else if constexpr (std::is_floating_point_v<V>) {
    to = static_cast<V>(Impl::inspectReal(from, name));
  } else if constexpr (HasFields<V>) {
    for (const InspectValue::Field& given : Impl::inspectRecord(from, name)) {
      bool found = false;
      Lumen::String known;
      forEachField<V>([&](const auto& field) {
        known += known.empty() ? "" : ", ";
        known += field.name;
        if (field.name == given.first) {
          found = true;
          fromInspect(given.second, to.*field.member, Impl::inspectFieldName(name, given.first),
                      field.most);
        }
      });
      if (!found) {
        Impl::inspectNoField(name, given.first, known);
      }
    }
  } else if constexpr (HasNames<V>) {
    const Lumen::String text = Impl::inspectText(from, name);
    try {
      to = V::fromName(text);
    } catch (const std::exception& error) {
      Impl::inspectRethrow(name, error.what());
    }
  } else if constexpr (WrapsNumber<V>) {
    fromInspect(from, to.value, name);
  } else if constexpr (HasElements<V>) {
    // All in their order, or some by their places.
    if (const auto* list = from.as<InspectValue::List>()) {
      (void)Impl::inspectNumber(std::uint64_t{list->size()}, name, to.elements.size());
      for (std::size_t i = 0; i < list->size(); ++i) {
        fromInspect((*list)[i], to.elements[i], name);
      }
      return;
    }
    for (const auto& [place, value] : Impl::inspectRecord(from, name)) {
      const std::uint64_t index = Impl::inspectNumber(place, name, to.elements.size() - 1);
      fromInspect(value, to.elements[index], Impl::inspectFieldName(name, place));
    }
  } else {
    Impl::inspectNotWritable(name, Lumen::typeName<V>());
  }
}

// What inspection does with values of one type behind a void pointer.
struct InspectType {
  std::size_t size;
  std::size_t alignment;
  void (*make)(void* at);  // the default value
  void (*destroy)(void* at) noexcept;
  InspectValue (*get)(const void* at);
  // As fromInspect().
  void (*set)(void* at, const InspectValue& from, std::string_view name);
};

template <class V>
struct InspectTypeOf {
  static void make(void* at) { ::new (at) V(); }
  static void destroy(void* at) noexcept { std::destroy_at(static_cast<V*>(at)); }
  static InspectValue get(const void* at) { return toInspect(*static_cast<const V*>(at)); }
  static void set(void* at, const InspectValue& from, std::string_view name) {
    fromInspect(from, *static_cast<V*>(at), name);
  }
};

template <class V>
inline constexpr InspectType kInspectType{sizeof(V),
                                          alignof(V),
                                          &InspectTypeOf<V>::make,
                                          &InspectTypeOf<V>::destroy,
                                          &InspectTypeOf<V>::get,
                                          &InspectTypeOf<V>::set};

}  // namespace Brio
