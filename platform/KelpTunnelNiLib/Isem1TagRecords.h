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

// The records of Isem1Tag: frames with one VLAN tag, by port and tag.

namespace KelpTunnelNiLib {

// The key. Its bytes are its value.
struct Isem1TagEntryKey {
  std::uint16_t port = 0;
  std::uint16_t vlan = 0;

  [[nodiscard]] bool isEq(const Isem1TagEntryKey& other) const noexcept { return *this == other; }
  [[nodiscard]] std::uint32_t hash(std::uint32_t seed) const noexcept {
    return Brio::hashSingleAttr(seed, *this);
  }
  friend constexpr auto operator<=>(const Isem1TagEntryKey&, const Isem1TagEntryKey&) = default;

  static constexpr auto fields() {
    return std::tuple{Brio::field("port", &Isem1TagEntryKey::port),
                      Brio::field("vlan", &Isem1TagEntryKey::vlan, 4095)};
  }
};
static_assert(kIsKey<Isem1TagEntryKey>);

// The part of an entry that goes to the change log: the key and what the resource resolved to.
struct Isem1TagLogEntry {
  Isem1TagEntryKey key{};
  std::uint32_t inLif0Index = 0;
  std::uint32_t inLif1Index = 0;

  static constexpr auto fields() {
    return std::tuple{Brio::field("key", &Isem1TagLogEntry::key),
                      Brio::field("inLif0Index", &Isem1TagLogEntry::inLif0Index),
                      Brio::field("inLif1Index", &Isem1TagLogEntry::inLif1Index)};
  }

  [[nodiscard]] bool isEq(const Isem1TagLogEntry& other) const noexcept {
    return fieldsEqual(*this, other);
  }
};

// The keys of the resources that an entry names.
struct Isem1TagResourceKeys {
  KelpInLif::InLifKey inLifIdxKey;

  [[nodiscard]] bool isEq(const Isem1TagResourceKeys& other) const noexcept {
    return inLifIdxKey.isEq(other.inLifIdxKey);
  }

  static constexpr auto fields() {
    return std::tuple{Brio::field("inLifIdxKey", &Isem1TagResourceKeys::inLifIdxKey)};
  }
};

// What a caller writes and reads. The default-constructed entry means that there is none.
struct Isem1TagEntry {
  using Key = Isem1TagEntryKey;
  using LogEntry = Isem1TagLogEntry;
  using ResourceKeys = Isem1TagResourceKeys;

  ResourceKeys rsrcKeys;
  LogEntry logEntry;

  [[nodiscard]] bool isEq(const Isem1TagEntry& other) const noexcept {
    return logEntry.isEq(other.logEntry) && rsrcKeys.isEq(other.rsrcKeys);
  }

  static constexpr auto fields() {
    return std::tuple{Brio::field("rsrcKeys", &Isem1TagEntry::rsrcKeys),
                      Brio::field("logEntry", &Isem1TagEntry::logEntry)};
  }
};

using Isem1TagConfigQuiltEntry = ConfigRecordEntryFirst<Isem1TagEntry>;
using Isem1TagLogQuiltEntry = LogRecord<Isem1TagLogEntry>;

// The records lie in shared memory, where other processes read them.
static_assert(sizeof(Isem1TagEntryKey) == 4);
static_assert(sizeof(Isem1TagLogEntry) == 12);
static_assert(sizeof(Isem1TagEntry) == 44 && offsetof(Isem1TagEntry, logEntry) == 32);
static_assert(offsetof(Isem1TagEntry, logEntry) + offsetof(Isem1TagLogEntry, key) == 32);
static_assert(offsetof(Isem1TagEntry, rsrcKeys) == 0 && sizeof(Isem1TagResourceKeys) == 32);
static_assert(offsetof(Isem1TagEntry, logEntry) + offsetof(Isem1TagLogEntry, inLif0Index) == 36);
static_assert(offsetof(Isem1TagEntry, logEntry) + offsetof(Isem1TagLogEntry, inLif1Index) == 40);
static_assert(sizeof(Isem1TagConfigQuiltEntry) == 64 &&
              offsetof(Isem1TagConfigQuiltEntry, entry) == 0);
static_assert(offsetof(Isem1TagConfigQuiltEntry, version) == 48 &&
              offsetof(Isem1TagConfigQuiltEntry, isDeleted) == 56);
static_assert(sizeof(Isem1TagLogQuiltEntry) == 24 &&
              offsetof(Isem1TagLogQuiltEntry, version) == 0 &&
              offsetof(Isem1TagLogQuiltEntry, logEntry) == 8);
static_assert(offsetof(Isem1TagLogQuiltEntry, unitId) == 20 &&
              offsetof(Isem1TagLogQuiltEntry, flags) == 22);

}  // namespace KelpTunnelNiLib
