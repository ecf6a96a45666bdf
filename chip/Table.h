#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Asic/GroupQuilts.h"
#include "Asic/LogVersion.h"
#include "Asic/UnitId.h"
#include "BrioQuilt/CollectionControl.h"
#include "BrioSharedMem/EntityManager.h"
#include "Lumen/Ptr.h"
#include "chip/CheckResult.h"
#include "chip/Dependencies.h"
#include "chip/Notices.h"
#include "chip/UnitModel.h"

namespace Chip {

class Table;
using Tables = std::vector<std::unique_ptr<Table>>;

// Why a table was read from its configuration collections instead of its log.
enum class Resync : std::uint8_t {
  emptyModel,     // the first sight of the log
  relaunch,       // the agent has lost persistent data, and says so by its relaunch generation
  newLog,         // the log has been made anew
  newConfig,      // a configuration collection has been made anew
  damagedLog,     // a record of the log can't be read
  damagedConfig,  // the last resync met damage and could not see everything
  gap,            // versions had no record: a cut chain looks like that, too
  wentBack,       // the published version is below the reached one
};
[[nodiscard]] std::string_view text(Resync reason) noexcept;

// One table on the hardware side: it follows the table's log up to the published version, in
// version order, and keeps the model of each unit.
//
// Invariants:
// 1. The model holds what the log says up to reached(), or what the configuration collections said
//    at a time when at least that was published. Nothing is done for a version above the published
//    one: until it is reported, the agent keeps its record.
// 2. reached() goes down only with a resync.
// 3. A resync reads the published version first and the collections second. What they show above it
//    is left to the log, if the log has it; if not it dates from an earlier life of the log, and
//    enters the model as of the version that was published.
//
// This is the half that is the same for all tables; TableOf has the records.
class Table {
 public:
  // Operations done to the model, all units, and what else has happened.
  struct Counts {
    std::uint64_t records = 0;           // taken from the log
    std::uint64_t gaps = 0;              // versions passed without a record
    std::uint64_t heldBack = 0;          // records that had to wait for another table
    std::uint64_t dependenciesLeft = 0;  // dependencies that could never be met, and were not
    std::uint64_t resyncs = 0;
  };
  // A record that waits for another table.
  struct Held {
    std::uint64_t version;
    Asic::TableVersion waitsFor;
  };
  struct UnitView {
    Asic::UnitId unit;
    std::uint64_t entries;
    UnitCounts counts;
    bool whole;  // the last resync saw everything
  };

  Table(std::string_view name, Asic::SwTableId id, Lumen::Ptr<BrioSharedMem::EntityManager> memory,
        Notices& notices);
  virtual ~Table();
  Table(const Table&) = delete;
  Table& operator=(const Table&) = delete;

  [[nodiscard]] std::string_view name() const noexcept { return name_; }
  [[nodiscard]] Asic::SwTableId id() const noexcept { return id_; }
  // The log is there and this table follows it. What comes next is 0 until then.
  [[nodiscard]] bool open() const noexcept { return log_ != nullptr; }
  // All up to this version is done.
  [[nodiscard]] std::uint64_t reached() const noexcept { return reached_; }
  [[nodiscard]] std::uint64_t published() const noexcept { return log_ ? log_->published() : 0; }
  [[nodiscard]] std::uint64_t incarnation() const noexcept {
    return log_ ? log_->incarnation() : 0;
  }
  // Why the log could not be opened; empty if it is open, or simply not there.
  [[nodiscard]] const std::string& missingWhy() const noexcept { return missingWhy_; }
  [[nodiscard]] const std::optional<Held>& held() const noexcept { return held_; }
  [[nodiscard]] const Counts& counts() const noexcept { return counts_; }
  [[nodiscard]] virtual std::vector<UnitView> units() const = 0;
  // Operations done to the model so far, all units.
  [[nodiscard]] virtual UnitCounts changes() const = 0;

