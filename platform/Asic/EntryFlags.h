#pragma once

#include <cstdint>

namespace Asic {

// What a resolver entry carries. A write has 0 or suppressIdenticalWrites; a remove and a
// remove-all have their one flag, and never both.
enum class EntryFlags : std::uint8_t {
  none = 0,
  entryDeleted = 1,             // a remove of one key
  tableDeleted = 2,             // a remove of all keys
  suppressIdenticalWrites = 4,  // the log must drop the write if it changes nothing
};

[[nodiscard]] constexpr bool has(EntryFlags flags, EntryFlags one) noexcept {
  return (static_cast<unsigned>(flags) & static_cast<unsigned>(one)) != 0;
}
[[nodiscard]] constexpr EntryFlags operator|(EntryFlags a, EntryFlags b) noexcept {
  return static_cast<EntryFlags>(static_cast<unsigned>(a) | static_cast<unsigned>(b));
}

}  // namespace Asic
