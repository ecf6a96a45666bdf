// What a restart and a walk cost, beside the store's own figures for the same records, in one run:
//
//   H   one hit of the store
//   S   one record of a plain walk of the store
//   K   one hit of the keyed collection of the writes in flight
//   J   the journey of an overwrite: entryWrite, question and commit, report
//
//   restart_bench [TABLE]      one table only; "all" for the start of all tables alone

#include <fmt/format.h>
#include <sys/stat.h>

#include <memory>
#include <random>

#include "BenchAgent.h"
#include "BrioSharedMem/EntityPath.h"
#include "HardwareSide.h"
#include "KelpTunnelNiLib/ResourceTableSet.h"

namespace {

using Bench::Agent;
using Bench::Clock;
using Bench::fastest;
using Bench::nsSince;

constexpr std::size_t kEntries = 65536;
constexpr std::size_t kInFlight = 10000;
constexpr int kRounds = 25;

void line(const std::string& what, double ns, double unit, const char* unitName, double goal) {
  fmt::print("  {:<52} {:8.1f} ns {:6.2f} {}{}\n", what, ns, ns / unit, unitName,
             goal == 0 ? "" : fmt::format("   (goal {} {})", goal, unitName));
}

// Bytes that the table's change log takes from the file system.
template <class T>
std::int64_t logBytes(const Agent<T>& agent) {
  struct stat status {};
  const std::string file =
      agent.root.path() + "/bench-" + T::name.c_str() + "/" +
      BrioSharedMem::encodedPath(KelpEmServer::KelpConstants<T>::tableEntryLogQuiltPath()) +
      ".quilt";
  if (stat(file.c_str(), &status) != 0) {
    fmt::print("no log at {}\n", file);
    std::exit(1);
  }
  return std::int64_t{status.st_blocks} * 512;
}

// The fastest of rounds in which the work and the store's plain walk take turns, so that whatever
// else the machine does meets both.
struct Paired {
  double ns = std::numeric_limits<double>::max();
  double s = std::numeric_limits<double>::max();

