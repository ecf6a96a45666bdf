#include "agent/Replay.h"

#include <iterator>
#include <utility>

namespace Agent {

using Common::Intent;
using Common::IntentOp;

Replay::Replay(Intake& intake) : intake_(intake), places_(intake.tables().size()) {}

void Replay::add(const Intent& intent, std::string_view text, const std::shared_ptr<Source>& source,
                 std::uint64_t line) {
  (void)intake_.placeOf(intent.table(), intent.unit);
  if (intent.after) {
    const std::size_t at = intake_.placeOf(intent.after->table(), intent.after->unit, "after.");
    const Place& place = places_[at];
    const bool isThere =
        place.newest.contains(intent.after->key) ||
        (place.removeAll == nullptr && intake_.tables()[at]->has(intent.after->key));
    if (!isThere) {
      Intake::failAfter(*intent.after);
    }
  }
  put(intent, text, source, line);
}

void Replay::addKept(const Intent& intent, std::string_view text,
                     const std::shared_ptr<Source>& source, std::uint64_t line) {
  (void)intake_.placeOf(intent.table(), intent.unit);
  put(intent, text, source, line);
}

void Replay::put(const Intent& intent, std::string_view text, const std::shared_ptr<Source>& source,
                 std::uint64_t line) {
  Node& node = nodes_.emplace_back();
  node.op = intent.op;
  node.place = intake_.placeOf(intent.table(), intent.unit);
  node.text = text;
  node.source = source;
  node.line = line;
  if (intent.after && intent.after->unit.value < intake_.units()) {
    node.after =
        Target{intake_.placeOf(intent.after->table(), intent.after->unit), intent.after->key};
  }
  Place& place = places_[node.place];
  if (intent.op == IntentOp::removeAll) {
    for (const auto& [key, old] : std::exchange(place.newest, {})) {
      replace(*old, node);
    }
    if (place.removeAll != nullptr) {
      replace(*place.removeAll, node);
    }
    place.removeAll = &node;
    return;
  }
  node.key = Common::keyOf(intent.entry);
  Node*& newest = place.newest[node.key];
  if (newest != nullptr) {
    replace(*newest, node);
  }
  newest = &node;
}

void Replay::replace(Node& old, Node& by) {
  by.replaces.insert(by.replaces.end(), std::make_move_iterator(old.replaces.begin()),
                     std::make_move_iterator(old.replaces.end()));
  by.replaces.push_back({std::move(old.source), old.line, old.op, old.key});
  old.replaces = {};
  old.text = {};
  old.state = State::replaced;
}

// What stands for the entry that `after` names; null if that is nothing of this replay.
Replay::Node* Replay::afterOf(const Node& node) const {
  if (!node.after) {
    return nullptr;
  }
  const Newest& newest = places_[node.after->place].newest;
  const auto found = newest.find(node.after->key);
  return found == newest.end() || found->second == &node ? nullptr : found->second;
}

// Null: it may go.
Replay::Node* Replay::mustGoFirst(const Node& node) const {
  Node* const removeAll = places_[node.place].removeAll;
  if (removeAll != nullptr && removeAll != &node && removeAll->state == State::waiting) {
    return removeAll;
  }
  Node* const after = afterOf(node);
  if (after != nullptr && after->state == State::waiting &&
      !intake_.tables()[node.after->place]->has(node.after->key)) {
    return after;
  }
  return nullptr;
}

void Replay::step(unsigned most) {
  for (unsigned handedOn = 0; handedOn < most && !done() && intake_.hasRoom();) {
    if (open_.empty()) {
      Node& node = nodes_[next_++];
      if (node.state == State::waiting) {
        node.state = State::open;
        open_.push_back(&node);
      }
      continue;
    }
    Node& node = *open_.back();
    if (Node* const first = mustGoFirst(node)) {
      first->state = State::open;
      open_.push_back(first);
      continue;
    }
    open_.pop_back();
    handOn(node);
    ++handedOn;
  }
  if (done()) {
    nodes_.clear();
    next_ = 0;
    places_.assign(places_.size(), {});
  }
}

void Replay::handOn(Node& node) {
  node.state = State::done;
  Intent intent = Common::parseIntent(node.text);
  const Node* const after = afterOf(node);
  if (after == nullptr || after->state != State::done) {
    intent.after.reset();  // there already, gone again, or one that comes later for good reason
  }
  const Newest& newest = places_[node.place].newest;
  intake_.replay(intent, node.source, node.line, std::move(node.replaces),
                 [&](const Common::AnyKey& key) { return newest.contains(key); });
  node.text = {};
  node.source = nullptr;
}

}  // namespace Agent
