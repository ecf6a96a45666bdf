#pragma once

#include <gtest/gtest.h>

#include <deque>
#include <filesystem>
#include <iterator>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Brio/Log.h"
#include "BrioSharedMem/EntityPath.h"
#include "Driver.h"
#include "ResourceCheck.h"

namespace ModelTest {

using Drivers = std::vector<std::unique_ptr<Driver>>;

// An agent with the tables of a run, and the model of it, through its restarts: what both do by
// themselves, told by random numbers.
class LiveAgent {
 public:
  LiveAgent(Drivers drivers, std::uint64_t seed)
      : drivers_(std::move(drivers)), model_(describe(drivers_), events_), random_(seed) {
    for (unsigned index = 0; index < drivers_.size(); ++index) {
      drivers_[index]->attach(index, events_, resources_);
      const Table& table = model_.table(index);
      for (unsigned linkage = 0; linkage < table.linkages; ++linkage) {
        kinds_.insert(Model::kindOf(table, linkage));
      }
    }
    // Too few, or some for those that change and have two for a while.
    limit_ = static_cast<std::uint32_t>(kResources - 1 + below(4));
    // Losses are made on purpose.
    previousSink_ = Brio::logSinkIs([this](const Brio::LogRecord&) { ++lossesReported_; });
  }
  ~LiveAgent() {
    stop();
    Brio::logSinkIs(previousSink_);
  }
  LiveAgent(const LiveAgent&) = delete;
  LiveAgent& operator=(const LiveAgent&) = delete;

  struct Coverage {
    std::uint64_t restarts = 0;
    std::uint64_t losses = 0;
    std::uint64_t commits = 0;
    std::uint64_t failed = 0;
    std::uint64_t succeeded = 0;
    std::uint64_t dependencies = 0;
    std::uint64_t changes = 0;    // of resources in use
    std::uint64_t exhausted = 0;  // writes that got no index
    std::uint64_t deadlines = 0;
  };
  // Whether there are more indexes than resources.
  [[nodiscard]] bool hasIndexesToSpare() const noexcept { return limit_ > kResources; }
  // What the tables of all runs have counted.
  [[nodiscard]] const Stats& counted() const noexcept { return counted_; }
  [[nodiscard]] const Coverage& coverage() const noexcept { return coverage_; }

 protected:
  static constexpr unsigned kAll = ~0U;

  std::uint64_t below(std::uint64_t limit) { return random_() % limit; }
  bool oneIn(std::uint64_t limit) { return below(limit) == 0; }
  template <class... Args>
  void note(fmt::format_string<Args...> format, Args&&... args) {
    history_.push_back(fmt::format(format, std::forward<Args>(args)...));
    if (history_.size() > 60) {
      history_.pop_front();
    }
  }

  // --- the agent's life ------------------------------------------------------------------------

  void start() {
    vault_ = Lumen::makeNode<Vault::EntityManager>("kelp-model", false, root_.path());
    agent_ = Lumen::makeNode<Asic::OrderedTableInterface>(vault_);
    marking_ = oneIn(2);
    agent_->skipMarkOnRestoreIs(!marking_);
    resources_.make(agent_, Asic::writableSharedMemory(*vault_), limit_);
    replayed_ = false;
    hardware_.emplace(Asic::writableSharedMemory(*vault_));
    touched_ = kAll;
    note("start marking {}", marking_);
    for (unsigned index = 0; index < drivers_.size(); ++index) {
      drivers_[index]->open(agent_);
      model_.open(index);
      make({index, 0});
    }
  }
  void stop() {
    for (const auto& driver : drivers_) {
      driver->drop();
    }
    if (agent_) {
      resources_.drop();
      agent_->stop();
      agent_ = nullptr;
      hardware_.reset();
      Asic::writableSharedMemory(*vault_)->entityDelAll();
      vault_ = nullptr;
    }
  }
  void newRun() {
    note("stop");
    stop();
    count();
    model_.stop();
    ++coverage_.restarts;
    if (oneIn(8)) {
      lose();
    }
    start();
  }
  void make(Place place) {
    touched_ = kAll;
    const bool reset = oneIn(10);
    note("make {} {} reset {}", drivers_[place.table]->name(), place.unit, reset);
    if (lostUnits_.erase({place.table, place.unit}) != 0) {
      ++losses_;
    }
    drivers_[place.table]->make(place.unit, reset);
    model_.make(place, reset, marking_);
  }
  // All units are there again that an earlier run had.
  void replayComplete() {
    for (unsigned index = 0; index < drivers_.size(); ++index) {
      for (unsigned unit = 0; unit < kUnits; ++unit) {
        if (!model_.has({index, unit})) {
          make({index, unit});
        }
      }
    }
    note("replay complete");
    poll();
    resources_.tables().replayComplete();
    replayed_ = true;
    touched_ = kAll;
  }

