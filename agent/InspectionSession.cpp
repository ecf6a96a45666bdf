#include "agent/InspectionSession.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <utility>

#include "agent/InspectionError.h"
#include "agent/InspectionJson.h"

namespace Agent {

using Brio::InspectPlace;
using Brio::InspectValue;

namespace {

constexpr std::size_t kMostEnded = 256;       // that are remembered
constexpr std::size_t kBytesOfAChange = 256;  // about, beside its key

void checkLimit(std::size_t size, std::size_t most, std::string_view what,
                std::string_view remedy) {
  if (size >= most) {
    throw InspectionError(kLimitReached, fmt::format("{} {} at most: {}", most, what, remedy));
  }
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

// The beginning of a notification, up to the members that not each has.
void appendNotice(std::string& out, std::string_view method, std::uint64_t subscription,
                  const InspectPlace& place) {
  out += fmt::format(R"({{"jsonrpc":"2.0","method":"{}","params":{{"subscription":{},"path":)",
                     method, subscription);
  Common::appendString(out, place.path());
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
  return std::any_of(ended_.begin(), ended_.end(), knows);
}

template <class Map>
auto InspectionSession::findNumber(Map& map, std::uint64_t number, std::string_view what) const {
  const auto found = map.find(number);
  if (found == map.end()) {
    const std::string name = fmt::format("{} {}", what, number);
    if (std::find(ended_.begin(), ended_.end(), name) != ended_.end()) {
      throw InspectionError(kGone, fmt::format("{}: its object was there, and is gone", name));
    }
    throw InspectionError(kNotFound, fmt::format("no {}: it never was, or has ended", name));
  }
  return found;
}

InspectValue InspectionSession::argumentOf(const Common::Json& json,
                                           const std::string& name) const {
  const std::string* path = refOf(json);
  if (path == nullptr) {
    return toInspectValue(json, name);
  }
  const InspectPlace place = find(*path);
  if (!place.leadsBack()) {
    throw InspectionError(
        kNotValid,
        fmt::format("{}: behind an operation: read it first, and give the ref that comes", *path),
        *path);
  }
  InspectValue value = place.read();
  if (value.as<NodePtr>() == nullptr) {
    throw InspectionError(kNotValid,
                          fmt::format("{}: {} is no object: name one", *path, value.text()), *path);
  }
  return value;
}

void InspectionSession::appendValue(std::string& out, const InspectValue& value,
                                    const std::string& path, From from) {
  appendInspectValue(out, value, [&](const NodePtr& object) {
    const bool itself = value.as<NodePtr>() != nullptr;
    if (itself && from == From::path && path.size() <= InspectPlace::kLongestPath) {
      return path;
    }
    const bool isOwn = from == From::behind || (from == From::operation && object->refCount() == 1);
    return hold(object, path, isOwn);
  });
}

void InspectionSession::checkMayHold() const {
  checkLimit(held_.size(), kMostHeld, "objects are held for a peer", "release some");
  limits_.checkMade();
}

std::string InspectionSession::hold(const NodePtr& object, const std::string& origin, bool isMade) {
  if (const auto known = heldBy_.find(object.get()); known != heldBy_.end()) {
    if (telling_) {
      std::erase(newHeld_, known->second);
    }
    return fmt::format("${}", known->second);
  }
  checkLimit(held_.size(), kMostHeld, "objects are held for a peer", "release some");
  held_.try_emplace(nextHeld_, Held{object, origin,
                                    isMade ? limits_.markMade(*object) : limits_.markOf(*object)});
  heldBy_.try_emplace(object.get(), nextHeld_);
  if (!telling_) {
    newHeld_.push_back(nextHeld_);
  }
  return fmt::format("${}", nextHeld_++);
}

void InspectionSession::keepNew() {
  newHeld_.clear();
  newCursor_.reset();
}

void InspectionSession::undoNew() {
  for (const std::uint64_t number : std::exchange(newHeld_, {})) {
    if (const auto held = held_.extract(number)) {
      heldBy_.erase(held.mapped().object.get());
    }
  }
  if (newCursor_) {
    cursors_.erase(*std::exchange(newCursor_, std::nullopt));
  }
}

// What is behind an operation counts as made by it.
InspectionLimits::Mark InspectionSession::markFor(const InspectPlace& place) {
  return place.leadsBack() ? limits_.markOf(*place.object()) : limits_.markMade(*place.object());
}

void InspectionSession::release(const std::string& name) {
  const auto held = held_.find(heldNumber(name));
  if (held == held_.end()) {
    const bool ended = std::find(ended_.begin(), ended_.end(), name) != ended_.end();
    throw InspectionError(ended ? kGone : kNotFound,
                          fmt::format("{}: no object is held by this name", name), name);
  }
  // The object may go with it, and call anything.
  const auto gone = held_.extract(held);
  heldBy_.erase(gone.mapped().object.get());
}

std::uint64_t InspectionSession::cursorAdd(Cursor cursor) {
  checkLimit(cursors_.size(), kMostCursors, "cursors are kept for a peer",
             "close some, or walk them to their ends");
  cursor.made = markFor(cursor.place);
  cursors_.emplace(nextCursor_, std::move(cursor));
  newCursor_ = nextCursor_;
  return nextCursor_++;
}

InspectionSession::Cursor& InspectionSession::cursor(std::uint64_t number) {
  return findNumber(cursors_, number, "cursor")->second;
}

void InspectionSession::cursorDel(std::uint64_t number) {
  cursors_.erase(findNumber(cursors_, number, "cursor"));
}

std::uint64_t InspectionSession::subscribe(InspectPlace place) {
  const auto& field = place.field();
  if (!field || field->attribute.isOperation()) {
    throw InspectionError(
        kNotValid,
        fmt::format("{}: no attribute that can change: name one of an object", place.path()),
        place.path());
  }
  for (const auto& [number, known] : subscriptions_) {
    const auto& other = known.place.field()->attribute;
    if (known.place.object() == place.object() && other.id() == field->attribute.id()) {
      return number;
    }
  }
  checkLimit(subscriptions_.size(), kMostSubscriptions, "subscriptions of a peer",
             "unsubscribe from some");
  const std::uint64_t number = nextSubscription_;
  InspectionLimits::Mark made = markFor(place);
  Subscription& subscription =
      subscriptions_.try_emplace(number, std::move(place), std::move(made), limits_).first->second;
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
  const auto start = std::chrono::steady_clock::now();
  try {
    std::string text;
    if (subscription.isCollection) {
      appendInspectValue(text, key, [](const NodePtr&) { return std::string(); });
    }
    const auto [at, isNew] = subscription.waiting.insert(std::move(text));
    if (isNew && changeBytes_ + at->size() + kBytesOfAChange <= kMostChangeBytes) {
      push({number, &*at, at->size() + kBytesOfAChange, {}});
    } else if (isNew) {
      subscription.waiting.erase(at);
      if (++subscription.lost == 1) {
        push({number, nullptr, 0, {}});
      }
    }
  } catch (const std::exception&) {
    // There is no memory to tell of it.
  }
  news_(std::chrono::steady_clock::now() - start);
}

void InspectionSession::push(Change change) {
  changeBytes_ += change.bytes;
  changes_.push_back(std::move(change));
}

void InspectionSession::tellChange(std::string& out) {
  const Change change = std::move(changes_.front());
  changes_.pop_front();
  changeBytes_ -= change.bytes;
  out += change.text;
  const auto found = subscriptions_.find(change.subscription);
  if (found == subscriptions_.end()) {
    return;
  }
  Subscription& subscription = found->second;
  if (change.key == nullptr) {
    appendNotice(out, "lost", change.subscription, subscription.place);
    out += fmt::format(
        R"(,"changes":{0},"error":"{0} changes had no room: read what matters again"}}}})"
        "\n",
        std::exchange(subscription.lost, 0));
    return;
  }
  const auto key = subscription.waiting.extract(*change.key);
  appendChange(out, change.subscription, subscription, key.value());
}

void InspectionSession::appendChange(std::string& out, std::uint64_t number,
                                     const Subscription& subscription, const std::string& key) {
  const InspectPlace& place = subscription.place;
  const From from = place.leadsBack() ? From::path : From::behind;
  appendNotice(out, "changed", number, place);
  if (subscription.isCollection) {
    out += ",\"key\":" + key;
  }
  const std::size_t before = out.size();
  telling_ = true;
  try {
    out += ",\"value\":";
    if (subscription.isCollection) {
      const InspectValue of = toInspectValue(Common::Json::parse(key), "key");
      const bool isThere =
          !of.isNothing() && (place.field()->attribute.has(Lumen::kInspectSet) || place.has(of));
      appendValue(out, isThere ? place.lookup(of) : InspectValue(), place.memberPath(of), from);
    } else {
      appendValue(out, place.read(), place.path(), from);
    }
  } catch (const std::exception& error) {
    out.resize(before);
    out += ",\"error\":";
    Common::appendString(out, error.what());
  }
  telling_ = false;
  out += "}}\n";
}

void InspectionSession::end(std::uint64_t number, const Subscription& subscription) {
  std::string text;
  if (!subscription.isCollection && !subscription.waiting.empty()) {
    appendChange(text, number, subscription, {});
  }
  appendNotice(text, "ended", number, subscription.place);
  text += R"(,"error":"only peers still had the object: the subscription has ended"}})"
          "\n";
  const std::size_t bytes = text.size();
  push({number, nullptr, bytes, std::move(text)});
  remember(fmt::format("subscription {}", number));
  remember(subscription.place.path());
  news_({});
}

void InspectionSession::clear() {
  subscriptions_.clear();
  changes_.clear();
  changeBytes_ = 0;
  cursors_.clear();
  heldBy_.clear();
  held_.clear();
}

void InspectionSession::addUses(Uses& uses) const {
  for (const auto& [number, held] : held_) {
    ++uses[held.object.get()];
  }
  // Places have one, and what walks or watches them another.
  for (const auto& [number, cursor] : cursors_) {
    uses[cursor.place.object().get()] += 2;
  }
  for (const auto& [number, subscription] : subscriptions_) {
    uses[subscription.place.object().get()] += 2;
  }
}

void InspectionSession::remember(std::string name) {
  if (ended_.size() == kMostEnded) {
    ended_.pop_front();
  }
  ended_.push_back(std::move(name));
}

void InspectionSession::endOrphans(const Uses& uses) {
  const auto isOrphan = [&](const auto& one, const NodePtr& object) {
    const auto found = uses.find(object.get());
    return one.made == nullptr && found != uses.end() && object->refCount() <= found->second;
  };
  std::erase_if(held_, [&](const auto& one) {
    const auto& [number, held] = one;
    if (!isOrphan(held, held.object)) {
      return false;
    }
    heldBy_.erase(held.object.get());
    remember(fmt::format("${}", number));
    remember(held.origin);
    return true;
  });
  for (auto& [number, cursor] : cursors_) {
    cursor.at.settle();  // else the member that it stands at is kept
  }
  std::erase_if(cursors_, [&](const auto& one) {
    const auto& [number, cursor] = one;
    if (!isOrphan(cursor, cursor.place.object())) {
      return false;
    }
    remember(fmt::format("cursor {}", number));
    remember(cursor.place.path());
    return true;
  });
  std::erase_if(subscriptions_, [&](const auto& one) {
    const auto& [number, subscription] = one;
    if (!isOrphan(subscription, subscription.place.object())) {
      return false;
    }
    end(number, subscription);
    return true;
  });
}

}  // namespace Agent
