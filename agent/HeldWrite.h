#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "agent/LaterSource.h"
#include "common/AnyTable.h"
#include "common/Intent.h"

namespace Agent {

// A line that was replaced by a later one, and whose outcome is the later one's.
struct Replaced {
  std::shared_ptr<Source> source;
  std::uint64_t line;
  Common::IntentOp op;
  Common::AnyKey key;
};

// A write that failed and is to be written again: all that it takes to do so, and to tell of it.
struct HeldWrite {
  std::size_t place = 0;  // of its table and unit
  Common::AnyKey key;
  std::unique_ptr<Common::Intent> intent;
  LaterSource source;
  std::uint64_t line = 0;
  std::vector<Replaced> replaces;
  // What it came after, while the hardware side has not reported it; null: nothing. And the place
  // of its table and unit.
  Common::AnyTable::Handle dependency;
  std::size_t dependencyPlace = 0;
  std::chrono::steady_clock::time_point since;  // of its acceptance
};

}  // namespace Agent
