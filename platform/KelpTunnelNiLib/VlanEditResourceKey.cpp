#include "KelpTunnelNiLib/VlanEditResourceKey.h"

#include <array>

namespace KelpTunnelNiLib {
namespace {

constexpr std::array<std::string_view, kTagFormats> kTagFormatNames = {
    "untagged",     "priorityTpid0", "priorityTpid1", "priorityTpid2", "priorityTpid3",
    "singleTpid0",  "singleTpid1",   "singleTpid2",   "singleTpid3",   "doubleTpid00",
    "doubleTpid01", "doubleTpid02",  "doubleTpid03",  "doubleTpid10",  "doubleTpid11",
    "doubleTpid12", "doubleTpid13",  "doubleTpid20",  "doubleTpid21",  "doubleTpid22",
    "doubleTpid23", "doubleTpid30",  "doubleTpid31",  "doubleTpid32",  "doubleTpid33",
    "tripleTpid0",  "tripleTpid1",   "tripleTpid2",   "tripleTpid3",   "llcUntagged",
    "llcTpid0",     "llcTpid1",      "llcTpid2",      "llcTpid3"};
constexpr std::array<std::string_view, 4> kVlanActionNames = {"keep", "push", "pop", "swap"};

}  // namespace

std::string_view name(TagFormat format) noexcept {
  const auto at = static_cast<std::size_t>(format);
  return at < kTagFormatNames.size() ? kTagFormatNames[at] : std::string_view();
}

std::string_view name(VlanAction action) noexcept {
  const auto at = static_cast<std::size_t>(action);
  return at < kVlanActionNames.size() ? kVlanActionNames[at] : std::string_view();
}

}  // namespace KelpTunnelNiLib
