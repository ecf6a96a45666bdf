#include "agent/RoomTeller.h"

#include <string>

#include "agent/Say.h"

namespace Agent {

void RoomTeller::look(const Common::AnyTable& table, const Common::AnyKey* key) {
  const auto now = std::chrono::steady_clock::now();
  const auto told = told_.find(&table);
  if (told != told_.end() && now - told->second < kSilence) {
    return;
  }
  const std::string lack = table.lackOfRoom(key);
  if (lack.empty()) {
    return;
  }
  told_[&table] = now;
  say("no room for {} of {}, unit {}: {}", key == nullptr ? "changes, which wait," : "new entries",
      table.name(), table.unit(), lack);
}

}  // namespace Agent
