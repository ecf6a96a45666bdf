#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>

#include "BenchAgent.h"

namespace Bench {

struct StoreCosts {
  double w;
  double h;
};

// W and H, on the collections of Isem1Tag, whose configuration record has 64 bytes.
inline StoreCosts storeCosts(std::size_t keys, int rounds) {
  using T = KelpEmServer::Isem1Tag;
  Agent<T> agent(keys);
  const auto config = agent.intf->entryLog()->tableConfigQuilt(Asic::UnitId{0});
  const auto log = agent.intf->entryLog()->tableEntryLog();
  const auto control = log->collectionControl();
  using Config = KelpTunnelNiLib::Isem1TagConfigQuiltEntry;
  using Log = KelpTunnelNiLib::Isem1TagLogQuiltEntry;
  double w = std::numeric_limits<double>::max();
  double h = w;
  std::uint64_t version = 0;
  for (int round = 0; round < rounds; ++round) {
    const std::uint64_t first = version + 1;
    const auto start = Clock::now();
    for (std::size_t i = 0; i < keys; ++i) {
      ++version;
      KelpTunnelNiLib::Isem1TagEntry entry;
      entry.logEntry.key = agent.keys[i];
      config->swTableEntriesIs(Config(entry, Asic::LogVersion{version}, false));
      log->entryLogConfigIs(Log(Asic::LogVersion{version}, entry.logEntry, Asic::UnitId{0}, 0));
      control->scratchpadIs(version);
    }
    w = std::min(
        w, std::chrono::duration<double, std::nano>(Clock::now() - start).count() / double(keys));
    h = std::min(h, storeHit(agent, 1));
    for (std::uint64_t v = first; v <= version; ++v) {
      log->entryLogConfigDel(Asic::LogVersion{v});
    }
    for (std::size_t i = 0; i < keys; ++i) {
      config->swTableEntriesDel(agent.keys[i]);
    }
  }
  return {w, h};
}

}  // namespace Bench
