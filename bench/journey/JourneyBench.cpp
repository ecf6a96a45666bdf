// The journey of an operation in one process: entryWrite, the question and the commit, the report,
// the handler; beside what the store alone needs for the same records, in the same run.
//
//   W   a new configuration record, its log record and the version word, straight into the store
//   H   one hit of the store

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <limits>
#include <map>
#include <string>
#include <vector>

#include "BenchAgent.h"
#include "BrioSharedMem/EntityPath.h"
#include "HeapCount.h"
#include "Lumen/MemTrack.h"
#include "StoreCosts.h"

namespace {

constexpr std::size_t kInFlight = 10000;
constexpr std::size_t kKeys = 60000;
int rounds = 25;

using Bench::Clock;
using Bench::StoreCosts;

template <class T>
struct Agent : Bench::Agent<T> {
  Agent() : Bench::Agent<T>(kKeys) {}
};

// Nanoseconds per operation of the fastest round of each stage.
class Stages {
 public:
  void run(const std::string& stage, std::size_t operations, const std::function<void()>& work) {
    const std::uint64_t before = Bench::heapAllocations();
    const auto start = Clock::now();
    work();
    const double ns =
        std::chrono::duration<double, std::nano>(Clock::now() - start).count() / double(operations);
    auto [at, fresh] = best_.try_emplace(stage, ns);
    if (fresh) {
      order_.push_back(stage);
    } else {
      at->second = std::min(at->second, ns);
    }
    heap_[stage] = double(Bench::heapAllocations() - before) / double(operations);
  }
  [[nodiscard]] double ns(const std::string& stage) const { return best_.at(stage); }
  [[nodiscard]] double total() const {
    double sum = 0;
    for (const auto& [stage, ns] : best_) {
      sum += ns;
    }
    return sum;
  }
  void print(const std::string& title, double w) const {
    fmt::print("{:<34} {:8.1f} ns  {:5.2f} W\n", title, total(), total() / w);
    for (const std::string& stage : order_) {
      fmt::print("    {:<30} {:8.1f} ns  {:4.0f} %   {:.2f} heap allocations\n", stage,
                 best_.at(stage), 100 * best_.at(stage) / total(), heap_.at(stage));
    }
  }

