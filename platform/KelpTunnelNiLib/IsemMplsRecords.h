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

// The records of IsemMpls: frames with an MPLS label, by label and label space.

namespace KelpTunnelNiLib {

// The key. Its bytes are its value.
struct IsemMplsEntryKey {
  std::uint32_t label = 0x00100000;
  std::uint16_t labelSpace = 0;
  std::uint16_t port = 0;

  [[nodiscard]] bool isEq(const IsemMplsEntryKey& other) const noexcept { return *this == other; }
  [[nodiscard]] std::uint32_t hash(std::uint32_t seed) const noexcept {
    return Brio::hashSingleAttr(seed, *this);
  }
  friend constexpr auto operator<=>(const IsemMplsEntryKey&, const IsemMplsEntryKey&) = default;

  static constexpr auto fields() {
    return std::tuple{Brio::field("label", &IsemMplsEntryKey::label, 0xfffff),
                      Brio::field("labelSpace", &IsemMplsEntryKey::labelSpace),
                      Brio::field("port", &IsemMplsEntryKey::port)};
  }
};
static_assert(kIsKey<IsemMplsEntryKey>);

// The part of an entry that goes to the change log: the key and what the resource resolved to.
struct IsemMplsLogEntry {
  IsemMplsEntryKey key{};
  std::uint32_t inLif0Index = 0;
  std::uint32_t inLif23Index = 0;

  static constexpr auto fields() {
    return std::tuple{Brio::field("key", &IsemMplsLogEntry::key),
                      Brio::field("inLif0Index", &IsemMplsLogEntry::inLif0Index),
                      Brio::field("inLif23Index", &IsemMplsLogEntry::inLif23Index)};
  }

  [[nodiscard]] bool isEq(const IsemMplsLogEntry& other) const noexcept {
    return fieldsEqual(*this, other);
  }
};

// The keys of the resources that an entry names.
struct IsemMplsResourceKeys {
  KelpInLif::InLifKey inLifIdxKey;

  [[nodiscard]] bool isEq(const IsemMplsResourceKeys& other) const noexcept {
    return inLifIdxKey.isEq(other.inLifIdxKey);
  }

  static constexpr auto fields() {
    return std::tuple{Brio::field("inLifIdxKey", &IsemMplsResourceKeys::inLifIdxKey)};
  }
};

// What a caller writes and reads. The default-constructed entry means that there is none.
struct IsemMplsEntry {
  using Key = IsemMplsEntryKey;
  using LogEntry = IsemMplsLogEntry;
  using ResourceKeys = IsemMplsResourceKeys;

  ResourceKeys rsrcKeys;
  LogEntry logEntry;

  [[nodiscard]] bool isEq(const IsemMplsEntry& other) const noexcept {
    return logEntry.isEq(other.logEntry) && rsrcKeys.isEq(other.rsrcKeys);
  }

  static constexpr auto fields() {
    return std::tuple{Brio::field("rsrcKeys", &IsemMplsEntry::rsrcKeys),
                      Brio::field("logEntry", &IsemMplsEntry::logEntry)};
  }
};

using IsemMplsConfigQuiltEntry = ConfigRecordEntryFirst<IsemMplsEntry>;
using IsemMplsLogQuiltEntry = LogRecord<IsemMplsLogEntry>;

// The records lie in shared memory, where other processes read them.
static_assert(sizeof(IsemMplsEntryKey) == 8);
static_assert(sizeof(IsemMplsLogEntry) == 16);
static_assert(sizeof(IsemMplsEntry) == 48 && offsetof(IsemMplsEntry, logEntry) == 32);
static_assert(offsetof(IsemMplsEntry, logEntry) + offsetof(IsemMplsLogEntry, key) == 32);
static_assert(offsetof(IsemMplsEntry, rsrcKeys) == 0 && sizeof(IsemMplsResourceKeys) == 32);
static_assert(offsetof(IsemMplsEntry, logEntry) + offsetof(IsemMplsLogEntry, inLif0Index) == 40);
static_assert(offsetof(IsemMplsEntry, logEntry) + offsetof(IsemMplsLogEntry, inLif23Index) == 44);
static_assert(sizeof(IsemMplsConfigQuiltEntry) == 64 &&
              offsetof(IsemMplsConfigQuiltEntry, entry) == 0);
static_assert(offsetof(IsemMplsConfigQuiltEntry, version) == 48 &&
              offsetof(IsemMplsConfigQuiltEntry, isDeleted) == 56);
static_assert(sizeof(IsemMplsLogQuiltEntry) == 32 &&
              offsetof(IsemMplsLogQuiltEntry, version) == 0 &&
              offsetof(IsemMplsLogQuiltEntry, logEntry) == 8);
static_assert(offsetof(IsemMplsLogQuiltEntry, unitId) == 24 &&
              offsetof(IsemMplsLogQuiltEntry, flags) == 26);

}  // namespace KelpTunnelNiLib
