#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <tuple>

#include "Brio/Fields.h"
#include "Brio/Hash.h"
#include "KelpTunnelNiLib/QuiltEntries.h"
#include "KelpTunnelNiLib/ValueType.h"

// The records of EsemFodo: egress encapsulation by forwarding object.

namespace KelpTunnelNiLib {

// The key: the forwarding object.
using EsemFodoEntryKey = std::uint32_t;
static_assert(kIsKey<EsemFodoEntryKey>);

// The part of an entry that goes to the change log: the key and the payload.
struct EsemFodoLogEntry {
  EsemFodoEntryKey key{};
  std::uint16_t outLif = 0;
  std::uint8_t tpidProfile = 0;
  std::uint8_t reserved[1]{};

  static constexpr auto fields() {
    return std::tuple{Brio::field("fodo", &EsemFodoLogEntry::key),
                      Brio::field("outLif", &EsemFodoLogEntry::outLif),
                      Brio::field("tpidProfile", &EsemFodoLogEntry::tpidProfile)};
  }

  [[nodiscard]] bool isEq(const EsemFodoLogEntry& other) const noexcept {
    return fieldsEqual(*this, other);
  }
};

// The table names no resources.
struct EsemFodoResourceKeys {
  [[nodiscard]] bool isEq(const EsemFodoResourceKeys&) const noexcept { return true; }

  static constexpr auto fields() { return std::tuple{}; }
};

// What a caller writes and reads. The default-constructed entry means that there is none.
struct EsemFodoEntry {
  using Key = EsemFodoEntryKey;
  using LogEntry = EsemFodoLogEntry;
  using ResourceKeys = EsemFodoResourceKeys;

  LogEntry logEntry;
  [[no_unique_address]] ResourceKeys rsrcKeys;
  std::uint8_t reserved[4]{};

  [[nodiscard]] bool isEq(const EsemFodoEntry& other) const noexcept {
    return logEntry.isEq(other.logEntry);
  }

  static constexpr auto fields() {
    return std::tuple{Brio::field("logEntry", &EsemFodoEntry::logEntry)};
  }
};

using EsemFodoConfigQuiltEntry = ConfigRecordVersionFirst<EsemFodoEntry>;
using EsemFodoLogQuiltEntry = LogRecord<EsemFodoLogEntry>;

// The records lie in shared memory, where other processes read them.
static_assert(sizeof(EsemFodoEntryKey) == 4);
static_assert(sizeof(EsemFodoLogEntry) == 8);
static_assert(sizeof(EsemFodoEntry) == 12 && offsetof(EsemFodoEntry, logEntry) == 0);
static_assert(offsetof(EsemFodoEntry, logEntry) + offsetof(EsemFodoLogEntry, key) == 0);
static_assert(sizeof(EsemFodoConfigQuiltEntry) == 24 &&
              offsetof(EsemFodoConfigQuiltEntry, entry) == 8);
static_assert(offsetof(EsemFodoConfigQuiltEntry, version) == 0 &&
              offsetof(EsemFodoConfigQuiltEntry, isDeleted) == 20);
static_assert(sizeof(EsemFodoLogQuiltEntry) == 24 &&
              offsetof(EsemFodoLogQuiltEntry, version) == 0 &&
              offsetof(EsemFodoLogQuiltEntry, logEntry) == 8);
static_assert(offsetof(EsemFodoLogQuiltEntry, unitId) == 16 &&
              offsetof(EsemFodoLogQuiltEntry, flags) == 18);

}  // namespace KelpTunnelNiLib
