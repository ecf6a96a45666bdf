#pragma once

#include <fmt/format.h>

#include <cstdint>
#include <string_view>

namespace Asic {

// The fate of an entry handle or of a resource handle.
enum class EntryState : std::uint8_t {
  entryStateUnresolved = 0,  // nothing decided yet
  entryStateInLog = 1,       // in the entry log, not yet reported by the hardware side
  entryStateReserved = 2,    // never set on an entry; a fault on a resource handle
  entryStateFailed3 = 3,     // read as failure
  entryStateSuccess = 4,     // finished well
  entryStateFailed = 5,      // given up at commit
  entryStateFailed6 = 6,     // read as failure
};

// 3, 5 and 6: what was waited for will never come.
[[nodiscard]] constexpr bool isFailed(EntryState state) noexcept {
  return state == EntryState::entryStateFailed3 || state == EntryState::entryStateFailed ||
         state == EntryState::entryStateFailed6;
}

[[nodiscard]] constexpr std::string_view name(EntryState state) noexcept {
  switch (state) {
    case EntryState::entryStateUnresolved:
      return "unresolved";
    case EntryState::entryStateInLog:
      return "inLog";
    case EntryState::entryStateReserved:
      return "reserved";
    case EntryState::entryStateSuccess:
      return "success";
    case EntryState::entryStateFailed3:
    case EntryState::entryStateFailed:
    case EntryState::entryStateFailed6:
      return "failed";
  }
  return "unknown";
}

}  // namespace Asic

template <>
struct fmt::formatter<Asic::EntryState> : fmt::formatter<std::string_view> {
  template <class Context>
  auto format(Asic::EntryState state, Context& context) const {
    return fmt::formatter<std::string_view>::format(Asic::name(state), context);
  }
};
