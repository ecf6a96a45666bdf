#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "Brio/InspectCursor.h"
#include "Brio/InspectPlace.h"
#include "Brio/InspectSubscription.h"
#include "Brio/InspectValue.h"
#include "agent/InspectionLimits.h"
#include "common/Json.h"

namespace Agent {

// What one peer of the inspection socket may do, and what it holds: objects, cursors and
// subscriptions, each of them bounded. All that it holds keeps objects alive, until clear(), or
// until endOrphans() finds nobody else who does.
class InspectionSession {
 public:
  using NodePtr = Brio::InspectValue::NodePtr;

  static constexpr std::size_t kMostHeld = 256;
  static constexpr std::size_t kMostCursors = 64;
  static constexpr std::size_t kMostSubscriptions = 256;
  static constexpr std::size_t kMostChangeBytes = 1 << 22;  // that were not told yet

  // Called when there are changes to tell, from within a change of any object, with the time that
  // this has taken: it must not change one, nor the session.
  using News = std::function<void(std::chrono::steady_clock::duration took)>;

  // `mayChange`: the peer is of the agent's own user, or root. `limits` must outlive all that is
  // held.
  InspectionSession(bool mayChange, InspectionLimits& limits, News news)
      : mayChange_(mayChange), limits_(limits), news_(std::move(news)) {}
  InspectionSession(const InspectionSession&) = delete;
  InspectionSession& operator=(const InspectionSession&) = delete;

  // Throws InspectionError if the peer may not change anything; `path` is what it asked to change.
  void checkMayChange(const std::string& path) const;

  // The place of a path, which may begin at an object that is held: "$3/entryHandle". Throws
  // Brio::InspectError.
  [[nodiscard]] Brio::InspectPlace find(std::string_view path) const;
  // Whether the peer has something at or below this path, so that there was something once.
  [[nodiscard]] bool knewOf(const std::string& path) const;

  // An argument out of JSON, which may be {"ref": PATH}, an object. Throws InspectionError, also if
  // the path does not lead to the same object each time.
  [[nodiscard]] Brio::InspectValue argumentOf(const Common::Json& json,
                                              const std::string& name) const;

  // Where a value comes from: its path leads there again, or does not, or an operation gave it.
  enum class From { path, elsewhere, operation };
  // Adds a value as JSON. `path` is its place; an object that no path leads to is held. Throws
  // InspectionError at a limit.
  void appendValue(std::string& out, const Brio::InspectValue& value, const std::string& path,
                   From from);

  // Holds an object, and gives the name by which paths begin there, the same for the same object:
  // "$3". `origin` is where it was found; `isMade`: nobody else has it. Throws InspectionError at a
  // limit.
  std::string hold(const NodePtr& object, const std::string& origin, bool isMade);
  // Throws InspectionError if a result that is an object could not be held: to be asked before
  // there is one.
  void checkMayHold() const;
  // Throws InspectionError if nothing is held by this name.
  void release(const std::string& name);

  struct Cursor {
    Brio::InspectPlace place;
    Brio::InspectCursor at;
    bool isSet;
    bool leadsBack;
    InspectionLimits::Mark made;
  };
  // Throws InspectionError at the limit.
  std::uint64_t cursorAdd(Cursor cursor);
  // Throws InspectionError if there is none of this number.
  [[nodiscard]] Cursor& cursor(std::uint64_t number);
  void cursorDel(std::uint64_t number);

  // What hold() and cursorAdd() have given names to since the last call of one of these two was
  // told the peer, or was not, and goes.
  void keepNew();
  void undoNew();

  // Gives the number that there is, if there is one for the same attribute of the same object.
  // Throws InspectionError at a limit, and if the place publishes no changes.
  std::uint64_t subscribe(Brio::InspectPlace place);
  // Throws InspectionError if there is none of this number.
  void unsubscribe(std::uint64_t number);

  // Whether there are changes that wait to be told.
  [[nodiscard]] bool hasNews() const noexcept { return !changes_.empty(); }
  // Adds the notification of the oldest change, with the end of its line; nothing if nobody
  // subscribes to it any more. There must be one.
  void tellChange(std::string& out);

  // How many references sessions have, by object.
  using Uses = std::unordered_map<const Lumen::Node*, std::uint32_t>;
  void addUses(Uses& uses) const;
  // Ends what is to objects that nobody has but sessions, which all are in `uses`, and tells
  // subscribers so. Results of operations stay.
  void endOrphans(const Uses& uses);

  // Lets go of everything.
  void clear();

 private:
  struct Held {
    NodePtr object;
    std::string origin;
    InspectionLimits::Mark made;
  };
  struct Subscription {
    Subscription(Brio::InspectPlace at, InspectionLimits::Mark mark, InspectionLimits& limits)
        : place(std::move(at)),
          made(std::move(mark)),
          counted(limits),
          isCollection(place.field()->attribute.isCollection()) {}

    Brio::InspectPlace place;
    InspectionLimits::Mark made;
    InspectionLimits::Subscription counted;
    bool isCollection;
    // The keys that have changed, as JSON; of a plain attribute an empty one. Each is told once,
    // with its newest value.
    std::unordered_set<std::string> waiting;
    std::uint64_t lost = 0;  // changes that had no room
    std::optional<Brio::InspectSubscription> watch;
  };
  struct Change {
    std::uint64_t subscription;
    const std::string* key;  // in the subscription; null: changes were lost
    std::size_t bytes;
    std::string text;  // the whole notification, if the subscription has ended
  };

  [[nodiscard]] InspectionLimits::Mark markFor(const Brio::InspectPlace& place);
  void changed(std::uint64_t number, Subscription& subscription, const Brio::InspectValue& key);
  void push(Change change);
  void appendChange(std::string& out, std::uint64_t number, const Subscription& subscription,
                    const std::string& key);
  void end(std::uint64_t number, const Subscription& subscription);
  void remember(std::string name);
  template <class Map>
  auto findNumber(Map& map, std::uint64_t number, std::string_view what) const;

  bool mayChange_;
  InspectionLimits& limits_;
  News news_;
  std::map<std::uint64_t, Held> held_;
  std::map<const Lumen::Node*, std::uint64_t> heldBy_;
  std::map<std::uint64_t, Cursor> cursors_;
  std::map<std::uint64_t, Subscription> subscriptions_;
  std::deque<Change> changes_;
  std::size_t changeBytes_ = 0;
  bool telling_ = false;
  std::vector<std::uint64_t> newHeld_;
  std::optional<std::uint64_t> newCursor_;
  std::deque<std::string> ended_;  // what endOrphans() has ended, by name and by path
  std::uint64_t nextHeld_ = 1;
  std::uint64_t nextCursor_ = 1;
  std::uint64_t nextSubscription_ = 1;
};

}  // namespace Agent
