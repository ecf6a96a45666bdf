#pragma once

#include <fmt/format.h>

#include <compare>
#include <cstdint>
#include <tuple>

#include "Asic/SwTableId.h"
#include "Brio/Fields.h"
#include "Brio/Hash.h"

namespace Asic {

// Position in one table's change log. 0 means no position; every change takes the next one.
struct LogVersion {
  std::uint64_t value = 0;

  [[nodiscard]] bool isEq(const LogVersion& other) const noexcept { return value == other.value; }
  [[nodiscard]] std::uint32_t hash(std::uint32_t seed) const noexcept {
    return Brio::hashSingleAttr(seed, value);
  }
  friend constexpr auto operator<=>(LogVersion, LogVersion) = default;
};

// A table, at least up to a version of its log.
struct TableVersion {
  SwTableId tableId;
  LogVersion version;

  friend constexpr bool operator==(const TableVersion&, const TableVersion&) = default;

  static constexpr auto fields() {
    return std::tuple{Brio::field("tableId", &TableVersion::tableId),
                      Brio::field("version", &TableVersion::version)};
  }
};

}  // namespace Asic

template <>
struct fmt::formatter<Asic::LogVersion> : fmt::formatter<std::uint64_t> {
  template <class Context>
  auto format(const Asic::LogVersion& version, Context& context) const {
    return fmt::formatter<std::uint64_t>::format(version.value, context);
  }
};

template <>
struct fmt::formatter<Asic::TableVersion> {
  constexpr auto parse(fmt::format_parse_context& context) { return context.begin(); }
  template <class Context>
  auto format(const Asic::TableVersion& version, Context& context) const {
    return fmt::format_to(context.out(), "{}@{}", version.tableId, version.version);
  }
};
