#pragma once

#include <cstddef>
#include <cstdint>
#include <tuple>
#include <type_traits>

#include "Asic/LogVersion.h"
#include "Asic/UnitId.h"
#include "Brio/Fields.h"

namespace KelpTunnelNiLib {

// N bytes that carry no meaning; nothing for N = 0.
template <std::size_t N>
struct Reserved {
  std::uint8_t bytes[N]{};
};
template <>
struct Reserved<0> {};

// One record of the configuration collection of a unit, entry first: the image of the entry, the
// version that last touched it, and whether it is on its way out.
template <class EntryT>
struct ConfigRecordEntryFirst {
  using Entry = EntryT;
  using QuiltKey = typename Entry::Key;

  Entry entry;
  [[no_unique_address]] Reserved<(8 - sizeof(Entry) % 8) % 8> reserved1;
  Asic::LogVersion version;
  std::uint8_t isDeleted = 0;
  Reserved<7> reserved2;

  static constexpr auto fields() {
    return std::tuple{Brio::field("entry", &ConfigRecordEntryFirst::entry),
                      Brio::field("version", &ConfigRecordEntryFirst::version),
                      Brio::field("isDeleted", &ConfigRecordEntryFirst::isDeleted)};
  }

  ConfigRecordEntryFirst() = default;
  ConfigRecordEntryFirst(const Entry& image, Asic::LogVersion at, bool deleted)
      : entry(image), version(at), isDeleted(deleted ? 1 : 0) {}

  [[nodiscard]] const QuiltKey& quiltKey() const noexcept { return entry.logEntry.key; }
  [[nodiscard]] bool quiltMarked() const noexcept { return isDeleted != 0; }
  [[nodiscard]] bool isEq(const ConfigRecordEntryFirst& other) const noexcept {
    return version == other.version && isDeleted == other.isDeleted && entry.isEq(other.entry);
  }
};

// The same with the version first, for the tables without resources.
template <class EntryT>
struct ConfigRecordVersionFirst {
  using Entry = EntryT;
  using QuiltKey = typename Entry::Key;

  Asic::LogVersion version;
  Entry entry;
  std::uint8_t isDeleted = 0;
  Reserved<8 - (sizeof(Entry) + 1) % 8> reserved;

  static constexpr auto fields() {
    return std::tuple{Brio::field("version", &ConfigRecordVersionFirst::version),
                      Brio::field("entry", &ConfigRecordVersionFirst::entry),
                      Brio::field("isDeleted", &ConfigRecordVersionFirst::isDeleted)};
  }

  ConfigRecordVersionFirst() = default;
  ConfigRecordVersionFirst(const Entry& image, Asic::LogVersion at, bool deleted)
      : version(at), entry(image), isDeleted(deleted ? 1 : 0) {}

  [[nodiscard]] const QuiltKey& quiltKey() const noexcept { return entry.logEntry.key; }
  [[nodiscard]] bool quiltMarked() const noexcept { return isDeleted != 0; }
  [[nodiscard]] bool isEq(const ConfigRecordVersionFirst& other) const noexcept {
    return version == other.version && isDeleted == other.isDeleted && entry.isEq(other.entry);
  }
};

// One record of the change log.
template <class LogEntryT>
struct LogRecord {
  using LogEntry = LogEntryT;
  using QuiltKey = Asic::LogVersion;

  // A version hashes to itself, so that the log is walked in the order of its versions.
  static constexpr bool kQuiltOrderedByKey = true;
  // Rewrites for a changed resource and clears do not ask for room.
  static constexpr unsigned kQuiltHeadroom = 4;

  static constexpr std::uint8_t kEntryDeleted = 1;
  static constexpr std::uint8_t kTableDeleted = 2;

  Asic::LogVersion version;
  LogEntry logEntry;  // the entry written or deleted; the default in a table delete
  Asic::UnitId unitId;
  std::uint8_t flags = 0;  // 0 for a write; never both
  Reserved<8 - (sizeof(LogEntry) + 3) % 8> reserved;

  static constexpr auto fields() {
    return std::tuple{
        Brio::field("version", &LogRecord::version), Brio::field("logEntry", &LogRecord::logEntry),
        Brio::field("unitId", &LogRecord::unitId), Brio::field("flags", &LogRecord::flags)};
  }

  LogRecord() = default;
  LogRecord(Asic::LogVersion at, const LogEntry& entry, Asic::UnitId unit, std::uint8_t bits)
      : version(at), logEntry(entry), unitId(unit), flags(bits) {}

  [[nodiscard]] bool isEntryDeleted() const noexcept { return (flags & kEntryDeleted) != 0; }
  [[nodiscard]] bool isTableDeleted() const noexcept { return (flags & kTableDeleted) != 0; }
  [[nodiscard]] const QuiltKey& quiltKey() const noexcept { return version; }
  [[nodiscard]] bool isEq(const LogRecord& other) const noexcept {
    return version == other.version && unitId == other.unitId && flags == other.flags &&
           logEntry.isEq(other.logEntry);
  }
};

}  // namespace KelpTunnelNiLib
