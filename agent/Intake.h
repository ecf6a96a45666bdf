#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "agent/HashKey.h"
#include "agent/HeldWrite.h"
#include "agent/KeptIntents.h"
#include "agent/ResourceEvents.h"
#include "agent/Retries.h"
#include "agent/RoomTeller.h"
#include "agent/Source.h"
#include "agent/Store.h"
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
// A write that fails for want of a resource is written again when there is the resource, unless
// something newer is there for its key by then; its source is told of that as of a second outcome.
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
    std::uint64_t cameThroughAgain = 0;  // of those that failed
  };
  using Handle = Common::AnyTable::Handle;
  using Clock = std::chrono::steady_clock;

  // What is known of a key of this run.
  struct Known {
    Handle newest;               // the newest operation on it; null once that has ended well
    std::uint64_t number = 0;    // of the newest operation
    std::uint32_t inFlight = 0;  // operations on it; it stays as long as there are any
  };
  // An intent in flight.
  struct Slot {
    std::shared_ptr<Source> source;  // null: the slot is free
    std::uint64_t line = 0;
    std::uint64_t number = 0;  // in the order of acceptance
    Clock::time_point since;   // of its acceptance, some milliseconds early at most
    Common::IntentOp op = Common::IntentOp::write;
    std::size_t place = 0;  // of its table and unit
    Common::AnyKey key;
    Handle handle;                          // null of a remove-all
    Known* known = nullptr;                 // what is known of the key
    std::string text;                       // the intent as a line, if it is to be kept
    std::unique_ptr<Common::Intent> write;  // if it names resources
    Handle dependency;
    std::size_t dependencyPlace = 0;  // of the dependency's table and unit
    bool again = false;               // it has failed before, and been told so
    std::vector<Replaced> replaces;
  };

  // Takes the tables of `units` units of the store, by table number and then unit. At most `limit`
  // intents are in flight at a time.
  Intake(const Store& store, std::vector<std::unique_ptr<Common::AnyTable>> tables, unsigned units,
         std::size_t limit);
  // Drops what is in flight; its sources hear nothing of it.
  ~Intake();
  Intake(const Intake&) = delete;
  Intake& operator=(const Intake&) = delete;

  [[nodiscard]] bool hasRoom() const noexcept { return inFlight() < limit_; }
  [[nodiscard]] std::size_t limit() const noexcept { return limit_; }
  [[nodiscard]] unsigned units() const noexcept { return units_; }
  // Intents that have no outcome yet.
  [[nodiscard]] std::size_t inFlight() const noexcept { return slots_.size() - free_.size(); }
  [[nodiscard]] const Totals& totals() const noexcept { return totals_; }
  // Those of a table of a unit that failed.
  [[nodiscard]] std::uint64_t failed(const Common::AnyTable& table) const;
  // Writes that the table has accepted and that failed, second tries among them.
  [[nodiscard]] std::uint64_t failedWrites(const Common::AnyTable& table) const;
  // Writes that wait for resources, and events of resources.
  [[nodiscard]] Retries& retries() noexcept { return retries_; }
  [[nodiscard]] const Retries& retries() const noexcept { return retries_; }
  [[nodiscard]] ResourceEvents& events() noexcept { return events_; }
  [[nodiscard]] const ResourceEvents& events() const noexcept { return events_; }
  [[nodiscard]] const std::vector<std::unique_ptr<Common::AnyTable>>& tables() const noexcept {
    return tables_;
  }

  // Where the intents of sources that are kept go once they have ended well; null: nowhere. Must
  // outlive the intake.
  void keptIs(KeptIntents* kept) noexcept { kept_ = kept; }
  // Called for a line that says that the replay is complete.
  using CompleteReplay =
      std::function<void(const std::shared_ptr<Source>& source, std::uint64_t line)>;
  void completeReplayIs(CompleteReplay completeReplay) {
    completeReplay_ = std::move(completeReplay);
  }

  void completeReplay(const std::shared_ptr<Source>& source, std::uint64_t line) const {
    completeReplay_(source, line);
  }

  // Takes the intent of a line, an event of a resource, or the word that the replay is complete.
  // Throws as take(), and for a line that is none of them.
  void takeLine(std::string_view text, const std::shared_ptr<Source>& source, std::uint64_t line);
  // Takes an intent. Throws Common::InputError, and takes nothing: no such unit, or `after` names
  // an entry that nobody wrote.
  void take(const Common::Intent& intent, const std::shared_ptr<Source>& source,
            std::uint64_t line);
  // Takes one that was read before: an `after` that can't be met any more is passed over, and a
  // remove-all removes every key of which `stays` is false. Throws if there is no such unit.
  void replay(const Common::Intent& intent, const std::shared_ptr<Source>& source,
              std::uint64_t line, std::vector<Replaced> replaces,
              const std::function<bool(const Common::AnyKey&)>& stays);
  // Writes again what has its resources now, at most `most` and as long as there is room.
  void writeAgain(unsigned most);
  // A source is told that its line has been carried out, or not.
  static void tellOrder(Source& source, std::uint64_t line, std::string_view op, bool success);
  // Keeps what is in a log and has no outcome yet, as at a stop.
  void keepInLog();

  // The table of a unit among tables(). Throws Common::InputError if there is no such unit; where
  // it was named is told by `where`, such as "after.".
  [[nodiscard]] std::size_t placeOf(std::size_t table, Asic::UnitId unit,
                                    std::string_view where = {}) const;
  // Throws Common::InputError: `after` names what nobody wrote.
  [[noreturn]] static void failAfter(const Common::EntryName& after);

  // After a pass of the resolver, and after a report of the hardware side.
  void removeAllsSettle();
  // Says which tables have no room for changes.
  void tellLackOfRoom();

  // Whether the hardware side has taken in every log up to its end.
  [[nodiscard]] bool logsTakenIn() const;
  // The slots of all intents in flight, free ones among them. One keeps its place until its intent
  // has its outcome.
  [[nodiscard]] const std::deque<Slot>& slots() const noexcept { return slots_; }
  // The version of the log that the hardware side must report for a remove-all; nothing while it is
  // not committed.
  [[nodiscard]] std::optional<std::uint64_t> versionOfRemoveAll(const Slot& slot) const;
  // Of a remove-all that is carried out key by key: the removes without an outcome; 0 for others.
  [[nodiscard]] std::size_t removesLeft(const Slot& slot) const;

 private:
  using KnownKeys = std::unordered_map<Common::AnyKey, Known, HashKey>;

  // The removes of one key that a remove-all in a replay comes to.
  struct Rest {
    Slot* slot;
    std::size_t left;
    bool failed;
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
    std::uint64_t failedWrites = 0;
    std::uint64_t removeAllsFailed = 0;
  };

  // A key without an operation in flight that must not be forgotten yet.
  struct Remembered {
    std::size_t place;
    Common::AnyKey key;
    std::uint64_t number;  // of its newest operation; another one means that it is in use again
  };

  struct Dependency {
    Handle handle;
    std::size_t place = 0;
  };
  [[nodiscard]] Dependency dependencyOf(const Common::Intent& intent) const;
  [[nodiscard]] Slot& freeSlot();
  Slot& occupy(Common::IntentOp op, std::size_t at, const std::shared_ptr<Source>& source,
               std::uint64_t line);
  [[nodiscard]] static Clock::time_point roughlyNow() noexcept;
  Slot& accept(const Common::Intent& intent, std::size_t at, const std::shared_ptr<Source>& source,
               std::uint64_t line, Dependency dependency);
  void operate(Slot& slot, const Common::Intent& intent);
  void writeOrRemove(Slot& slot, const Common::Intent& intent);
  void removeRest(Slot& slot, const std::function<bool(const Common::AnyKey&)>& stays);
  void restEnded(Rest& rest, bool success);
  // How an intent has ended.
  struct End {
    bool success = false;
    std::uint64_t version = 0;
    std::string reason;  // why it failed, if that is known
    bool again = false;  // the second outcome of its line
  };
  void end(Slot& slot, const End& how);
  void free(Slot& slot);
  void ended(Slot& slot, const Handle& handle);
  void writeAgain(HeldWrite& write);
  [[nodiscard]] Retries::Missing whyFailed(const Slot& slot) const;
  void remember(Slot& slot, const Retries::Missing& missing);
  void keyIsIdle(std::size_t at, const Common::AnyKey& key, const Known& known);
  void removeAllFailed(Slot& slot);
  void tell(Source& source, std::uint64_t line, Common::IntentOp op, const Common::AnyKey& key,
            const Common::AnyTable& table, const End& how);

  const Store& store_;
  std::vector<std::unique_ptr<Common::AnyTable>> tables_;
  unsigned units_;
  std::size_t limit_;
  std::vector<Place> places_;
  std::deque<Slot> slots_;  // never shrinks: addresses are kept
  std::vector<Slot*> free_;
  std::vector<std::size_t> withRemoveAlls_;  // the places that wait for one
  std::list<Rest> rests_;
  Retries retries_;
  ResourceEvents events_;
  std::deque<Remembered> remembered_;
  KeptIntents* kept_ = nullptr;
  CompleteReplay completeReplay_;
  std::uint64_t nextNumber_ = 1;
  Totals totals_;
  RoomTeller rooms_;
  std::string text_;  // of the outcome that is being written
};

}  // namespace Agent
