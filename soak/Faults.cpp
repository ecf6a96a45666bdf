#include "soak/Faults.h"

namespace Soak {
namespace {

using Kind = Faults::Kind;
using std::chrono::milliseconds;

constexpr milliseconds kMostDown{150};
constexpr milliseconds kMostPaused{300};
constexpr milliseconds kClose{60};  // about what a program needs to start over

// Drawn with equal chances.
constexpr std::array kDraws = {Kind::killAgent,  Kind::killAgent, Kind::killAgent, Kind::killChip,
                               Kind::killChip,   Kind::killBoth,  Kind::killBoth,  Kind::stopAgent,
                               Kind::pauseAgent, Kind::pauseChip};

}  // namespace

Faults::Clock::duration Faults::upTo(Clock::duration most) {
  return Clock::duration(static_cast<Clock::rep>(random_() % (most.count() + 1)));
}

void Faults::aim(Clock::time_point now) {
  // Every fourth time the next one comes close behind.
  next_ = now + upTo(random_() % 4 == 0 ? Clock::duration(kClose) : mean_ * 5 / 2);
}

void Faults::strikeIfDue(Clock::time_point now, Programs& programs) {
  if (now < next_) {
    return;
  }
  aim(now);
  const Kind kind = kDraws[random_() % kDraws.size()];
  // Half of the time it is back at once.
  const Clock::duration down = random_() % 2 == 0 ? Clock::duration() : upTo(kMostDown);
  const bool agent = programs.runs(Programs::Which::agent);
  const bool chip = programs.runs(Programs::Which::chip);
  const bool both = kind == Kind::killBoth;
  const bool ofChip = kind == Kind::killChip || kind == Kind::pauseChip;
  if (both ? !agent || !chip : ofChip ? !chip : !agent) {
    return;  // it is away already
  }
  ++counts_[static_cast<std::size_t>(kind)];
  switch (kind) {
    case Kind::killAgent:
      programs.kill(Programs::Which::agent, down);
      break;
    case Kind::killChip:
      programs.kill(Programs::Which::chip, down);
      break;
    case Kind::killBoth:
      programs.kill(Programs::Which::agent, down);
      programs.kill(Programs::Which::chip, upTo(kMostDown));
      break;
    case Kind::stopAgent:
      programs.stop(Programs::Which::agent, down);
      break;
    case Kind::pauseAgent:
      programs.pause(Programs::Which::agent, upTo(kMostPaused));
      break;
    case Kind::pauseChip:
      programs.pause(Programs::Which::chip, upTo(kMostPaused));
      break;
  }
}

}  // namespace Soak
