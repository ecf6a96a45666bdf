// What resources cost: entries that name one, or two, on their journey; the rewrite of the users of
// a resource that changes; the question to an entry that waits for its resource; the restore of a
// record. In one run with W, a new configuration record with its log record and the version word,
// straight into the store.

#include <fmt/format.h>

#include <cstdlib>
#include <string>

#include "BenchAgent.h"
#include "StoreCosts.h"

namespace {

using Bench::Agent;
using Bench::Clock;
using Bench::nsSince;
using KelpEmServer::EsemFodoVd;
using KelpEmServer::Isem1Tag;

constexpr std::size_t kKeys = 60000;
constexpr std::size_t kInFlight = 10000;
constexpr int kRounds = 25;
constexpr int kQuestions = 10000;

void line(const std::string& what, double ns, double w, double goal) {
  fmt::print("  {:<58} {:8.1f} ns  {:5.2f} W{}\n", what, ns, ns / w,
             goal == 0 ? "" : fmt::format("   (goal {} W)", goal));
}

// An entry with the `resource`th of each of its resources.
Isem1Tag::Entry entryOf(const Isem1Tag::Entry::Key& key, std::size_t resource, std::uint32_t) {
  Isem1Tag::Entry entry;
  entry.logEntry.key = key;
  entry.rsrcKeys.inLifIdxKey.attachmentCircuit = static_cast<std::uint32_t>(resource + 1);
  return entry;
}
EsemFodoVd::Entry entryOf(const EsemFodoVd::Entry::Key& key, std::size_t resource,
                          std::uint32_t payload) {
  EsemFodoVd::Entry entry;
  entry.logEntry.key = key;
  entry.logEntry.outLif = payload;
  auto& edit = entry.rsrcKeys.vlanEditProfileKey.elements[0];
  edit.outerAction = KelpTunnelNiLib::VlanAction::push;
  edit.outerVlan = static_cast<std::uint16_t>(resource + 1);
  entry.rsrcKeys.remarkProfileKey.intf.value = 0x0100000000000000 + resource;
  return entry;
}

auto& tableOf(const Agent<Isem1Tag>& agent) { return *agent.resources.inLifIndex; }
auto& tableOf(const Agent<EsemFodoVd>& agent) { return *agent.resources.vlanEditProfile; }
const auto& resourceOf(const Isem1Tag::Entry& entry) { return entry.rsrcKeys.inLifIdxKey; }
const auto& resourceOf(const EsemFodoVd::Entry& entry) { return entry.rsrcKeys.vlanEditProfileKey; }

// The best of the rounds; `prepare` is not measured.
template <class Prepare, class Work>
double best(int rounds, std::size_t operations, Prepare prepare, Work work) {
  double ns = std::numeric_limits<double>::max();
  for (int round = 0; round < rounds; ++round) {
    prepare();
    const auto start = Clock::now();
    work();
    ns = std::min(ns, nsSince(start) / double(operations));
  }
  return ns;
}

template <class T>
void journey(double w, double goal) {
  Agent<T> agent(kKeys);
  std::size_t handled = 0;
  const Asic::OrderedSwTable::ResponseHandler handler = [&handled](const auto&) { ++handled; };
  std::uint32_t payload = 1;
  const auto write = [&](std::size_t resources) {
    for (std::size_t i = 0; i < kInFlight; ++i) {
      (void)agent.table->entryWriteWithResponseHandler(
          agent.keys[i], entryOf(agent.keys[i], i % resources, payload), nullptr, handler);
    }
    agent.pass();
    agent.report();
  };
  const auto clear = [&] {
    agent.table->entryRemoveAll(nullptr);
    agent.pass();
    agent.report();
    (void)agent.resources.work();
  };
  line("a new entry, of 100 resources", best(kRounds, kInFlight, clear, [&] { write(100); }), w,
       goal);
  line("an overwrite, the same resources",
       best(
           kRounds, kInFlight, [&] { ++payload; }, [&] { write(100); }),
       w, goal);
  if constexpr (std::is_same_v<T, Isem1Tag>) {
    line("a new entry, each of a resource of its own",
         best(kRounds, kInFlight, clear, [&] { write(kInFlight); }), w, 0);
  }
  clear();
  write(1);
  const auto& key = resourceOf(entryOf(agent.keys[0], 0, 0));
  const std::uint64_t before = agent.table->stats()->updateCnt();
  line("the rewrite of a user of a resource that changes",
       best(
           kRounds, kInFlight,
           [&] {
             agent.report();
             (void)agent.resources.work();
           },
           [&] {
             if (!tableOf(agent).change(key)) {
               fmt::print("unexpected: no change\n");
               std::exit(1);
             }
           }),
       w, 8);
  if (agent.table->stats()->updateCnt() - before != kInFlight * std::size_t(kRounds)) {
    fmt::print("unexpected: {} rewrites\n", agent.table->stats()->updateCnt() - before);
    std::exit(1);
  }
  agent.report();

  // One entry that waits, for a resource that nothing has used before.
  constexpr std::size_t kUnused = std::is_same_v<T, Isem1Tag> ? kInFlight : 150;
  const auto waits = entryOf(agent.keys[kInFlight], kUnused, 1);
  auto& resources = tableOf(agent);
  resources.prepareIs(resourceOf(waits),
                      std::remove_reference_t<decltype(resources)>::Stage::preparing);
  (void)agent.table->entryWrite(agent.keys[kInFlight], waits, nullptr);
  auto& resolver = *agent.group->groupResolver();
  line("a question to an entry that waits for its resource",
       best(
           kRounds, kQuestions, [] {},
           [&] {
             for (int i = 0; i < kQuestions; ++i) {
               resolver.updateGenId();
               (void)resolver.runPass();
             }
           }),
       w, 2);
  line("a pass while nothing changes",
       best(
           kRounds, kQuestions, [] {},
           [&] {
             for (int i = 0; i < kQuestions; ++i) {
               (void)resolver.runPass();
             }
           }),
       w, 0);
  if (handled == 0 || resolver.size() != 1) {
    fmt::print("unexpected: {} handled, {} wait\n", handled, resolver.size());
    std::exit(1);
  }
}

template <class T>
void restore(double w, std::size_t resources) {
  Agent<T> agent(kKeys);
  for (std::size_t i = 0; i < kKeys; ++i) {
    (void)agent.table->entryWrite(agent.keys[i], entryOf(agent.keys[i], i % resources, 1), nullptr);
    if (i % kInFlight == kInFlight - 1) {
      agent.pass();
      agent.report();
    }
  }
  line(fmt::format("restore of a record, of {} resources", resources),
       best(
           10, kKeys,
           [&] {
             agent.stop();
             agent.start(false);
           },
           [&] { agent.table = agent.intf->makeSwTable(Asic::UnitId{0}, nullptr, false); }),
       w, 8);
}

}  // namespace

int main() {
  const auto [w, h] = Bench::storeCosts(kKeys, kRounds);
  fmt::print("W {:.1f} ns\n\nIsem1Tag, one resource, {} in flight\n", w, kInFlight);
  journey<Isem1Tag>(w, 9);
  restore<Isem1Tag>(w, 100);
  restore<Isem1Tag>(w, kKeys);
  fmt::print("\nEsemFodoVd, two resources, {} in flight\n", kInFlight);
  journey<EsemFodoVd>(w, 14);
  restore<EsemFodoVd>(w, 100);
  return 0;
}
