#include "soak/Load.h"

#include <utility>

#include "common/Tables.h"
#include "demo/Generator.h"

namespace Soak {
namespace {

// Short and long lives: a long one has many entries, a short one empties whole tables often.
constexpr std::size_t kFewest = 100;
constexpr std::size_t kMost = 20'000;

}  // namespace

const std::shared_ptr<const Common::Intent>& Load::front() {
  if (next_ == life_.size()) {
    life_.clear();
    next_ = 0;
    const std::size_t most = random_() % 4 == 0 ? kMost : kMost / 10;
    const Demo::Plan plan{units_, kFewest + random_() % (most - kFewest), random_()};
    // What the last one has left goes first, or the tables would fill up.
    for (unsigned unit = 0; unit < units_; ++unit) {
      for (std::size_t table = 0; table < Common::kTables; ++table) {
        Common::withTable(table, [&](auto tag) {
          Common::Intent intent;
          intent.op = Common::IntentOp::removeAll;
          intent.unit = Asic::UnitId{static_cast<std::uint16_t>(unit)};
          intent.entry = Common::EntryOf<typename decltype(tag)::Table>{};
          life_.push_back(std::make_shared<const Common::Intent>(std::move(intent)));
        });
      }
    }
    for (Common::Intent& intent : Demo::metroEdge(plan)) {
      life_.push_back(std::make_shared<const Common::Intent>(std::move(intent)));
    }
  }
  return life_[next_];
}

}  // namespace Soak
