#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <random>
#include <vector>

#include "common/Intent.h"

namespace Soak {

// Intents without end: lives of switches, one after the other. Each begins with remove-alls of what
// the one before has left, and uses many of its keys again.
class Load {
 public:
  Load(unsigned units, std::uint64_t seed) : units_(units), random_(seed) {}

  // What is to be asked for next.
  [[nodiscard]] const std::shared_ptr<const Common::Intent>& front();
  void pop() { ++next_; }

 private:
  unsigned units_;
  std::mt19937_64 random_;
  std::vector<std::shared_ptr<const Common::Intent>> life_;
  std::size_t next_ = 0;
};

}  // namespace Soak
