#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "agent/RoomTeller.h"
#include "agent/Source.h"
#include "common/AnyTable.h"
#include "common/Intent.h"

namespace Agent {

// Takes intents into the tables, knows what each depends on, and tells its source how it ended.
//
// An intent depends on the newest operation on the key that its `after` names. As long as that is
// in flight, or once it has failed, its handle is the dependency, so that the library waits for it,
// or fails the dependant, whenever the two come; one that ended well, now or in an earlier run, is
// no dependency any more. An entry that is there answers for itself. Keys whose operation failed,
// and those that were removed, have to be remembered for that: the last kMostRemembered of them,
// some 150 bytes each. An older one is not known any more, as if nobody had written it, and neither
// is what a remove-all has taken away.
//
// A remove-all has no handle. It has reached the hardware side once it is committed and the log has
// been taken in up to the version that it had then.
class Intake {
 public:
  static constexpr std::size_t kMostRemembered = 65536;

  struct Totals {
    std::uint64_t accepted = 0;
    std::uint64_t succeeded = 0;
    std::uint64_t failed = 0;
  };
  // What an intent that has no outcome is waiting for; for people.
  struct Pending {
    std::string intent;  // `FILE:12: write Isem1Tag, unit 0, key {...}`
    std::string reason;
  };

  // Takes the tables of `units` units, by table number and then unit. At most `limit` intents are
  // in flight at a time.
  Intake(std::vector<std::unique_ptr<Common::AnyTable>> tables, unsigned units, std::size_t limit);
  // Drops what is in flight; its sources hear nothing of it.
  ~Intake();
  Intake(const Intake&) = delete;
  Intake& operator=(const Intake&) = delete;

  [[nodiscard]] bool hasRoom() const noexcept { return inFlight() < limit_; }
  [[nodiscard]] std::size_t limit() const noexcept { return limit_; }
  // Intents that have no outcome yet.
  [[nodiscard]] std::size_t inFlight() const noexcept { return slots_.size() - free_.size(); }
  [[nodiscard]] const Totals& totals() const noexcept { return totals_; }
  // Those of a table of a unit that failed.
  [[nodiscard]] std::uint64_t failed(const Common::AnyTable& table) const;
  [[nodiscard]] const std::vector<std::unique_ptr<Common::AnyTable>>& tables() const noexcept {
    return tables_;
  }

  // Takes an intent. Throws Common::InputError, and takes nothing: no such unit, or `after` names
  // an entry that nobody wrote.
  void take(const Common::Intent& intent, const std::shared_ptr<Source>& source,
            std::uint64_t line);
  // After a pass of the resolver, and after a report of the hardware side.
  void removeAllsSettle();
  // Says which tables have no room for changes.
  void tellLackOfRoom();

  // Whether the hardware side has taken in every log up to its end.
  [[nodiscard]] bool logsTakenIn() const;
  // The oldest intents in flight, at most `most`.
  [[nodiscard]] std::vector<Pending> pending(std::size_t most) const;

 private:
  using Handle = Common::AnyTable::Handle;
  struct HashKey {
    std::size_t operator()(const Common::AnyKey& key) const noexcept;
  };
  // What is known of a key of this run.
  struct Known {
    Handle newest;               // the newest operation on it; null once that has ended well
    std::uint64_t number = 0;    // of the newest operation
    std::uint32_t inFlight = 0;  // operations on it; it stays as long as there are any
  };
  using KnownKeys = std::unordered_map<Common::AnyKey, Known, HashKey>;

  // An intent in flight.
  struct Slot {
    std::shared_ptr<Source> source;  // null: the slot is free
    std::uint64_t line = 0;
    std::uint64_t number = 0;  // in the order of acceptance
    Common::IntentOp op = Common::IntentOp::write;
    std::size_t place = 0;  // of its table and unit
    Common::AnyKey key;
    Handle handle;           // null of a remove-all
    Known* known = nullptr;  // what is known of the key
  };
  struct RemoveAll {
    Slot* slot;
    bool committed;
    std::uint64_t version;  // of the log, when it was found to be committed
  };
  // One table of one unit.
  struct Place {
    KnownKeys known;
    std::uint64_t lastRemoveAll = 0;  // number of the intent; 0: none yet
    std::deque<RemoveAll> removeAlls;
    std::uint64_t failed = 0;
    std::uint64_t removeAllsFailed = 0;
  };

  // A key without an operation in flight that must not be forgotten yet.
  struct Remembered {
    std::size_t place;
    Common::AnyKey key;
    std::uint64_t number;  // of its newest operation; another one means that it is in use again
  };

  // Where a unit that is not there was named is told by `where`, such as "after.".
  [[nodiscard]] std::size_t placeOf(std::size_t table, Asic::UnitId unit,
                                    std::string_view where = {}) const;
  [[nodiscard]] Handle dependencyOf(const Common::Intent& intent) const;
  [[nodiscard]] Slot& freeSlot();
  void end(Slot& slot, bool success, std::uint64_t version);
  void ended(Slot& slot, const Handle& handle);
  void keyIsIdle(std::size_t at, const Common::AnyKey& key, const Known& known);
  void removeAllFailed(Slot& slot);
  void tell(const Slot& slot, bool success, std::uint64_t version);

  std::vector<std::unique_ptr<Common::AnyTable>> tables_;
  unsigned units_;
  std::size_t limit_;
  std::vector<Place> places_;
  std::deque<Slot> slots_;  // never shrinks: addresses are kept
  std::vector<Slot*> free_;
  std::vector<std::size_t> withRemoveAlls_;  // the places that wait for one
  std::deque<Remembered> remembered_;
  std::uint64_t nextNumber_ = 1;
  Totals totals_;
  RoomTeller rooms_;
  std::string text_;  // of the outcome that is being written
};

}  // namespace Agent
