#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <tuple>

#include "Brio/Fields.h"
#include "Brio/Hash.h"
#include "KelpTunnelNiLib/QuiltEntries.h"
#include "KelpTunnelNiLib/ValueType.h"

// The records of IsemInnerEth: frames inside a tunnel, by tunnel and inner VLAN tag.

namespace KelpTunnelNiLib {

// The key. Its bytes are its value.
struct IsemInnerEthEntryKey {
  std::uint16_t tunnel = 0;
  std::uint16_t vlan = 0;

  [[nodiscard]] bool isEq(const IsemInnerEthEntryKey& other) const noexcept {
    return *this == other;
  }
  [[nodiscard]] std::uint32_t hash(std::uint32_t seed) const noexcept {
    return Brio::hashSingleAttr(seed, *this);
  }
  friend constexpr auto operator<=>(const IsemInnerEthEntryKey&,
                                    const IsemInnerEthEntryKey&) = default;

  static constexpr auto fields() {
    return std::tuple{Brio::field("tunnel", &IsemInnerEthEntryKey::tunnel),
                      Brio::field("vlan", &IsemInnerEthEntryKey::vlan, 4095)};
  }
};
static_assert(kIsKey<IsemInnerEthEntryKey>);

// The part of an entry that goes to the change log: the key and the payload.
struct IsemInnerEthLogEntry {
  IsemInnerEthEntryKey key{};
  std::uint32_t inLif = 0;

  static constexpr auto fields() {
    return std::tuple{Brio::field("key", &IsemInnerEthLogEntry::key),
                      Brio::field("inLif", &IsemInnerEthLogEntry::inLif)};
  }

  [[nodiscard]] bool isEq(const IsemInnerEthLogEntry& other) const noexcept {
    return fieldsEqual(*this, other);
  }
};

// The table names no resources.
struct IsemInnerEthResourceKeys {
  [[nodiscard]] bool isEq(const IsemInnerEthResourceKeys&) const noexcept { return true; }

  static constexpr auto fields() { return std::tuple{}; }
};

// What a caller writes and reads. The default-constructed entry means that there is none.
struct IsemInnerEthEntry {
  using Key = IsemInnerEthEntryKey;
  using LogEntry = IsemInnerEthLogEntry;
  using ResourceKeys = IsemInnerEthResourceKeys;

  LogEntry logEntry;
  [[no_unique_address]] ResourceKeys rsrcKeys;
  std::uint8_t reserved[4]{};

  [[nodiscard]] bool isEq(const IsemInnerEthEntry& other) const noexcept {
    return logEntry.isEq(other.logEntry);
  }

  static constexpr auto fields() {
    return std::tuple{Brio::field("logEntry", &IsemInnerEthEntry::logEntry)};
  }
};

using IsemInnerEthConfigQuiltEntry = ConfigRecordVersionFirst<IsemInnerEthEntry>;
using IsemInnerEthLogQuiltEntry = LogRecord<IsemInnerEthLogEntry>;

// The records lie in shared memory, where other processes read them.
static_assert(sizeof(IsemInnerEthEntryKey) == 4);
static_assert(sizeof(IsemInnerEthLogEntry) == 8);
static_assert(sizeof(IsemInnerEthEntry) == 12 && offsetof(IsemInnerEthEntry, logEntry) == 0);
static_assert(offsetof(IsemInnerEthEntry, logEntry) + offsetof(IsemInnerEthLogEntry, key) == 0);
static_assert(sizeof(IsemInnerEthConfigQuiltEntry) == 24 &&
              offsetof(IsemInnerEthConfigQuiltEntry, entry) == 8);
static_assert(offsetof(IsemInnerEthConfigQuiltEntry, version) == 0 &&
              offsetof(IsemInnerEthConfigQuiltEntry, isDeleted) == 20);
static_assert(sizeof(IsemInnerEthLogQuiltEntry) == 24 &&
              offsetof(IsemInnerEthLogQuiltEntry, version) == 0 &&
              offsetof(IsemInnerEthLogQuiltEntry, logEntry) == 8);
static_assert(offsetof(IsemInnerEthLogQuiltEntry, unitId) == 16 &&
              offsetof(IsemInnerEthLogQuiltEntry, flags) == 18);

}  // namespace KelpTunnelNiLib
