#include "soak/Tally.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <utility>

namespace Soak {
namespace {

std::uint64_t all(const Faults& faults) {
  std::uint64_t sum = 0;
  for (std::size_t kind = 0; kind < Faults::kKinds; ++kind) {
    sum += faults.count(static_cast<Faults::Kind>(kind));
  }
  return sum;
}

}  // namespace

std::string Tally::progress(const Faults& faults) const {
  return fmt::format(
      "{:7.1f} s   intents {:>10}   answered {:>10}   faults {:>6}   starts of the agent {:>6}   "
      "checks {:>5}",
      seconds, sent, succeeded + refused, all(faults), lives, checks);
}

std::string Tally::text(const Faults& faults) const {
  using Kind = Faults::Kind;
  std::string out;
  const auto line = [&out]<class... Values>(fmt::format_string<Values...> text,
                                            Values&&... values) {
    fmt::format_to(std::back_inserter(out), text, std::forward<Values>(values)...);
    out += '\n';
  };
  line("{} intents in {:.1f} s, {:.0f} a second: {} carried out, {} refused, {} without an answer",
       sent, seconds, seconds > 0 ? static_cast<double>(sent) / seconds : 0.0, succeeded, refused,
       unanswered);
  line(
      "keys with intents without an answer: {} hold what one of these asked for, {} what they "
      "held before",
      carriedOut, dropped);
  line("{} resources were changed or prepared; {} changes had no resource or no other index",
       events, eventsInVain);
  line(
      "killed: kelp-agent {}, kelp-chip {}, both {}; kelp-agent told to end {}; paused: kelp-agent "
      "{}, kelp-chip {}",
      faults.count(Kind::killAgent), faults.count(Kind::killChip), faults.count(Kind::killBoth),
      faults.count(Kind::stopAgent), faults.count(Kind::pauseAgent), faults.count(Kind::pauseChip));
  if (!back.empty()) {
    std::vector<double> sorted = back;
    std::sort(sorted.begin(), sorted.end());
    line(
        "kelp-agent started {} times; its replay was complete after {:.0f} ms in the median, "
        "{:.0f} "
        "ms at most",
        lives, sorted[sorted.size() / 2], sorted.back());
  }
  if (wrong.empty()) {
    line(
        "check: {} times the chip and the configuration collections held what was asked for: {} "
        "entries, one by one",
        checks, entries);
    return out;
  }
  line("check FAILED, after {} that held:", checks);
  for (const std::string& one : wrong) {
    line("    {}", one);
  }
  return out;
}

}  // namespace Soak
