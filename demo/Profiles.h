#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

#include "BrioSharedMem/EntityManager.h"
#include "demo/Input.h"
#include "demo/OutcomeTail.h"
#include "demo/Programs.h"
#include "demo/Report.h"

namespace Demo {

// What follows on the life of the switch: a VLAN edit profile changes under all that use it, then
// more edits are asked for than there are profiles, and at last some of these go again. Each step
// begins when the one before has come to its end, and is judged from outside: by the outcomes, and
// by what the chip counts.
class Profiles {
 public:
  // `wait` is called with what is waited for and a condition, and returns when that holds and
  // nothing is on its way to the chip.
  using Wait = std::function<void(const char* what, const std::function<bool()>& holds)>;

  Profiles(const Input& input, Programs& programs, const BrioSharedMem::EntityManager& memory,
           Wait wait);

  // Does all that, with an agent that is about to read the life through its standard input. Throws
  // std::runtime_error if something does not come.
  [[nodiscard]] ProfileFigures run();

 private:
  void feed(std::uint64_t upTo, const char* what, std::size_t from, std::size_t to);

  const Input& input_;
  Programs& programs_;
  const BrioSharedMem::EntityManager& memory_;
  Wait wait_;
  OutcomeTail outcomes_;
};

}  // namespace Demo
