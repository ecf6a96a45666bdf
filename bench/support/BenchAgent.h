#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <string>
#include <vector>

#include "Asic/Constants.h"
#include "Asic/OrderedTableInterface.h"
#include "Asic/SharedMemory.h"
#include "KelpEmServer/AllTables.h"
#include "KelpTunnelNiLib/ResourceTableSet.h"
#include "Quilt/IterHint.h"
#include "SampleEntries.h"
#include "TempRoot.h"

// An agent with one table for the benchmarks of the library, and what the store alone needs for the
// same records.

namespace Bench {

using Clock = std::chrono::steady_clock;

inline double nsSince(Clock::time_point start) {
  return std::chrono::duration<double, std::nano>(Clock::now() - start).count();
}

// Nanoseconds per operation of the fastest of `rounds`.
template <class Work>
double fastest(int rounds, std::size_t operations, Work work) {
  double best = std::numeric_limits<double>::max();
  for (int round = 0; round < rounds; ++round) {
    const auto start = Clock::now();
    work();
    best = std::min(best, nsSince(start) / double(operations));
  }
  return best;
}

// Keeps a result, so that its computation is not left out.
inline void keep(std::uint64_t value) {
  static std::atomic<std::uint64_t> kept;
  kept.store(value, std::memory_order_relaxed);
}

// An agent with the software table of unit 0, over a store of its own, and the sample keys in an
// order of no regularity. It can be stopped and started again over the same store.
template <class T>
struct Agent {
  using Table = KelpEmServer::KelpSwTable<T>;
  using Entry = typename T::Entry;
  using Key = typename Entry::Key;

  explicit Agent(std::size_t keyCount, bool marking = false) {
    start(marking);
    table = intf->makeSwTable(Asic::UnitId{0}, nullptr, false);
    for (std::size_t i = 0; i < keyCount; ++i) {
      keys.push_back(TestSupport::sampleKey<Key>(i * 2654435761U % keyCount));
    }
  }
  ~Agent() { stop(); }
  Agent(const Agent&) = delete;
  Agent& operator=(const Agent&) = delete;

  // Up to the interface; the table is made by who wants it.
  void start(bool marking) {
    vault = Lumen::makeNode<Vault::EntityManager>(std::string("bench-") + T::name.c_str(), false,
                                                  root.path());
    agent = Lumen::makeNode<Asic::OrderedTableInterface>(vault);
    agent->skipMarkOnRestoreIs(!marking);
    resources = KelpTunnelNiLib::ResourceTableSet::make(agent);
    intf = KelpEmServer::KelpInterface<T>::getIntf(agent);
    group = agent->groupIntfColl()->groupIntf(
        Asic::Constants::canonicalizeGroupName(KelpEmServer::kAgentName, KelpEmServer::kGroupName));
  }
  void stop() {
    table = nullptr;
    intf = nullptr;
    group = nullptr;
    resources = {};
    agent->stop();
    agent = nullptr;
    Asic::writableSharedMemory(*vault)->entityDelAll();
  }

  void pass() {
    while (group->groupResolver()->runPass() != 0) {
    }
  }
  void report() { table->tableStatusVersion(intf->entryLog()->tableVersion()); }
  // Commits entries of the first `count` keys, and has them reported.
  void fill(std::size_t count, std::uint64_t variant) {
    for (std::size_t i = 0; i < count; ++i) {
      (void)table->entryWrite(keys[i], TestSupport::sampleEntry<Entry>(keys[i], variant), nullptr);
      if (i % 10000 == 9999) {
        pass();
        report();
      }
    }
    pass();
    report();
  }
  auto& records() { return intf->entryLog()->tableConfigQuilt(Asic::UnitId{0})->swTableEntries(); }

  TestSupport::TempRoot root;
  Lumen::Ptr<Vault::EntityManager> vault;
  Lumen::Ptr<Asic::OrderedTableInterface> agent;
  KelpTunnelNiLib::ResourceTableSet resources;
  Lumen::Ptr<KelpEmServer::KelpInterface<T>> intf;
  Lumen::Ptr<Table> table;
  Lumen::Ptr<Asic::GroupInterface> group;
  std::vector<Key> keys;
};

// H: one hit of the store, on the configuration collection of `agent`, all of whose keys are there.
template <class T>
double storeHit(Agent<T>& agent, int rounds) {
  const auto& records = agent.records();
  return fastest(rounds, agent.keys.size(), [&] {
    std::uint64_t sum = 0;
    for (const auto& key : agent.keys) {
      bool found = false;
      sum += records.find(key, found).version.value;
    }
    keep(sum);
  });
}

// S: one record of a plain walk of the store, on the same collection.
template <class T>
double storeWalk(Agent<T>& agent, int rounds) {
  const auto& records = agent.records();
  return fastest(rounds, records.size(), [&] {
    std::uint64_t sum = 0;
    typename KelpEmServer::KelpEntryLog<T>::ConfigRecord record;
    Quilt::IterHint hint;
    for (bool more = records.first(record, hint); more;
         more = records.next(record.quiltKey(), record, hint)) {
      sum += record.version.value;
    }
    keep(sum);
  });
}

}  // namespace Bench
