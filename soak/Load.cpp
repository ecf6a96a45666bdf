#include "soak/Load.h"

#include <utility>

#include "demo/Generator.h"

namespace Soak {
namespace {

// Short and long lives: a long one has many entries, a short one empties whole tables often.
constexpr std::size_t kFewest = 100;
constexpr std::size_t kMost = 5000;

}  // namespace

const std::shared_ptr<const Common::Intent>& Load::front() {
  if (next_ == life_.size()) {
    life_.clear();
    next_ = 0;
    const std::size_t most = random_() % 4 == 0 ? kMost : kMost / 10;
    const Demo::Plan plan{units_, kFewest + random_() % (most - kFewest), random_()};
    for (Common::Intent& intent : Demo::metroEdge(plan)) {
      life_.push_back(std::make_shared<const Common::Intent>(std::move(intent)));
    }
  }
  return life_[next_];
}

}  // namespace Soak