  void print(const std::string& what, double goal) const { line(what, ns, s, "S", goal); }
};

template <class T>
std::uint64_t walk(const Agent<T>& agent) {
  std::uint64_t count = 0;
  for (const auto& entry : agent.table->entries()) {
    count += entry.logEntry.isEq(typename T::Entry().logEntry) ? 0 : 1;
  }
  return count;
}

template <class T>
Paired pairedWalk(Agent<T>& agent) {
  Paired paired;
  for (int round = 0; round < kRounds; ++round) {
    paired.s = std::min(paired.s, Bench::storeWalk(agent, 1));
    paired.ns = std::min(paired.ns, fastest(1, kEntries, [&] { Bench::keep(walk(agent)); }));
  }
  return paired;
}

template <class T>
void walks(Agent<T>& agent) {
  pairedWalk(agent).print("iteration, configuration", 3);
  // Operations in flight on keys that the configuration has, too: each record is asked for in both
  // collections.
  for (std::size_t i = 0; i < kInFlight; ++i) {
    const auto& key = agent.keys[i];
    if (i % 2 == 0) {
      (void)agent.table->entryWrite(key, TestSupport::sampleEntry<typename T::Entry>(key, 1),
                                    nullptr);
    } else {
      (void)agent.table->entryRemove(key, nullptr);
    }
  }
  pairedWalk(agent).print("iteration, 10,000 operations in flight", 0);
  agent.pass();
  agent.fill(kEntries, 1);
}

template <class T>
void transientWalk() {
  Agent<T> agent(kInFlight);
  for (const auto& key : agent.keys) {
    (void)agent.table->entryWrite(key, TestSupport::sampleEntry<typename T::Entry>(key, 1),
                                  nullptr);
  }
  // In an order that is not that of their making.
  std::shuffle(agent.keys.begin(), agent.keys.end(), std::mt19937(1));
  const auto lookup = [&](const auto& key) {
    return std::size_t{agent.table->transientAddEntry()[key]->value()->key() == key};
  };
  const double k = fastest(kRounds, kInFlight, [&] {
    std::size_t sum = 0;
    for (const auto& key : agent.keys) {
      sum += lookup(key);
    }
    Bench::keep(sum);
  });
  const double waiting = fastest(kRounds, kInFlight, [&] {
    std::size_t at = 0;
    while (at < agent.keys.size()) {
      at += lookup(agent.keys[at]);
    }
    Bench::keep(at);
  });
  line("K", k, k, "K", 0);
  line("the same, each waiting for the one before", waiting, k, "K", 0);
  line("iteration, writes in flight",
       fastest(kRounds, kInFlight, [&] { Bench::keep(walk(agent)); }), k, "K", 2);
}

template <class T>
void sweeps(Agent<T>& agent) {
  Paired paired;
  for (int round = 0; round < kRounds; ++round) {
    paired.s = std::min(paired.s, Bench::storeWalk(agent, 1));
    agent.table->mark();
    for (const auto& key : agent.keys) {
      agent.table->markedKeyIs(key);
    }
    const auto start = Clock::now();
    agent.table->sweep();
    paired.ns = std::min(paired.ns, nsSince(start) / double(kEntries));
  }
  if (agent.table->stats()->entryRemoveCnt() != 0) {
    fmt::print("unexpected: the sweep removed something\n");
    std::exit(1);
  }
  paired.print("sweep of an entry that stays", 6);
}

// The first kInFlight entries written as they are or otherwise, to the report; ns per entry.
template <class T>
double journey(Agent<T>& agent, std::uint64_t variant) {
  std::size_t ended = 0;
  const auto start = Clock::now();
  for (std::size_t i = 0; i < kInFlight; ++i) {
    (void)agent.table->entryWriteWithResponseHandler(
        agent.keys[i], TestSupport::sampleEntry<typename T::Entry>(agent.keys[i], variant), nullptr,
        [&ended](const auto&) { ++ended; });
  }
  agent.pass();
  agent.report();
  const double ns = nsSince(start) / double(kInFlight);
  if (ended != kInFlight) {
    fmt::print("unexpected: {} handlers ran\n", ended);
    std::exit(1);
  }
  return ns;
}

template <class T>
void replay(Agent<T>& agent) {
  double j = std::numeric_limits<double>::max();
  double same = j;
  std::int64_t bytes = 0;
  for (int round = 0; round < kRounds; ++round) {
    j = std::min(j, journey(agent, 2 + std::uint64_t(round)));
    const std::uint64_t version = agent.intf->entryLog()->tableVersion().value;
    const std::int64_t before = logBytes(agent);
    agent.table->mark();
    same = std::min(same, journey(agent, 2 + std::uint64_t(round)));
    bytes += logBytes(agent) - before;
    bytes += std::int64_t(agent.intf->entryLog()->tableVersion().value - version);
    agent.table->inMarkingStateIs(false);
    agent.table->markedKeyDelAll();
  }
  line("J", j, j, "J", 0);
  line(fmt::format("identical write in a replay, {} bytes of log", bytes), same, j, "J", 2);
}

template <class T>
void cleanup(Agent<T>& agent, double h) {
  auto& log = *agent.intf->entryLog();
  double find = std::numeric_limits<double>::max();
  double writes = find;
  double deletes = find;
  for (int round = 0; round < kRounds; ++round) {
    const auto versions = [&] {
      agent.pass();
      const std::uint64_t last = log.tableVersion().value;
      find = std::min(find, fastest(1, kInFlight, [&] {
                        std::uint64_t sum = 0;
                        for (std::uint64_t v = last - kInFlight + 1; v <= last; ++v) {
                          bool found = false;
                          sum += log.tableEntryLog()
                                     ->entryLogConfig()
                                     .find(Asic::LogVersion{v}, found)
                                     .version.value;
                        }
                        Bench::keep(sum);
                      }));
      return fastest(1, kInFlight, [&] { log.cleanupEntryLog(Asic::LogVersion{last}); });
    };
    for (std::size_t i = 0; i < kInFlight; ++i) {
      (void)agent.table->entryWrite(
          agent.keys[i],
          TestSupport::sampleEntry<typename T::Entry>(agent.keys[i], 50 + std::uint64_t(round)),
          nullptr);
    }
    writes = std::min(writes, versions());
    for (std::size_t i = 0; i < kInFlight; ++i) {
      (void)agent.table->entryRemove(agent.keys[i], nullptr);
    }
    deletes = std::min(deletes, versions());
    agent.report();
  }
  agent.fill(kInFlight, 1);
  line("one log record looked up", find, h, "H", 0);
  line("cleanup of a write's log record", writes, h, "H", 2);
  line("cleanup of a delete's log record and its record", deletes, h, "H", 0);
}

template <class T>
void restart(Agent<T>& agent) {
  for (const bool row : {false, true}) {
    double interface = std::numeric_limits<double>::max();
    Paired table;
    if (row) {
      TestSupport::HardwareSide hardware(Asic::writableSharedMemory(*agent.vault));
      hardware.report(T::tableId, agent.intf->entryLog()->tableVersion().value,
                      agent.intf->entryLog()->tableEntryLog()->collectionControl()->incarnation());
    }
    for (int round = 0; round < kRounds; ++round) {
      agent.stop();
      auto start = Clock::now();
      agent.start(true);
      interface = std::min(interface, nsSince(start));
      start = Clock::now();
      agent.table = agent.intf->makeSwTable(Asic::UnitId{0}, nullptr, false);
      table.ns = std::min(table.ns, nsSince(start) / double(kEntries));
      table.s = std::min(table.s, Bench::storeWalk(agent, 1));
      if (agent.table->entrys() != kEntries) {
        fmt::print("unexpected: {} entries\n", agent.table->entrys());
        std::exit(1);
      }
    }
    table.print(row ? "mount and restore of a record, with a status row"
                    : "mount and restore of a record, without a status row",
                3);
    fmt::print("  {:<52} {:8.2f} ms\n", "agent and interface, log empty", interface / 1e6);
  }
}

template <class T>
void oneTable() {
  fmt::print("\n{}, {} entries of {} bytes\n", T::name.view(), kEntries,
             sizeof(typename KelpEmServer::KelpEntryLog<T>::ConfigRecord));
  transientWalk<T>();  // with an agent of its own
  Agent<T> agent(kEntries);
  agent.fill(kEntries, 1);
  const double s = Bench::storeWalk(agent, kRounds);
  const double h = Bench::storeHit(agent, kRounds);
  line("S", s, s, "S", 0);
  line("H", h, h, "H", 0);
  sweeps(agent);
  walks(agent);
  replay(agent);
  cleanup(agent, h);
  agent.fill(kEntries, 1);
  restart(agent);
}

// --- all tables

class AnyTable {
 public:
  AnyTable() = default;
  AnyTable(const AnyTable&) = delete;
  AnyTable& operator=(const AnyTable&) = delete;
  virtual ~AnyTable() = default;
  virtual void fill(Asic::GroupInterface& group, std::size_t from, std::size_t to) = 0;
  virtual void report(TestSupport::HardwareSide& hardware) = 0;
};

template <class T>
class OneTable final : public AnyTable {
 public:
  explicit OneTable(const Lumen::Ptr<Asic::OrderedTableInterface>& agent)
      : intf_(KelpEmServer::KelpInterface<T>::getIntf(agent)) {
    for (std::uint16_t unit = 0; unit < 2; ++unit) {
      tables_.push_back(intf_->makeSwTable(Asic::UnitId{unit}, nullptr, false));
    }
  }
  void fill(Asic::GroupInterface& group, std::size_t from, std::size_t to) override {
    using Entry = typename T::Entry;
    for (const auto& table : tables_) {
      for (std::size_t i = from; i < to; ++i) {
        const auto key = TestSupport::sampleKey<typename Entry::Key>(i * 2654435761U % kEntries);
        (void)table->entryWrite(key, TestSupport::sampleEntry<Entry>(key, i), nullptr);
        if (i % kInFlight == 0 || i + 1 == to) {
          while (group.groupResolver()->runPass() != 0) {
          }
          table->tableStatusVersion(intf_->entryLog()->tableVersion());
        }
      }
    }
  }
  void report(TestSupport::HardwareSide& hardware) override {
    hardware.report(T::tableId, intf_->entryLog()->tableVersion().value,
                    intf_->entryLog()->tableEntryLog()->collectionControl()->incarnation());
  }

