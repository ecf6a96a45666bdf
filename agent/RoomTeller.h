#pragma once

#include <chrono>
#include <unordered_map>

#include "common/AnyTable.h"

namespace Agent {

// Tells people why intents fail or wait although nothing is wrong with them: there is no room for
// them. Of each table on each unit at most once in kSilence.
class RoomTeller {
 public:
  static constexpr std::chrono::seconds kSilence{10};

  // An intent of the table has failed, on this key, or waits; `key` is null then. Cheap while there
  // is nothing to tell.
  void look(const Common::AnyTable& table, const Common::AnyKey* key);

 private:
  std::unordered_map<const Common::AnyTable*, std::chrono::steady_clock::time_point> told_;
};

}  // namespace Agent
