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

// The records of IsemUntagged: frames without a VLAN tag, by port.

namespace KelpTunnelNiLib {

// The key: the port.
using IsemUntaggedEntryKey = std::uint16_t;
static_assert(kIsKey<IsemUntaggedEntryKey>);

// The part of an entry that goes to the change log: the key and what the resource resolved to.
struct IsemUntaggedLogEntry {
  std::uint32_t inLif0Index = 0;
  std::uint32_t inLif1Index = 0;
  IsemUntaggedEntryKey key{};
  std::uint8_t reserved[2]{};

  static constexpr auto fields() {
    return std::tuple{Brio::field("port", &IsemUntaggedLogEntry::key),
                      Brio::field("inLif0Index", &IsemUntaggedLogEntry::inLif0Index),
                      Brio::field("inLif1Index", &IsemUntaggedLogEntry::inLif1Index)};
  }

  [[nodiscard]] bool isEq(const IsemUntaggedLogEntry& other) const noexcept {
    return fieldsEqual(*this, other);
  }
};

// The keys of the resources that an entry names.
struct IsemUntaggedResourceKeys {
  KelpInLif::InLifKey inLifIdxKey;

  [[nodiscard]] bool isEq(const IsemUntaggedResourceKeys& other) const noexcept {
    return inLifIdxKey.isEq(other.inLifIdxKey);
  }

  static constexpr auto fields() {
    return std::tuple{Brio::field("inLifIdxKey", &IsemUntaggedResourceKeys::inLifIdxKey)};
  }
};

// What a caller writes and reads. The default-constructed entry means that there is none.
struct IsemUntaggedEntry {
  using Key = IsemUntaggedEntryKey;
  using LogEntry = IsemUntaggedLogEntry;
  using ResourceKeys = IsemUntaggedResourceKeys;

  ResourceKeys rsrcKeys;
  LogEntry logEntry;

  [[nodiscard]] bool isEq(const IsemUntaggedEntry& other) const noexcept {
    return logEntry.isEq(other.logEntry) && rsrcKeys.isEq(other.rsrcKeys);
  }

  static constexpr auto fields() {
    return std::tuple{Brio::field("rsrcKeys", &IsemUntaggedEntry::rsrcKeys),
                      Brio::field("logEntry", &IsemUntaggedEntry::logEntry)};
  }
};

using IsemUntaggedConfigQuiltEntry = ConfigRecordEntryFirst<IsemUntaggedEntry>;
using IsemUntaggedLogQuiltEntry = LogRecord<IsemUntaggedLogEntry>;

// The records lie in shared memory, where other processes read them.
static_assert(sizeof(IsemUntaggedEntryKey) == 2);
static_assert(sizeof(IsemUntaggedLogEntry) == 12);
static_assert(sizeof(IsemUntaggedEntry) == 44 && offsetof(IsemUntaggedEntry, logEntry) == 32);
static_assert(offsetof(IsemUntaggedEntry, logEntry) + offsetof(IsemUntaggedLogEntry, key) == 40);
static_assert(offsetof(IsemUntaggedEntry, rsrcKeys) == 0 && sizeof(IsemUntaggedResourceKeys) == 32);
static_assert(offsetof(IsemUntaggedEntry, logEntry) + offsetof(IsemUntaggedLogEntry, inLif0Index) ==
              32);
static_assert(offsetof(IsemUntaggedEntry, logEntry) + offsetof(IsemUntaggedLogEntry, inLif1Index) ==
              36);
static_assert(sizeof(IsemUntaggedConfigQuiltEntry) == 64 &&
              offsetof(IsemUntaggedConfigQuiltEntry, entry) == 0);
static_assert(offsetof(IsemUntaggedConfigQuiltEntry, version) == 48 &&
              offsetof(IsemUntaggedConfigQuiltEntry, isDeleted) == 56);
static_assert(sizeof(IsemUntaggedLogQuiltEntry) == 24 &&
              offsetof(IsemUntaggedLogQuiltEntry, version) == 0 &&
              offsetof(IsemUntaggedLogQuiltEntry, logEntry) == 8);
static_assert(offsetof(IsemUntaggedLogQuiltEntry, unitId) == 20 &&
              offsetof(IsemUntaggedLogQuiltEntry, flags) == 22);

}  // namespace KelpTunnelNiLib
