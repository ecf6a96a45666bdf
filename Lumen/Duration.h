#pragma once

#include <compare>
#include <cstdint>

namespace Lumen {

// A span of time, in nanoseconds; about 292 years either way.
class Duration {
 public:
  constexpr Duration() noexcept = default;
  [[nodiscard]] static constexpr Duration nanoseconds(std::int64_t count) noexcept {
    return Duration(count);
  }
  [[nodiscard]] static constexpr Duration milliseconds(std::int64_t count) noexcept {
    return Duration(count * 1'000'000);
  }
  [[nodiscard]] static constexpr Duration seconds(std::int64_t count) noexcept {
    return Duration(count * 1'000'000'000);
  }

  [[nodiscard]] constexpr std::int64_t nanoseconds() const noexcept { return count_; }
  [[nodiscard]] constexpr double seconds() const noexcept {
    return static_cast<double>(count_) * 1e-9;
  }
  [[nodiscard]] constexpr bool isZero() const noexcept { return count_ == 0; }

  friend constexpr auto operator<=>(Duration, Duration) = default;
  friend constexpr Duration operator+(Duration a, Duration b) noexcept {
    return Duration(a.count_ + b.count_);
  }
  friend constexpr Duration operator-(Duration a, Duration b) noexcept {
    return Duration(a.count_ - b.count_);
  }

 private:
  explicit constexpr Duration(std::int64_t count) noexcept : count_(count) {}

  std::int64_t count_ = 0;
};

}  // namespace Lumen