  // Whether follow() would find anything to do now. A held record is none until another table has
  // gone on.
  [[nodiscard]] bool hasWork() const noexcept {
    return read_ && !resyncWanted_ && published() != reached_ && !held_;
  }
  // The log that is open now has been read at all, so that reached() speaks of it.
  [[nodiscard]] bool read() const noexcept { return read_; }
  // Takes in up to `limit` records, and stops before one that waits for another of `tables`.
  // Returns the number of versions passed.
  std::uint64_t follow(std::uint64_t limit, const Tables& tables);
  // The held record goes out without what it waits for.
  void letGo();

  // Opens the log if it has come or has been made anew; `firstSight` is called in between, before
  // anything of it is read. Asks for a resync where one is due. Throws OtherLayoutError.
  template <class FirstSight>
  void tend(FirstSight&& firstSight) {
    if (logReplaced() && openLog()) {
      firstSight(*this);
      resyncIs(reached_ == 0 && counts_.resyncs == 0 ? Resync::emptyModel : Resync::newLog);
    }
    tendOpen();
  }
  // Asks for a resync; an earlier wish keeps its reason.
  void resyncIs(Resync reason) noexcept;
  // Reads the table from its configuration collections if that has been asked for, but after damage
  // or a gap no sooner than a while after the last time. True if it did.
  bool resyncIfDue();
  // When a wished resync may be done; nothing if none is wished.
  [[nodiscard]] std::optional<std::chrono::steady_clock::time_point> resyncDue() const noexcept;

  // Compares the model with the configuration collections, entry by entry.
  [[nodiscard]] virtual TableCheck check() = 0;
  // Adds the model's entries, one JSON object a line.
  virtual void appendEntries(std::string& out) const = 0;

 protected:
  // Opens the log anew: logIs(), or logMissing() and false if it is not there.
  [[nodiscard]] virtual bool openLog() = 0;
  // Takes in the records of reached_ + 1 to `last` in order, at most `limit` of them, and sets
  // reached_. False if a record can't be read.
  virtual bool takeIn(std::uint64_t last, std::uint64_t limit) = 0;
  // Makes the model anew from the configuration collections as of `published`.
  virtual void readConfig(std::uint64_t published) = 0;
  [[nodiscard]] virtual bool configReplaced() const = 0;
  [[nodiscard]] virtual bool whole() const = 0;

  void logIs(const Lumen::Ptr<BrioQuilt::CollectionControl>& log);
  void passGap(std::uint64_t to);
  void logMissing(std::string_view why) { missingWhy_ = why; }

  [[nodiscard]] const Lumen::Ptr<BrioSharedMem::EntityManager>& memory() const noexcept {
    return memory_;
  }
  [[nodiscard]] Notices& notices() noexcept { return notices_; }

  std::uint64_t reached_ = 0;
  Counts counts_;

 private:
  [[nodiscard]] bool logReplaced() const;
  void tendOpen();
  [[nodiscard]] std::optional<Asic::TableVersion> unmet(const Asic::NeededQuiltEntry& record,
                                                        const Tables& tables);

  std::string_view name_;
  Asic::SwTableId id_;
  Lumen::Ptr<BrioSharedMem::EntityManager> memory_;
  Notices& notices_;
  Dependencies dependencies_;
  Lumen::Ptr<BrioQuilt::CollectionControl> log_;
  bool read_ = false;
  std::optional<Held> held_;
  std::uint64_t heldLast_ = 0;  // the version counted as held
  std::uint64_t letGo_ = 0;     // the version that need not wait
  std::optional<Resync> resyncWanted_;
  std::chrono::steady_clock::time_point lastRetry_;  // the last resync because of damage or a gap
  std::string missingWhy_;
};

// The table of this id, or null.
[[nodiscard]] Table* findTable(const Tables& tables, Asic::SwTableId id) noexcept;

// All tables of the catalogue.
[[nodiscard]] Tables makeTables(const Lumen::Ptr<BrioSharedMem::EntityManager>& memory,
                                Notices& notices);

}  // namespace Chip