 private:
  Lumen::Ptr<KelpEmServer::KelpInterface<T>> intf_;
  std::vector<Lumen::Ptr<KelpEmServer::KelpSwTable<T>>> tables_;
};

// The start of an agent with all tables on two units, without what its features do.
class WholeAgent {
 public:
  ~WholeAgent() { stop(); }

  void start() {
    vault_ = Lumen::makeNode<Vault::EntityManager>("bench-all", false, root_.path());
    agent_ = Lumen::makeNode<Asic::OrderedTableInterface>(vault_);
    (void)KelpTunnelNiLib::ResourceTableSet::make(agent_);
    KelpEmServer::AllTables::forEach([&](auto tag) {
      tables_.push_back(std::make_unique<OneTable<typename decltype(tag)::Table>>(agent_));
    });
  }
  void stop() {
    tables_.clear();
    agent_->stop();
    agent_ = nullptr;
    Asic::writableSharedMemory(*vault_)->entityDelAll();
  }
  void fill(std::size_t from, std::size_t to) {
    const auto group = agent_->groupIntfColl()->groupIntf(
        Asic::Constants::canonicalizeGroupName(KelpEmServer::kAgentName, KelpEmServer::kGroupName));
    TestSupport::HardwareSide hardware(Asic::writableSharedMemory(*vault_));
    for (const auto& table : tables_) {
      table->fill(*group, from, to);
      table->report(hardware);
    }
  }

