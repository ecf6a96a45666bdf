#pragma once

#include <compare>
#include <cstdint>
#include <tuple>

#include "Asic/SwTableId.h"
#include "Brio/Fields.h"
#include "Brio/FixedString.h"
#include "Brio/Hash.h"
#include "KelpEmServer/TableCatalogue.h"
#include "KelpTunnelNiLib/QuiltEntries.h"
#include "KelpTunnelNiLib/TableQuilts.h"
#include "KelpTunnelNiLib/ValueType.h"

// A table that the library does not know: its records, and its one traits type.

namespace KelpTunnelNiLib {

// The key. Its bytes are its value.
struct NinthEntryKey {
  std::uint64_t flow = 0;
  std::uint32_t port = 0;
  std::uint32_t vlan = 0;

  [[nodiscard]] bool isEq(const NinthEntryKey& other) const noexcept { return *this == other; }
  [[nodiscard]] std::uint32_t hash(std::uint32_t seed) const noexcept {
    return Brio::hashSingleAttr(seed, *this);
  }
  friend constexpr auto operator<=>(const NinthEntryKey&, const NinthEntryKey&) = default;

  static constexpr auto fields() {
    return std::tuple{Brio::field("flow", &NinthEntryKey::flow),
                      Brio::field("port", &NinthEntryKey::port),
                      Brio::field("vlan", &NinthEntryKey::vlan, 4095)};
  }
};
static_assert(kIsKey<NinthEntryKey>);

struct NinthLogEntry {
  NinthEntryKey key{};
  std::uint32_t inLif = 0;
  std::uint32_t reserved = 0;

  [[nodiscard]] bool isEq(const NinthLogEntry& other) const noexcept {
    return fieldsEqual(*this, other);
  }
  static constexpr auto fields() {
    return std::tuple{Brio::field("key", &NinthLogEntry::key),
                      Brio::field("inLif", &NinthLogEntry::inLif)};
  }
};

struct NinthResourceKeys {
  [[nodiscard]] bool isEq(const NinthResourceKeys&) const noexcept { return true; }
  static constexpr auto fields() { return std::tuple{}; }
};

struct NinthEntry {
  using Key = NinthEntryKey;
  using LogEntry = NinthLogEntry;
  using ResourceKeys = NinthResourceKeys;

  LogEntry logEntry;
  [[no_unique_address]] ResourceKeys rsrcKeys;

  [[nodiscard]] bool isEq(const NinthEntry& other) const noexcept {
    return logEntry.isEq(other.logEntry);
  }
  static constexpr auto fields() {
    return std::tuple{Brio::field("logEntry", &NinthEntry::logEntry)};
  }
};

using NinthConfigQuilt = ConfigQuilt<ConfigRecordVersionFirst<NinthEntry>>;
using NinthEntryLogQuilt = EntryLogQuilt<LogRecord<NinthLogEntry>>;

}  // namespace KelpTunnelNiLib

namespace KelpEmServer {

struct KELP_EM_EXPORT Ninth {
  static constexpr Brio::FixedString name{"Ninth"};
  static constexpr Asic::SwTableId tableId{0x29080409};
  static constexpr CollectionSalts salts{11, 12, 13, 14, 15, 16};

  using Entry = KelpTunnelNiLib::NinthEntry;
  using ConfigQuilt = KelpTunnelNiLib::NinthConfigQuilt;
  using EntryLogQuilt = KelpTunnelNiLib::NinthEntryLogQuilt;
  using WrapperResources = NoResources;
  using Linkages = NoLinkages;
};

}  // namespace KelpEmServer
