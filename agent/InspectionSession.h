#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "Brio/InspectCursor.h"
#include "Brio/InspectPlace.h"
#include "Brio/InspectSubscription.h"
#include "Brio/InspectValue.h"
#include "common/Json.h"

namespace Agent {

// What one peer of the inspection socket may do, and what it holds: objects, cursors and
// subscriptions, each of them bounded. All that it holds keeps objects alive, until clear().
class InspectionSession {
 public:
  using NodePtr = Brio::InspectValue::NodePtr;

  static constexpr std::size_t kMostHeld = 256;
  static constexpr std::size_t kMostCursors = 64;
  static constexpr std::size_t kMostSubscriptions = 256;
  static constexpr std::size_t kMostChanges = 16384;  // that were not told yet

  // `mayChange`: the peer is of the agent's own user, or root. `news` is called when there are
  // changes to tell, from within a change of any object: it must not change one, nor the session.
  InspectionSession(bool mayChange, std::function<void()> news)
      : mayChange_(mayChange), news_(std::move(news)) {}
  InspectionSession(const InspectionSession&) = delete;
  InspectionSession& operator=(const InspectionSession&) = delete;

  // Throws InspectionError if the peer may not change anything; `path` is what it asked to change.
  void checkMayChange(const std::string& path) const;

  // The place of a path, which may begin at an object that is held: "$3/entryHandle". Throws
  // Brio::InspectError.
  [[nodiscard]] Brio::InspectPlace find(std::string_view path) const;
  // Whether the peer has something at or below this path, so that there was something once.
  [[nodiscard]] bool knewOf(const std::string& path) const;

  // A value out of JSON, in which {"ref": PATH} is an object. Throws InspectionError.
  [[nodiscard]] Brio::InspectValue valueOf(const Common::Json& json, const std::string& name) const;
  // Adds a value as JSON. `path` leads to the value if `leadsBack`; an object that no path leads to
  // is held. Throws InspectionError at the limit.
  void appendValue(std::string& out, const Brio::InspectValue& value, const std::string& path,
                   bool leadsBack);

  // Holds an object, and gives the name by which paths begin there, the same for the same object:
  // "$3". `origin` is where it was found. Throws InspectionError at the limit.
  std::string hold(const NodePtr& object, const std::string& origin);
  // Throws InspectionError if nothing is held by this name.
  void release(const std::string& name);

  struct Cursor {
    Brio::InspectPlace place;
    Brio::InspectCursor at;
    bool isSet;
    bool leadsBack;
  };
  // Throws InspectionError at the limit.
  std::uint64_t cursorAdd(Cursor cursor);
  // Throws InspectionError if there is none of this number.
  [[nodiscard]] Cursor& cursor(std::uint64_t number);
  void cursorDel(std::uint64_t number);

  // Throws InspectionError at the limit, and if the place publishes no changes.
  std::uint64_t subscribe(Brio::InspectPlace place);
  // Throws InspectionError if there is none of this number.
  void unsubscribe(std::uint64_t number);

  // Changes that wait to be told.
  [[nodiscard]] std::size_t changes() const noexcept { return changes_.size(); }
  // More than kMostChanges have come: some are lost.
  [[nodiscard]] bool overflowed() const noexcept { return overflowed_; }
  // Adds the notification of the oldest change, with the end of its line; nothing if nobody
  // subscribes to it any more. There must be one.
  void tellChange(std::string& out);

  // Lets go of everything.
  void clear();

 private:
  struct Held {
    NodePtr object;
    std::string origin;
  };
  struct Subscription {
    explicit Subscription(Brio::InspectPlace at)
        : place(std::move(at)), isCollection(place.field()->attribute.isCollection()) {}

    Brio::InspectPlace place;
    bool isCollection;
    bool waits = false;  // the change of a plain attribute, which is told with its newest value
    std::optional<Brio::InspectSubscription> watch;
  };
  struct Change {
    std::uint64_t subscription;
    Brio::InspectValue key;
    Brio::InspectValue value;
  };

  void changed(std::uint64_t number, Subscription& subscription, const Brio::InspectValue& key);

  bool mayChange_;
  std::function<void()> news_;
  std::map<std::uint64_t, Held> held_;
  std::map<const Lumen::Node*, std::uint64_t> heldBy_;
  std::map<std::uint64_t, Cursor> cursors_;
  std::map<std::uint64_t, Subscription> subscriptions_;
  std::deque<Change> changes_;
  std::uint64_t nextHeld_ = 1;
  std::uint64_t nextCursor_ = 1;
  std::uint64_t nextSubscription_ = 1;
  bool overflowed_ = false;
};

}  // namespace Agent
