#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Asic/Constants.h"
#include "Asic/GenId.h"
#include "Asic/OrderedTableInterface.h"
#include "Asic/SharedMemory.h"
#include "Brio/TraceHandle.h"
#include "HardwareSide.h"
#include "KelpEmServer/AllTables.h"
#include "KelpTunnelNiLib/ResourceTableSet.h"
#include "SampleEntries.h"
#include "TempRoot.h"
#include "Vault/EntityManager.h"

namespace TestSupport {

#ifdef KELP_FEW_TABLES
// One of each kind: no resource, two, one.
using AllTableTypes =
    testing::Types<KelpEmServer::EsemFodo, KelpEmServer::EsemFodoVd, KelpEmServer::Isem1Tag>;
#else
using AllTableTypes =
    testing::Types<KelpEmServer::EsemFodo, KelpEmServer::EsemFodoVd, KelpEmServer::Isem1Tag,
                   KelpEmServer::Isem2Tag, KelpEmServer::IsemInnerEth, KelpEmServer::IsemMpls,
                   KelpEmServer::IsemUntagged, KelpEmServer::LemVpwsAc>;
#endif

// The name of a table in the names of its tests.
struct TableTestName {
  template <class T>
  static std::string GetName(int) {
    return std::string(T::name.view());
  }
};

// An agent in the process of the test, over a store of its own: one table, with its software tables
// made on demand. The agent can be stopped and started again over the same store.
template <class T>
class TableFixture : public testing::Test {
 public:
  using Interface = KelpEmServer::KelpInterface<T>;
  using Table = KelpEmServer::KelpSwTable<T>;
  using Entry = typename T::Entry;
  using Key = typename Entry::Key;
  using EntryState = Asic::EntryState;

  static Key key(std::uint64_t number) { return sampleKey<Key>(number); }
  static Entry entry(std::uint64_t number, std::uint64_t variant = 0) {
    return sampleEntry<Entry>(key(number), variant);
  }
  // How many resource tables the table is linked to.
  static std::size_t linkages() {
    std::size_t count = 0;
    T::Linkages::forEachKind([&](auto) { ++count; });
    return count;
  }
  static constexpr Asic::UnitId unit0{0};
  static constexpr Asic::UnitId unit1{1};

 protected:
  void TearDown() override { stop(); }

  // Starts an agent, unless one runs. Tables do not begin to mark unless `marking`.
  void start(bool marking = false) {
    if (agent_) {
      return;
    }
    vault_ = Lumen::makeNode<Vault::EntityManager>("kelp-test", false, root_.path());
    vault_->entityIs<Asic::GenId>("hardware/tinsel/agent/relaunch/config/KelpTunnelNi");
    agent_ = Lumen::makeNode<Asic::OrderedTableInterface>(vault_);
    agent_->skipMarkOnRestoreIs(!marking);
    resources_ = KelpTunnelNiLib::ResourceTableSet::make(agent_);
  }
  // Ends the agent: what is in flight is dropped, shared memory stays.
  void stop() {
    if (agent_) {
      resources_ = {};
      agent_->stop();
      agent_ = nullptr;
      hardware_.reset();
      memory()->entityDelAll();
      vault_ = nullptr;
    }
  }
  void restart(bool marking = false) {
    stop();
    start(marking);
  }

  Lumen::Ptr<Interface> intf() {
    start();
    return Interface::getIntf(agent_);
  }
  Lumen::Ptr<Table> table(Asic::UnitId unit = unit0) {
    return intf()->makeSwTable(unit, nullptr, false);
  }
  Lumen::Ptr<Asic::GroupInterface> group() {
    return agent_->groupIntfColl()->groupIntf(
        Asic::Constants::canonicalizeGroupName("KelpTunnelNi", "KelpEmServerGroup"));
  }
  Lumen::Ptr<BrioSharedMem::EntityManager> memory() { return Asic::writableSharedMemory(*vault_); }
  HardwareSide& hardware() {
    if (!hardware_) {
      hardware_.emplace(memory());
    }
    return *hardware_;
  }

  // Runs passes until nothing more goes forward; gives the number of operations committed.
  std::size_t pass() {
    std::size_t all = 0;
    while (const std::size_t some = group()->groupResolver()->runPass()) {
      all += some;
    }
    return all;
  }
  // Writes and commits.
  void commit(const Lumen::Ptr<Table>& swTable, std::uint64_t number, std::uint64_t variant = 0) {
    (void)swTable->entryWrite(key(number), entry(number, variant), nullptr);
    pass();
  }
  // The hardware side reports `version`, by its row in the status collection.
  void report(std::uint64_t version) {
    hardware().report(T::tableId, version,
                      intf()->entryLog()->tableEntryLog()->collectionControl()->incarnation());
    group()->pollStatus();
    resources_.work();
  }

  TempRoot root_;
  Lumen::Ptr<Vault::EntityManager> vault_;
  Lumen::Ptr<Asic::OrderedTableInterface> agent_;
  KelpTunnelNiLib::ResourceTableSet resources_;
  std::optional<HardwareSide> hardware_;
};

// Collects traces for the life of the object: turns `settings` (in the form of KELP_TRACE) on, and
// all handles off at the end.
class TraceCapture {
 public:
  struct Line {
    std::string handle;
    unsigned level;
    std::string text;
  };

  explicit TraceCapture(const std::string& settings) {
    Brio::TraceHandle::settingsIs(settings);
    previous_ = Lumen::traceSinkIs([this](const Lumen::TraceRecord& record) {
      lines_.push_back({std::string(record.handleName), record.level, std::string(record.text)});
    });
  }
  ~TraceCapture() {
    Lumen::traceSinkIs(previous_);
    // For handles yet to be made, which would take the settings; nothing traces at level 15.
    Brio::TraceHandle::settingsIs("*/15");
    Brio::TraceHandle::forEach([](Brio::TraceHandle& handle) { handle.maskIs(0); });
  }
  TraceCapture(const TraceCapture&) = delete;
  TraceCapture& operator=(const TraceCapture&) = delete;

  [[nodiscard]] const std::vector<Line>& lines() const noexcept { return lines_; }
  [[nodiscard]] bool has(unsigned level, const std::string& text) const {
    for (const Line& line : lines_) {
      if (line.level == level && line.text == text) {
        return true;
      }
    }
    return false;
  }
  void clear() { lines_.clear(); }

 private:
  std::vector<Line> lines_;
  Lumen::TraceSink previous_;
};

}  // namespace TestSupport
