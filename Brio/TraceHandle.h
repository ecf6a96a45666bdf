#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string_view>

#include "Lumen/String.h"
#include "Lumen/Trace.h"

namespace Brio {

// A named switch for traces: 16 bits, one per level. Handles live as long as the process and are
// found by name. A new handle takes the levels that the environment variable KELP_TRACE gives to
// its name.
//
// KELP_TRACE is a list of PATTERN/LEVELS, separated by ':'. PATTERN is a name in which '*' stands
// for any text; LEVELS is '*', or numbers and ranges separated by ',':
// "Isem1TagKelp*/1-3,8:SwTableIter/*". The last pattern that fits decides.
class TraceHandle {
 public:
  TraceHandle(const char* name, bool quiet);
  TraceHandle(const Lumen::String& name, bool quiet) : TraceHandle(name.c_str(), quiet) {}
  TraceHandle(const TraceHandle&) = delete;
  TraceHandle& operator=(const TraceHandle&) = delete;

  [[nodiscard]] bool isOn(unsigned level) const noexcept {
    return ((mask_.load(std::memory_order_relaxed) >> level) & 1U) != 0;
  }
  [[nodiscard]] const Lumen::String& name() const noexcept { return name_; }
  [[nodiscard]] std::uint16_t mask() const noexcept {
    return mask_.load(std::memory_order_relaxed);
  }
  void maskIs(std::uint16_t mask) noexcept { mask_.store(mask, std::memory_order_relaxed); }

  // Calls `visit` for every handle made so far.
  static void forEach(const std::function<void(TraceHandle&)>& visit);
  // Applies a list in the form of KELP_TRACE to all handles, present and future. Gives false, and
  // changes nothing, if the list is malformed; `error` then says where.
  static bool settingsIs(std::string_view settings, Lumen::String* error = nullptr);

 private:
  Lumen::String name_;
  std::atomic<std::uint16_t> mask_{0};
  bool quiet_;  // not raised by a pattern that is a bare '*'
};

}  // namespace Brio
