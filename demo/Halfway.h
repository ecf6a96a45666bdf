#pragma once

#include <cstdint>
#include <string>

#include "BrioSharedMem/EntityManager.h"
#include "demo/Input.h"
#include "demo/Programs.h"
#include "demo/Report.h"

namespace Demo {

// What an agent that is killed halfway leaves, and what the next one makes of it: the features ask
// again for all that they have asked for, and only what differs may reach the chip. All is seen
// from outside: what differs by a comparison of the configuration collections with what the intents
// add up to, what reached the chip by the chip's own counters.
class Halfway {
 public:
  Halfway(const Input& input, Programs& programs, const BrioSharedMem::EntityManager& memory)
      : input_(input), programs_(programs), memory_(memory) {}

  // The agent has been killed, and the chip has all that it published.
  void killed();
  // The next agent has replayed the file, and the chip has all that came of it. Gives what came of
  // it. Throws std::runtime_error if the hardware side does not answer.
  [[nodiscard]] Restarted replayed();

 private:
  const Input& input_;
  Programs& programs_;
  const BrioSharedMem::EntityManager& memory_;
  std::uint64_t changesBefore_ = 0;
  Restarted result_;
};

}  // namespace Demo
