#include "agent/InspectionSession.h"

#include <fmt/format.h>

#include <charconv>
#include <utility>

#include "agent/InspectionError.h"
#include "agent/InspectionJson.h"

namespace Agent {

using Brio::InspectPlace;
using Brio::InspectValue;

namespace {

void checkLimit(std::size_t size, std::size_t most, std::string_view what,
                std::string_view remedy) {
  if (size >= most) {
    throw InspectionError(kLimitReached, fmt::format("{} {} at most: {}", most, what, remedy));
  }
}

template <class Map>
auto findNumber(Map& map, std::uint64_t number, std::string_view what) {
  const auto found = map.find(number);
  if (found == map.end()) {
    throw InspectionError(kNotFound,
                          fmt::format("no {} {}: it never was, or has ended", what, number));
  }
  return found;
}

// The number in "$3"; 0 if it is no such name.
std::uint64_t heldNumber(std::string_view name) {
  std::uint64_t number = 0;
  if (name.starts_with('$')) {
    const auto [end, error] = std::from_chars(name.data() + 1, name.data() + name.size(), number);
    if (error != std::errc() || end != name.data() + name.size()) {
      return 0;
    }
  }
  return number;
}

// Whether `path` is `beginning`, or goes on from there with a step or a key.
bool beginsWith(const std::string& path, const std::string& beginning) {
  return path.starts_with(beginning) &&
         (path.size() == beginning.size() || path[beginning.size()] == '/' ||
          path[beginning.size()] == '[');
}

}  // namespace

void InspectionSession::checkMayChange(const std::string& path) const {
  if (!mayChange_) {
    throw InspectionError(
        kNotAllowed, fmt::format("{}: not allowed: ask as the agent's own user, or as root", path),
        path);
  }
}

InspectPlace InspectionSession::find(std::string_view path) const {
  return InspectPlace::find(path, [this](std::string_view name) {
    if (!name.starts_with('$')) {
      return Brio::InspectRoots::root(name);
    }
    const auto held = held_.find(heldNumber(name));
    if (held == held_.end()) {
      throw Brio::InspectError(
          fmt::format("{}: no object is held by this name: it was released, or never held", name),
          Lumen::String(name));
    }
    return held->second.object;
  });
}

bool InspectionSession::knewOf(const std::string& path) const {
  const auto knows = [&](const std::string& own) { return beginsWith(own, path); };
  for (const auto& [number, cursor] : cursors_) {
    if (knows(cursor.place.path())) {
      return true;
    }
  }
  for (const auto& [number, subscription] : subscriptions_) {
    if (knows(subscription.place.path())) {
      return true;
    }
  }
  for (const auto& [number, held] : held_) {
    if (knows(held.origin)) {
      return true;
    }
  }
  return false;
}

InspectValue InspectionSession::valueOf(const Common::Json& json, const std::string& name) const {
  return toInspectValue(json, name, [&](const std::string& path) {
    const InspectValue value = find(path).read();
    const auto* object = value.as<NodePtr>();
    if (object == nullptr) {
      throw InspectionError(kNotValid,
                            fmt::format("{}: {} is no object: name one", path, value.text()), path);
    }
    return *object;
  });
}

void InspectionSession::appendValue(std::string& out, const InspectValue& value,
                                    const std::string& path, bool leadsBack) {
  appendInspectValue(out, value, [&](const NodePtr& object) {
    const bool itself = value.as<NodePtr>() != nullptr;
    return itself && leadsBack && path.size() <= InspectPlace::kLongestPath ? path
                                                                            : hold(object, path);
  });
}

std::string InspectionSession::hold(const NodePtr& object, const std::string& origin) {
  auto [known, isNew] = heldBy_.try_emplace(object.get(), nextHeld_);
  if (isNew) {
    if (held_.size() >= kMostHeld) {
      heldBy_.erase(known);
      checkLimit(held_.size(), kMostHeld, "objects are held for a peer", "release some");
    }
    held_.try_emplace(nextHeld_++, Held{object, origin});
  }
  return fmt::format("${}", known->second);
}

void InspectionSession::release(const std::string& name) {
  const auto held = held_.find(heldNumber(name));
  if (held == held_.end()) {
    throw InspectionError(kNotFound, fmt::format("{}: no object is held by this name", name), name);
  }
  // The object may go with it, and call anything.
  const NodePtr object = std::move(held->second.object);
  heldBy_.erase(object.get());
  held_.erase(held);
}

std::uint64_t InspectionSession::cursorAdd(Cursor cursor) {
  checkLimit(cursors_.size(), kMostCursors, "cursors are kept for a peer",
             "close some, or walk them to their ends");
  cursors_.emplace(nextCursor_, std::move(cursor));
  return nextCursor_++;
}

InspectionSession::Cursor& InspectionSession::cursor(std::uint64_t number) {
  return findNumber(cursors_, number, "cursor")->second;
}

void InspectionSession::cursorDel(std::uint64_t number) {
  cursors_.erase(findNumber(cursors_, number, "cursor"));
}

std::uint64_t InspectionSession::subscribe(InspectPlace place) {
  checkLimit(subscriptions_.size(), kMostSubscriptions, "subscriptions of a peer",
             "unsubscribe from some");
  const auto& field = place.field();
  if (!field || field->attribute.isOperation()) {
    throw InspectionError(
        kNotValid,
        fmt::format("{}: no attribute that can change: name one of an object", place.path()),
        place.path());
  }
  const std::uint64_t number = nextSubscription_;
  Subscription& subscription = subscriptions_.try_emplace(number, std::move(place)).first->second;
  try {
    subscription.watch.emplace(subscription.place.object(), subscription.place.field()->attribute,
                               [this, number, &subscription](const InspectValue& key) {
                                 changed(number, subscription, key);
                               });
  } catch (const Brio::InspectError& error) {
    const std::string path = subscription.place.path();
    subscriptions_.erase(number);
    throw InspectionError(kNotValid, fmt::format("{}: {}", path, error.what()), path);
  }
  return nextSubscription_++;
}

void InspectionSession::unsubscribe(std::uint64_t number) {
  subscriptions_.erase(findNumber(subscriptions_, number, "subscription"));
}

// In the middle of what changes the object, which is none of its business: nothing is thrown.
void InspectionSession::changed(std::uint64_t number, Subscription& subscription,
                                const InspectValue& key) {
  if (overflowed_ || subscription.waits) {
    return;
  }
  if (changes_.size() == kMostChanges) {
    overflowed_ = true;
    news_();
    return;
  }
  try {
    InspectValue value;
    if (subscription.isCollection && !key.isNothing()) {
      value = subscription.place.lookup(key);
    }
    changes_.push_back({number, key, std::move(value)});
    subscription.waits = !subscription.isCollection;
  } catch (const std::exception&) {
    overflowed_ = true;
  }
  news_();
}

void InspectionSession::tellChange(std::string& out) {
  const Change change = std::move(changes_.front());
  changes_.pop_front();
  const auto found = subscriptions_.find(change.subscription);
  if (found == subscriptions_.end()) {
    return;
  }
  Subscription& subscription = found->second;
  subscription.waits = false;
  const InspectPlace& place = subscription.place;
  const std::size_t before = out.size();
  try {
    out +=
        fmt::format(R"({{"jsonrpc":"2.0","method":"changed","params":{{"subscription":{},"path":)",
                    change.subscription);
    Common::appendString(out, place.path());
    if (subscription.isCollection) {
      out += R"(,"key":)";
      appendValue(out, change.key, place.path(), false);
    }
    out += R"(,"value":)";
    if (!subscription.isCollection) {
      appendValue(out, place.read(), place.path(), place.leadsBack());
    } else {
      appendValue(out, change.value, place.memberPath(change.key), place.leadsBack());
    }
    out += "}}\n";
  } catch (const std::exception& error) {
    out.resize(before);
    out +=
        fmt::format(R"({{"jsonrpc":"2.0","method":"changed","params":{{"subscription":{},"path":)",
                    change.subscription);
    Common::appendString(out, place.path());
    out += R"(,"error":)";
    Common::appendString(out, error.what());
    out += "}}\n";
  }
}

void InspectionSession::clear() {
  subscriptions_.clear();
  changes_.clear();
  cursors_.clear();
  heldBy_.clear();
  held_.clear();
}

}  // namespace Agent
