#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <tuple>

#include "Brio/Fields.h"
#include "Brio/Hash.h"
#include "KelpTunnelNiLib/QuiltEntries.h"
#include "KelpTunnelNiLib/ValueType.h"

// The records of LemVpwsAc: cross-connects of a virtual private wire service, by attachment
// circuit.

namespace KelpTunnelNiLib {

// The key. Its bytes are its value.
struct LemVpwsAcEntryKey {
  std::uint32_t attachmentCircuit = 0;
  std::uint32_t port = 0;
  std::uint16_t outerVlan = 0;
  std::uint16_t innerVlan = 0;

  [[nodiscard]] bool isEq(const LemVpwsAcEntryKey& other) const noexcept { return *this == other; }
  [[nodiscard]] std::uint32_t hash(std::uint32_t seed) const noexcept {
    return Brio::hashSingleAttr(seed, *this);
  }
  friend constexpr auto operator<=>(const LemVpwsAcEntryKey&, const LemVpwsAcEntryKey&) = default;

  static constexpr auto fields() {
    return std::tuple{Brio::field("attachmentCircuit", &LemVpwsAcEntryKey::attachmentCircuit),
                      Brio::field("port", &LemVpwsAcEntryKey::port),
                      Brio::field("outerVlan", &LemVpwsAcEntryKey::outerVlan, 4095),
                      Brio::field("innerVlan", &LemVpwsAcEntryKey::innerVlan, 4095)};
  }
};
static_assert(kIsKey<LemVpwsAcEntryKey>);

// The part of an entry that goes to the change log: the key and the payload.
struct LemVpwsAcLogEntry {
  LemVpwsAcEntryKey key{};
  std::uint16_t outLifProfile = 0xffff;
  std::uint16_t crossConnect = 0;
  std::uint32_t outLif = 0;
  std::uint16_t vcLabelProfile = 0;
  std::uint8_t controlWord = 0;
  std::uint8_t reserved[1]{};

  static constexpr auto fields() {
    return std::tuple{Brio::field("key", &LemVpwsAcLogEntry::key),
                      Brio::field("outLifProfile", &LemVpwsAcLogEntry::outLifProfile),
                      Brio::field("crossConnect", &LemVpwsAcLogEntry::crossConnect),
                      Brio::field("outLif", &LemVpwsAcLogEntry::outLif),
                      Brio::field("vcLabelProfile", &LemVpwsAcLogEntry::vcLabelProfile),
                      Brio::field("controlWord", &LemVpwsAcLogEntry::controlWord, 1)};
  }

  [[nodiscard]] bool isEq(const LemVpwsAcLogEntry& other) const noexcept {
    return fieldsEqual(*this, other);
  }
};

// The table names no resources.
struct LemVpwsAcResourceKeys {
  [[nodiscard]] bool isEq(const LemVpwsAcResourceKeys&) const noexcept { return true; }

  static constexpr auto fields() { return std::tuple{}; }
};

// What a caller writes and reads. The default-constructed entry means that there is none.
struct LemVpwsAcEntry {
  using Key = LemVpwsAcEntryKey;
  using LogEntry = LemVpwsAcLogEntry;
  using ResourceKeys = LemVpwsAcResourceKeys;

  LogEntry logEntry;
  [[no_unique_address]] ResourceKeys rsrcKeys;
  std::uint8_t reserved[4]{};

  [[nodiscard]] bool isEq(const LemVpwsAcEntry& other) const noexcept {
    return logEntry.isEq(other.logEntry);
  }

  static constexpr auto fields() {
    return std::tuple{Brio::field("logEntry", &LemVpwsAcEntry::logEntry)};
  }
};

using LemVpwsAcConfigQuiltEntry = ConfigRecordVersionFirst<LemVpwsAcEntry>;
using LemVpwsAcLogQuiltEntry = LogRecord<LemVpwsAcLogEntry>;

// The records lie in shared memory, where other processes read them.
static_assert(sizeof(LemVpwsAcEntryKey) == 12);
static_assert(sizeof(LemVpwsAcLogEntry) == 24);
static_assert(sizeof(LemVpwsAcEntry) == 28 && offsetof(LemVpwsAcEntry, logEntry) == 0);
static_assert(offsetof(LemVpwsAcEntry, logEntry) + offsetof(LemVpwsAcLogEntry, key) == 0);
static_assert(sizeof(LemVpwsAcConfigQuiltEntry) == 40 &&
              offsetof(LemVpwsAcConfigQuiltEntry, entry) == 8);
static_assert(offsetof(LemVpwsAcConfigQuiltEntry, version) == 0 &&
              offsetof(LemVpwsAcConfigQuiltEntry, isDeleted) == 36);
static_assert(sizeof(LemVpwsAcLogQuiltEntry) == 40 &&
              offsetof(LemVpwsAcLogQuiltEntry, version) == 0 &&
              offsetof(LemVpwsAcLogQuiltEntry, logEntry) == 8);
static_assert(offsetof(LemVpwsAcLogQuiltEntry, unitId) == 32 &&
              offsetof(LemVpwsAcLogQuiltEntry, flags) == 34);

}  // namespace KelpTunnelNiLib