  // --- the loop --------------------------------------------------------------------------------

  void pass() {
    std::set<Resource> unresolved;
    for (const unsigned kind : kinds_) {
      for (unsigned number = 1; number <= kResources; ++number) {
        if (resources_.unresolved({kind, number})) {
          unresolved.insert({kind, number});
        }
      }
    }
    const std::size_t committed = group().groupResolver()->runPass();
    for (const Event& event : events_) {
      coverage_.exhausted += event.verdicts[0].exhausted || event.verdicts[1].exhausted ? 1U : 0U;
    }
    const std::size_t expected =
        model_.pass([&](Resource resource) { return unresolved.contains(resource); });
    stepFindings_.equal("committed", committed, expected);
    coverage_.commits += committed;
  }
  void poll() {
    const std::size_t news = group().pollStatus();
    stepFindings_.equal("tables with news", news, model_.poll());
    resources_.tables().work();
  }
  void reportAll() {
    for (unsigned index = 0; index < drivers_.size(); ++index) {
      Table& table = model_.table(index);
      hardware_->report(drivers_[index]->tableId(), table.tableVersion,
                        drivers_[index]->incarnation());
      table.row = table.tableVersion;
    }
    poll();
  }
  void expectNoResources(Findings& findings) {
    for (unsigned kind = 0; kind < kKinds; ++kind) {
      resources_.with(kind, [&](auto& table) {
        findings.equal("resources at the end", table.entrys(), 0U, kind);
        findings.equal("indexes at the end", table.indexesTaken(), 0U, kind);
        findings.equal("releases at the end", table.releases(), 0U, kind);
      });
      findings.equal("holds at the end", resources_.holds(kind).size(), 0U, kind);
    }
  }
  bool anyPrepared() {
    for (const unsigned kind : kinds_) {
      for (unsigned number = 1; number <= kResources; ++number) {
        if (resources_.prepared({kind, number})) {
          return true;
        }
      }
    }
    return false;
  }
  Place anyPlace() {
    return {static_cast<unsigned>(below(drivers_.size())), static_cast<unsigned>(below(kUnits))};
  }
  Asic::GroupInterface& group() {
    return *agent_->groupIntfColl()->groupIntf(
        Asic::Constants::canonicalizeGroupName("KelpTunnelNi", "KelpEmServerGroup"));
  }

  TestSupport::TempRoot root_;
  Drivers drivers_;
  std::deque<Event> events_;  // what the tables have told and the model not taken over
  Model model_;
  ResourceSide resources_;
  std::set<unsigned> kinds_;  // of resources that the tables name
  std::mt19937_64 random_;
  std::uint32_t limit_ = 0;
  bool replayed_ = false;  // the end of replay was told in this run
  Stats counted_;
  Findings stepFindings_;
  Lumen::Ptr<Vault::EntityManager> vault_;
  Lumen::Ptr<Asic::OrderedTableInterface> agent_;
  std::optional<TestSupport::HardwareSide> hardware_;
  bool marking_ = false;
  unsigned touched_ = kAll;
  std::set<std::pair<unsigned, unsigned>> lostUnits_;
  std::uint64_t losses_ = 0;
  std::uint64_t lossesReported_ = 0;
  Brio::LogSink previousSink_;
  std::deque<std::string> history_;
  Coverage coverage_;

 private:
  static std::vector<Table> describe(const Drivers& drivers) {
    std::vector<Table> tables;
    for (const auto& driver : drivers) {
      tables.push_back(driver->description());
    }
    return tables;
  }
  void count() {
    for (unsigned index = 0; index < drivers_.size(); ++index) {
      for (const auto& unit : model_.table(index).units) {
        if (unit) {
          counted_.resolveFails += unit->stats.resolveFails;
          counted_.updates += unit->stats.updates;
          counted_.failedUpdates += unit->stats.failedUpdates;
        }
      }
    }
  }
  // A file is gone when the agent comes back.
  void lose() {
    const Place place = anyPlace();
    const bool log = oneIn(3);
    const Lumen::String path =
        log ? drivers_[place.table]->logPath() : drivers_[place.table]->configPath(place.unit);
    if (!std::filesystem::remove(root_.path() + "/kelp-model/" + BrioSharedMem::encodedPath(path) +
                                 ".quilt")) {
      return;
    }
    note("lost {}", path);
    ++coverage_.losses;
    if (log) {
      model_.loseLog(place.table);
      ++losses_;
    } else {
      model_.loseConfig(place);
      lostUnits_.insert({place.table, place.unit});
    }
  }
};

}  // namespace ModelTest
