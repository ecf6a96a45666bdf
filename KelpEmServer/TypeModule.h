#pragma once

#include <array>
#include <cstdint>
#include <string_view>

#include "KelpEmServer/TableSpec.h"
#include "Lumen/TypeData.h"

namespace KelpEmServer {

// The name of the type module of one source unit: _UNIT_HASH_brioModule, with a 64-bit hash of the
// unit's name in hexadecimal.
template <TableSpec T, Brio::FixedString unit>
struct TypeModule {
  static constexpr auto unitName = T::name + unit;

  static constexpr std::uint64_t hash() {
    std::uint64_t value = 0xcbf29ce484222325ULL;
    for (const char c : unitName.view()) {
      value = (value ^ static_cast<unsigned char>(c)) * 0x100000001b3ULL;
    }
    return value;
  }
  static constexpr auto hashText() {
    Brio::FixedString<16> text;
    std::uint64_t value = hash();
    for (std::size_t i = 16; i-- > 0; value >>= 4) {
      text.chars[i] = "0123456789abcdef"[value & 15];
    }
    return text;
  }
  static constexpr auto name = Brio::FixedString("_") + unitName + "_" + hashText() + "_brioModule";
};

// The type data of the class with the given index in the module of a unit, and of the class that it
// is derived from.
template <TableSpec T, Brio::FixedString unit, unsigned classIndex, Brio::FixedString className,
          const Lumen::TypeData* base = nullptr>
inline constexpr Lumen::TypeData kTypeData{TypeModule<T, unit>::name.view(), classIndex,
                                           kTableText<T, className>.view(), base};

}  // namespace KelpEmServer
