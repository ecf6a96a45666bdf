#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <tuple>

#include "Brio/Fields.h"
#include "Brio/Hash.h"
#include "KelpQos/EgressRemarkProfileEntryKey.h"
#include "KelpTunnelNiLib/QuiltEntries.h"
#include "KelpTunnelNiLib/ValueType.h"
#include "KelpTunnelNiLib/VlanEditResourceKey.h"

// The records of EsemFodoVd: egress encapsulation by forwarding object and VLAN domain, with the
// VLAN edit and the remarking that the entry names.

namespace KelpTunnelNiLib {

// The key. Its bytes are its value.
struct EsemFodoVdEntryKey {
  std::uint32_t fodo = 0;
  std::uint16_t vlanDomain = 0;
  std::uint16_t port = 0;

  [[nodiscard]] bool isEq(const EsemFodoVdEntryKey& other) const noexcept { return *this == other; }
  [[nodiscard]] std::uint32_t hash(std::uint32_t seed) const noexcept {
    return Brio::hashSingleAttr(seed, *this);
  }
  friend constexpr auto operator<=>(const EsemFodoVdEntryKey&, const EsemFodoVdEntryKey&) = default;

  static constexpr auto fields() {
    return std::tuple{Brio::field("fodo", &EsemFodoVdEntryKey::fodo),
                      Brio::field("vlanDomain", &EsemFodoVdEntryKey::vlanDomain),
                      Brio::field("port", &EsemFodoVdEntryKey::port)};
  }
};
static_assert(kIsKey<EsemFodoVdEntryKey>);

// The part of an entry that goes to the change log: the key, the payload and what the resources
// resolved to.
struct EsemFodoVdLogEntry {
  EsemFodoVdEntryKey key{};
  std::uint32_t outLif = 0;
  std::uint8_t tpidProfile = 0;
  std::uint8_t vlanEditProfile = 0;
  std::uint8_t remarkProfile = 0;
  std::uint8_t reserved[1]{};

  static constexpr auto fields() {
    return std::tuple{Brio::field("key", &EsemFodoVdLogEntry::key),
                      Brio::field("outLif", &EsemFodoVdLogEntry::outLif),
                      Brio::field("tpidProfile", &EsemFodoVdLogEntry::tpidProfile),
                      Brio::field("vlanEditProfile", &EsemFodoVdLogEntry::vlanEditProfile),
                      Brio::field("remarkProfile", &EsemFodoVdLogEntry::remarkProfile)};
  }

  [[nodiscard]] bool isEq(const EsemFodoVdLogEntry& other) const noexcept {
    return fieldsEqual(*this, other);
  }
};

// The keys of the resources that an entry names, and the type of remarking asked for.
struct EsemFodoVdResourceKeys {
  EveResourceTableEntryKey vlanEditProfileKey;
  KelpQos::EgressRemarkProfileEntryKey remarkProfileKey;
  std::uint16_t remarkProfileType = 0;
  std::uint8_t reserved[6]{};

  [[nodiscard]] bool isEq(const EsemFodoVdResourceKeys& other) const noexcept {
    return remarkProfileKey.isEq(other.remarkProfileKey) &&
           remarkProfileType == other.remarkProfileType &&
           vlanEditProfileKey.isEq(other.vlanEditProfileKey);
  }

  static constexpr auto fields() {
    return std::tuple{
        Brio::field("vlanEditProfileKey", &EsemFodoVdResourceKeys::vlanEditProfileKey),
        Brio::field("remarkProfileKey", &EsemFodoVdResourceKeys::remarkProfileKey),
        Brio::field("remarkProfileType", &EsemFodoVdResourceKeys::remarkProfileType)};
  }
};
static_assert(offsetof(EsemFodoVdResourceKeys, remarkProfileKey) == 544 &&
              offsetof(EsemFodoVdResourceKeys, remarkProfileType) == 552);

// What a caller writes and reads. The default-constructed entry means that there is none.
struct EsemFodoVdEntry {
  using Key = EsemFodoVdEntryKey;
  using LogEntry = EsemFodoVdLogEntry;
  using ResourceKeys = EsemFodoVdResourceKeys;

  LogEntry logEntry;
  ResourceKeys rsrcKeys;

  [[nodiscard]] bool isEq(const EsemFodoVdEntry& other) const noexcept {
    return logEntry.isEq(other.logEntry) && rsrcKeys.isEq(other.rsrcKeys);
  }

  static constexpr auto fields() {
    return std::tuple{Brio::field("logEntry", &EsemFodoVdEntry::logEntry),
                      Brio::field("rsrcKeys", &EsemFodoVdEntry::rsrcKeys)};
  }
};

using EsemFodoVdConfigQuiltEntry = ConfigRecordEntryFirst<EsemFodoVdEntry>;
using EsemFodoVdLogQuiltEntry = LogRecord<EsemFodoVdLogEntry>;

// The records lie in shared memory, where other processes read them.
static_assert(sizeof(EsemFodoVdEntryKey) == 8);
static_assert(sizeof(EsemFodoVdLogEntry) == 16);
static_assert(sizeof(EsemFodoVdEntry) == 576 && offsetof(EsemFodoVdEntry, logEntry) == 0);
static_assert(offsetof(EsemFodoVdEntry, logEntry) + offsetof(EsemFodoVdLogEntry, key) == 0);
static_assert(offsetof(EsemFodoVdEntry, rsrcKeys) == 16 && sizeof(EsemFodoVdResourceKeys) == 560);
static_assert(offsetof(EsemFodoVdEntry, logEntry) + offsetof(EsemFodoVdLogEntry, vlanEditProfile) ==
              13);
static_assert(offsetof(EsemFodoVdEntry, logEntry) + offsetof(EsemFodoVdLogEntry, remarkProfile) ==
              14);
static_assert(sizeof(EsemFodoVdConfigQuiltEntry) == 592 &&
              offsetof(EsemFodoVdConfigQuiltEntry, entry) == 0);
static_assert(offsetof(EsemFodoVdConfigQuiltEntry, version) == 576 &&
              offsetof(EsemFodoVdConfigQuiltEntry, isDeleted) == 584);
static_assert(sizeof(EsemFodoVdLogQuiltEntry) == 32 &&
              offsetof(EsemFodoVdLogQuiltEntry, version) == 0 &&
              offsetof(EsemFodoVdLogQuiltEntry, logEntry) == 8);
static_assert(offsetof(EsemFodoVdLogQuiltEntry, unitId) == 24 &&
              offsetof(EsemFodoVdLogQuiltEntry, flags) == 26);

}  // namespace KelpTunnelNiLib
