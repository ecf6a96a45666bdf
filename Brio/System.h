#pragma once

namespace Brio {

// Clocks and facts of the machine.
class System {
 public:
  // Seconds since 1970-01-01 00:00 UTC, read from the coarse clock: it advances with the kernel's
  // tick (1 to 10 ms) and costs a few nanoseconds.
  [[nodiscard]] static double currentTimeUtc() noexcept;
};

}  // namespace Brio
