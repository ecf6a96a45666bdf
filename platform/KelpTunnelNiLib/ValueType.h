#pragma once

#include <cstdint>
#include <tuple>
#include <type_traits>

#include "Brio/Fields.h"
#include "Brio/Hash.h"

namespace KelpTunnelNiLib {

// Whether every field that T::fields() lists is equal in both. Reserved bytes carry no meaning and
// are not looked at.
template <class T>
[[nodiscard]] bool fieldsEqual(const T& a, const T& b) noexcept {
  return std::apply(
      [&](const auto&... fields) { return (... && (a.*fields.member == b.*fields.member)); },
      T::fields());
}

// What the store asks of a key: its bytes are its value. Checked for every key type.
template <class Key>
inline constexpr bool kIsKey =
    std::is_trivially_copyable_v<Key>&& std::has_unique_object_representations_v<Key>;

}  // namespace KelpTunnelNiLib