 private:
  TestSupport::TempRoot root_;
  Lumen::Ptr<Vault::EntityManager> vault_;
  Lumen::Ptr<Asic::OrderedTableInterface> agent_;
  std::vector<std::unique_ptr<AnyTable>> tables_;
};

void allTables() {
  fmt::print("\nthe start of 8 tables on 2 units\n");
  WholeAgent agent;
  agent.start();
  std::size_t filled = 0;
  for (const std::size_t entries : {kEntries / 8, kEntries / 4, kEntries / 2, kEntries}) {
    agent.fill(filled, entries);
    filled = entries;
    double best = std::numeric_limits<double>::max();
    for (int round = 0; round < kRounds; ++round) {
      agent.stop();
      const auto start = Clock::now();
      agent.start();
      best = std::min(best, nsSince(start));
    }
    fmt::print("  {:>6} entries each: {:7.1f} ms, {:5.1f} ns an entry{}\n", entries, best / 1e6,
               best / double(16 * entries), entries == kEntries ? "   (goal 150 ms)" : "");
  }
}

}  // namespace

int main(int argc, char** argv) {
  const std::string only = argc > 1 ? argv[1] : "";
  KelpEmServer::TableList<KelpEmServer::EsemFodo, KelpEmServer::Isem1Tag,
                          KelpEmServer::EsemFodoVd>::forEach([&](auto tag) {
    using T = typename decltype(tag)::Table;
    if (only.empty() || only == T::name.view()) {
      oneTable<T>();
    }
  });
  if (only.empty() || only == "all") {
    allTables();
  }
  return 0;
}
