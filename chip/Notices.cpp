#include "chip/Notices.h"

#include <fmt/format.h>

#include <cstdio>
#include <utility>

namespace Chip {

Notices::Notices(Sink sink) : sink_(std::move(sink)) {
  if (!sink_) {
    sink_ = [](std::string_view text) {
      fmt::print(stderr, "kelp-chip: {}\n", text);
      std::fflush(stderr);
    };
  }
}

void Notices::say(std::string_view text) { sink_(text); }

void Notices::tell(std::string_view topic, std::string_view text) {
  auto found = counts_.find(topic);
  if (found == counts_.end()) {
    found = counts_.emplace(topic, 0).first;
  }
  const std::uint64_t count = ++found->second;
  if (count <= kToldOfATopic) {
    sink_(text);
  }
  if (count == kToldOfATopic) {
    sink_(fmt::format("(further messages about {} are only counted)", topic));
  }
}

std::uint64_t Notices::countOf(std::string_view topic) const {
  const auto found = counts_.find(topic);
  return found == counts_.end() ? 0 : found->second;
}

}  // namespace Chip
