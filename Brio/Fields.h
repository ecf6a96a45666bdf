#pragma once

#include <fmt/format.h>

#include <concepts>
#include <cstdint>
#include <limits>
#include <string_view>
#include <tuple>
#include <type_traits>

namespace Brio {

// One named field of a value type: its name as people write it, the member, and the largest value
// that input may give it (integers only).
template <class Owner, class Member>
struct Field {
  std::string_view name;
  Member Owner::*member;
  std::uint64_t most;
};

template <class Owner, class Member>
constexpr auto field(std::string_view name, Member Owner::*member) {
  std::uint64_t most = 0;
  if constexpr (std::is_integral_v<Member>) {
    most = std::numeric_limits<Member>::max();
  }
  return Field<Owner, Member>{name, member, most};
}
template <class Owner, class Member>
constexpr auto field(std::string_view name, Member Owner::*member, std::uint64_t most) {
  return Field<Owner, Member>{name, member, most};
}

// A value type that lists its fields once: a static constexpr function fields() that yields a tuple
// of Field. Printing, JSON and inspection follow from the list.
template <class T>
concept HasFields = requires {
  T::fields();
};

// Calls `visit(field)` for each field of T in declared order.
template <HasFields T, class Visit>
constexpr void forEachField(Visit&& visit) {
  std::apply([&](const auto&... fields) { (visit(fields), ...); }, T::fields());
}

}  // namespace Brio

// A value with fields prints as {name: value, ...}; a nested value in the same form.
template <Brio::HasFields T>
struct fmt::formatter<T, char> {
  constexpr auto parse(fmt::format_parse_context& context) { return context.begin(); }

  template <class Context>
  auto format(const T& value, Context& context) const {
    auto out = context.out();
    *out++ = '{';
    bool first = true;
    Brio::forEachField<T>([&](const auto& field) {
      const auto& member = value.*field.member;
      out = fmt::format_to(out, "{}{}: {}", first ? "" : ", ", field.name, member);
      first = false;
    });
    *out++ = '}';
    return out;
  }
};
