#pragma once

#include <fmt/format.h>

#include <cstdint>
#include <tuple>

#include "Brio/Fields.h"

namespace Asic {

// A counter with a sentinel: all ones is invalid, every other value, 0 among them, is valid.
struct MajorVersion {
  static constexpr std::uint64_t kInvalid = ~std::uint64_t{0};

  std::uint64_t value = kInvalid;

  [[nodiscard]] constexpr bool valid() const noexcept { return value != kInvalid; }
  friend constexpr bool operator==(MajorVersion, MajorVersion) = default;
};

// The version of one write of one key, within one flight of the key. Versions of different flights
// must not be compared, and there is no order: a key that has left the transient state starts at
// {0, 0} again.
struct EntryVersion {
  std::uint64_t majorVersion =
      0;  // counts the writes and removes of the key while it stays in flight
  std::uint16_t minorVersion = 0;  // carried unchanged

  static constexpr auto fields() {
    return std::tuple{Brio::field("majorVersion", &EntryVersion::majorVersion),
                      Brio::field("minorVersion", &EntryVersion::minorVersion)};
  }

  [[nodiscard]] static constexpr EntryVersion invalid() noexcept {
    return {~std::uint64_t{0}, static_cast<std::uint16_t>(0xffff)};
  }
  [[nodiscard]] constexpr bool valid() const noexcept { return !isEq(invalid()); }
  [[nodiscard]] constexpr EntryVersion next() const noexcept {
    return {majorVersion + 1, minorVersion};
  }
  [[nodiscard]] constexpr bool isEq(const EntryVersion& other) const noexcept {
    return majorVersion == other.majorVersion && minorVersion == other.minorVersion;
  }
};

}  // namespace Asic

template <>
struct fmt::formatter<Asic::MajorVersion> {
  constexpr auto parse(fmt::format_parse_context& context) { return context.begin(); }
  template <class Context>
  auto format(const Asic::MajorVersion& version, Context& context) const {
    return version.valid() ? fmt::format_to(context.out(), "{}", version.value)
                           : fmt::format_to(context.out(), "invalid");
  }
};

template <>
struct fmt::formatter<Asic::EntryVersion> {
  constexpr auto parse(fmt::format_parse_context& context) { return context.begin(); }
  template <class Context>
  auto format(const Asic::EntryVersion& version, Context& context) const {
    return fmt::format_to(context.out(), "{}.{}", version.majorVersion, version.minorVersion);
  }
};
