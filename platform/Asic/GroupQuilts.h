#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <tuple>

#include "Asic/LogVersion.h"
#include "Brio/Fields.h"
#include "BrioQuilt/CollectionEntity.h"

namespace Asic {

// One row of the group's status collection: up to which log version of a table the hardware side
// has taken the log in. Written by the hardware side, read by the agent. The row speaks of one
// incarnation of the log: a row of another is no row.
struct StatusQuiltEntry {
  using QuiltKey = SwTableId;

  SwTableId tableId;
  std::uint32_t reserved = 0;
  LogVersion version;
  std::uint64_t incarnation = 0;

  [[nodiscard]] const QuiltKey& quiltKey() const noexcept { return tableId; }

  static constexpr auto fields() {
    return std::tuple{Brio::field("tableId", &StatusQuiltEntry::tableId),
                      Brio::field("version", &StatusQuiltEntry::version),
                      Brio::field("incarnation", &StatusQuiltEntry::incarnation)};
  }
};
static_assert(sizeof(StatusQuiltEntry) == 24 && Brio::HasFields<StatusQuiltEntry>);

using StatusQuilt = BrioQuilt::CollectionEntity<StatusQuiltEntry>;
inline constexpr const char* kStatusQuiltType = "Asic::StatusQuilt";
inline constexpr const char* kStatusCollection = "status";
inline constexpr std::uint32_t kStatusCapacity = 256;

// What one log record of a table waits for in other tables. Written by the agent before the version
// is published, read by the hardware side; dropped when the status covers the version.
struct NeededQuiltEntry {
  using QuiltKey = LogVersion;

  static constexpr bool kQuiltOrderedByKey = true;
  static constexpr unsigned kQuiltHeadroom = 4;
  static constexpr std::size_t kMost = 8;

  LogVersion version;
  std::uint32_t count = 0;
  std::uint32_t reserved = 0;
  struct Needed {
    SwTableId tableId;
    std::uint32_t reserved = 0;
    LogVersion version;
  };
  std::array<Needed, kMost> needed{};

  [[nodiscard]] const QuiltKey& quiltKey() const noexcept { return version; }
};
static_assert(sizeof(NeededQuiltEntry) == 144 && offsetof(NeededQuiltEntry, count) == 8 &&
              offsetof(NeededQuiltEntry, needed) == 16);

using NeededQuilt = BrioQuilt::CollectionEntity<NeededQuiltEntry>;
inline constexpr const char* kNeededQuiltType = "Asic::NeededQuilt";
inline constexpr const char* kNeededCollection = "needed";
inline constexpr std::uint32_t kNeededCapacity = 1000000;

}  // namespace Asic