 private:
  std::map<std::string, double> best_;
  std::map<std::string, double> heap_;
  std::vector<std::string> order_;
};

template <class T>
void journey(const StoreCosts& store) {
  Agent<T> agent;
  auto& table = *agent.table;
  std::size_t handled = 0;
  const Asic::OrderedSwTable::ResponseHandler handler = [&handled](const auto&) { ++handled; };
  std::size_t first = 0;
  const auto write = [&](std::uint64_t variant) {
    for (std::size_t i = first; i < first + kInFlight; ++i) {
      (void)table.entryWriteWithResponseHandler(
          agent.keys[i], TestSupport::sampleEntry<typename T::Entry>(agent.keys[i], variant),
          nullptr, handler);
    }
  };
  const auto remove = [&] {
    for (std::size_t i = first; i < first + kInFlight; ++i) {
      (void)table.entryRemoveWithResponseHandler(agent.keys[i], nullptr, handler);
    }
  };
  Stages writes;
  Stages overwrites;
  Stages removes;
  Stages removeAlls;
  double entryRead = std::numeric_limits<double>::max();
  for (int round = 0; round < rounds; ++round) {
    first = std::size_t(round) * kInFlight % kKeys;
    writes.run("entryWrite", kInFlight, [&] { write(1); });
    writes.run("question and commit", kInFlight, [&] { agent.pass(); });
    writes.run("report and handler", kInFlight, [&] { agent.report(); });
    overwrites.run("entryWrite", kInFlight, [&] { write(2 + std::uint64_t(round)); });
    overwrites.run("question and commit", kInFlight, [&] { agent.pass(); });
    overwrites.run("report and handler", kInFlight, [&] { agent.report(); });
    std::uint64_t sum = 0;
    const auto start = Clock::now();
    for (std::size_t i = first; i < first + kInFlight; ++i) {
      sum += table.entryRead(agent.keys[i]).logEntry.isEq(typename T::Entry().logEntry) ? 0U : 1U;
    }
    entryRead =
        std::min(entryRead, std::chrono::duration<double, std::nano>(Clock::now() - start).count() /
                                double(kInFlight));
    if (sum == 0) {
      std::abort();
    }
    removes.run("entryRemove", kInFlight, remove);
    removes.run("question and commit", kInFlight, [&] { agent.pass(); });
    removes.run("report and handler", kInFlight, [&] { agent.report(); });
    write(1);
    agent.pass();
    agent.report();
    removeAlls.run("entryRemoveAll", kInFlight, [&] { table.entryRemoveAll(nullptr); });
    removeAlls.run("question and commit", kInFlight, [&] { agent.pass(); });
    removeAlls.run("report", kInFlight, [&] { agent.report(); });
  }
  if (handled != 4 * kInFlight * std::size_t(rounds)) {
    fmt::print("unexpected: {} handlers ran\n", handled);
    std::exit(1);
  }
  fmt::print("\n{}, {} in flight\n", T::name.view(), kInFlight);
  writes.print("  a new entry", store.w);
  overwrites.print("  an overwrite", store.w);
  removes.print("  a remove", store.w);
  removeAlls.print("  a remove-all, per entry", store.w);
  fmt::print("  entryRead of a committed key       {:8.1f} ns  {:5.2f} H\n", entryRead,
             entryRead / store.h);

  // What is in flight, in bytes, without the entry itself.
  const auto bytes = [] {
    std::uint64_t all = 0;
    Lumen::MemTrack::forEach([&](const Lumen::MemTrack& tracker) { all += tracker.liveBytes(); });
    return all;
  };
  const std::uint64_t before = bytes();
  write(1);
  fmt::print("  memory of an entry in flight       {:8.1f} bytes and the entry\n",
             double(bytes() - before) / double(kInFlight) - double(sizeof(typename T::Entry)));
  agent.pass();
  agent.report();
}

// What a committed entry takes in the store: the blocks of the unit's file, all keys present.
template <class T>
void memory() {
  Agent<T> agent;
  for (std::size_t i = 0; i < kKeys; ++i) {
    (void)agent.table->entryWrite(
        agent.keys[i], TestSupport::sampleEntry<typename T::Entry>(agent.keys[i], 1), nullptr);
    if (i % kInFlight == kInFlight - 1) {
      agent.pass();
      agent.report();
    }
  }
  agent.pass();
  agent.report();
  const auto& map = agent.intf->entryLog()->tableConfigQuilt(Asic::UnitId{0})->swTableEntries();
  const std::string file =
      agent.root.path() + "/bench-" + T::name.c_str() + "/" +
      BrioSharedMem::encodedPath(KelpEmServer::KelpConstants<T>::configQuiltPath(Asic::UnitId{0})) +
      ".quilt";
  struct stat status {};
  if (stat(file.c_str(), &status) != 0) {
    fmt::print("unexpected: no file {}\n", file);
    std::exit(1);
  }
  const double entries = agent.table->entrys();
  const double record = sizeof(typename KelpEmServer::KelpEntryLog<T>::ConfigRecord);
  const double all = double(status.st_blocks) * 512 / entries;
  const double heads = 8.0 * map.file()->geometry().buckets / entries;
  fmt::print("{:<14} {:6.1f} bytes a committed entry: the record {}, heads {:.1f}, else {:.1f}\n",
             T::name.view(), all, record, heads, all - record - heads);
}

}  // namespace

// journey_bench [TABLE [ROUNDS]]: one table only, for a profile.
int main(int argc, char** argv) {
  const std::string only = argc > 1 ? argv[1] : "";
  if (argc > 2) {
    rounds = std::atoi(argv[2]);
  }
  const StoreCosts store = Bench::storeCosts(kKeys, rounds);
  fmt::print("W {:.1f} ns, H {:.1f} ns\n", store.w, store.h);
  KelpEmServer::TableList<KelpEmServer::EsemFodo, KelpEmServer::Isem1Tag,
                          KelpEmServer::EsemFodoVd>::forEach([&](auto tag) {
    using T = typename decltype(tag)::Table;
    if (only.empty() || only == T::name.view()) {
      journey<T>(store);
    }
  });
  fmt::print("\nWhat {} entries take in the file of a unit (goal: else no more than 24)\n", kKeys);
  memory<KelpEmServer::EsemFodo>();
  memory<KelpEmServer::Isem1Tag>();
  memory<KelpEmServer::EsemFodoVd>();
  return 0;
}
