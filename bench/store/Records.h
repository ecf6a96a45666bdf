#pragma once

#include <cstdint>

#include "BrioQuilt/CollectionEntity.h"
#include "BrioSharedMem/EntityManager.h"

// The records of the benchmark: as large and with the keys of a table with one resource.

namespace StoreBench {

inline constexpr std::uint32_t kKeys = 65536;

struct ConfigKey {
  std::uint32_t port = 0;
};
struct ConfigRecord {
  using QuiltKey = ConfigKey;

  std::uint64_t resource[4] = {};
  ConfigKey key;
  std::uint32_t payload[3] = {};
  std::uint64_t version = 0;
  std::uint64_t flags = 0;

  [[nodiscard]] const QuiltKey& quiltKey() const noexcept { return key; }
};
static_assert(sizeof(ConfigRecord) == 64);

struct LogRecord {
  using QuiltKey = std::uint64_t;
  static constexpr bool kQuiltOrderedByKey = true;
  static constexpr unsigned kQuiltHeadroom = 4;

  std::uint64_t version = 0;
  std::uint32_t payload[3] = {};
  std::uint32_t flags = 0;

  [[nodiscard]] const QuiltKey& quiltKey() const noexcept { return version; }
};
static_assert(sizeof(LogRecord) == 24);

using ConfigQuilt = BrioQuilt::CollectionEntity<ConfigRecord>;
using LogQuilt = BrioQuilt::CollectionEntity<LogRecord>;

inline ConfigRecord configRecord(std::uint32_t key, std::uint64_t version) {
  ConfigRecord record;
  record.resource[0] = key;
  record.key.port = key;
  record.payload[0] = ~key;
  record.version = version;
  return record;
}
inline LogRecord logRecord(std::uint32_t key, std::uint64_t version) {
  LogRecord record;
  record.version = version;
  record.payload[0] = key;
  return record;
}

}  // namespace StoreBench
