#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <tuple>

#include "Brio/Fields.h"
#include "Brio/Hash.h"
#include "KelpInLif/InLifKey.h"
#include "KelpTunnelNiLib/QuiltEntries.h"
#include "KelpTunnelNiLib/ValueType.h"

// The records of Isem2Tag: frames with two VLAN tags, by port and both tags.

namespace KelpTunnelNiLib {

// The key. Its bytes are its value.
struct Isem2TagEntryKey {
  std::uint16_t port = 0;
  std::uint16_t outerVlan = 0;
  std::uint16_t innerVlan = 0;

  [[nodiscard]] bool isEq(const Isem2TagEntryKey& other) const noexcept { return *this == other; }
  [[nodiscard]] std::uint32_t hash(std::uint32_t seed) const noexcept {
    return Brio::hashSingleAttr(seed, *this);
  }
  friend constexpr auto operator<=>(const Isem2TagEntryKey&, const Isem2TagEntryKey&) = default;

  static constexpr auto fields() {
    return std::tuple{Brio::field("port", &Isem2TagEntryKey::port),
                      Brio::field("outerVlan", &Isem2TagEntryKey::outerVlan, 4095),
                      Brio::field("innerVlan", &Isem2TagEntryKey::innerVlan, 4095)};
  }
};
static_assert(kIsKey<Isem2TagEntryKey>);

// The part of an entry that goes to the change log: the key and what the resource resolved to.
struct Isem2TagLogEntry {
  std::uint32_t inLif0Index = 0;
  std::uint32_t inLif1Index = 0;
  Isem2TagEntryKey key{};
  std::uint8_t reserved[2]{};

  static constexpr auto fields() {
    return std::tuple{Brio::field("key", &Isem2TagLogEntry::key),
                      Brio::field("inLif0Index", &Isem2TagLogEntry::inLif0Index),
                      Brio::field("inLif1Index", &Isem2TagLogEntry::inLif1Index)};
  }

  [[nodiscard]] bool isEq(const Isem2TagLogEntry& other) const noexcept {
    return fieldsEqual(*this, other);
  }
};

// The keys of the resources that an entry names.
struct Isem2TagResourceKeys {
  KelpInLif::InLifKey inLifIdxKey;

  [[nodiscard]] bool isEq(const Isem2TagResourceKeys& other) const noexcept {
    return inLifIdxKey.isEq(other.inLifIdxKey);
  }

  static constexpr auto fields() {
    return std::tuple{Brio::field("inLifIdxKey", &Isem2TagResourceKeys::inLifIdxKey)};
  }
};

// What a caller writes and reads. The default-constructed entry means that there is none.
struct Isem2TagEntry {
  using Key = Isem2TagEntryKey;
  using LogEntry = Isem2TagLogEntry;
  using ResourceKeys = Isem2TagResourceKeys;

  ResourceKeys rsrcKeys;
  LogEntry logEntry;

  [[nodiscard]] bool isEq(const Isem2TagEntry& other) const noexcept {
    return logEntry.isEq(other.logEntry) && rsrcKeys.isEq(other.rsrcKeys);
  }

  static constexpr auto fields() {
    return std::tuple{Brio::field("rsrcKeys", &Isem2TagEntry::rsrcKeys),
                      Brio::field("logEntry", &Isem2TagEntry::logEntry)};
  }
};

using Isem2TagConfigQuiltEntry = ConfigRecordEntryFirst<Isem2TagEntry>;
using Isem2TagLogQuiltEntry = LogRecord<Isem2TagLogEntry>;

// The records lie in shared memory, where other processes read them.
static_assert(sizeof(Isem2TagEntryKey) == 6);
static_assert(sizeof(Isem2TagLogEntry) == 16);
static_assert(sizeof(Isem2TagEntry) == 48 && offsetof(Isem2TagEntry, logEntry) == 32);
static_assert(offsetof(Isem2TagEntry, logEntry) + offsetof(Isem2TagLogEntry, key) == 40);
static_assert(offsetof(Isem2TagEntry, rsrcKeys) == 0 && sizeof(Isem2TagResourceKeys) == 32);
static_assert(offsetof(Isem2TagEntry, logEntry) + offsetof(Isem2TagLogEntry, inLif0Index) == 32);
static_assert(offsetof(Isem2TagEntry, logEntry) + offsetof(Isem2TagLogEntry, inLif1Index) == 36);
static_assert(sizeof(Isem2TagConfigQuiltEntry) == 64 &&
              offsetof(Isem2TagConfigQuiltEntry, entry) == 0);
static_assert(offsetof(Isem2TagConfigQuiltEntry, version) == 48 &&
              offsetof(Isem2TagConfigQuiltEntry, isDeleted) == 56);
static_assert(sizeof(Isem2TagLogQuiltEntry) == 32 &&
              offsetof(Isem2TagLogQuiltEntry, version) == 0 &&
              offsetof(Isem2TagLogQuiltEntry, logEntry) == 8);
static_assert(offsetof(Isem2TagLogQuiltEntry, unitId) == 24 &&
              offsetof(Isem2TagLogQuiltEntry, flags) == 26);

}  // namespace KelpTunnelNiLib
