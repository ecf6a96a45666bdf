#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "agent/Intake.h"
#include "agent/Source.h"
#include "common/Intent.h"

namespace Agent {

// What a start over an earlier run's entries replays: the intents of its files and those that were
// kept, folded to the last state of every key, so that whatever has not changed is one identical
// write, and the tables never pass through states that have long been left behind.
//
// A remove-all becomes a remove of what no later intent writes again. An intent that is replaced by
// a later one ends with it, and as it does.
//
// Order. Intents go out in the order in which they stood, but for these: a remove-all goes before
// what its place still has to get, and an intent whose `after` names an entry that is not there yet
// goes behind that entry's. Where these go round in a circle, as when two entries have come after
// each other's earlier states, the circle is cut at the intent that stood first.
class Replay {
 public:
  explicit Replay(Intake& intake);
  Replay(const Replay&) = delete;
  Replay& operator=(const Replay&) = delete;

  // An intent of a file, and the line that it stands in. Throws Common::InputError and adds
  // nothing, as Intake::take() does.
  void add(const Common::Intent& intent, std::string_view text,
           const std::shared_ptr<Source>& source, std::uint64_t line);
  // A kept one, which was checked when it came: only a unit that is not there any more is an error.
  void addKept(const Common::Intent& intent, std::string_view text,
               const std::shared_ptr<Source>& source, std::uint64_t line);

  // Hands intents on, at most `most` and as long as the intake has room.
  void step(unsigned most);
  // All that was added has been handed on.
  [[nodiscard]] bool done() const noexcept { return next_ == nodes_.size() && open_.empty(); }

 private:
  enum class State : std::uint8_t { waiting, open, done, replaced };
  struct Target {
    std::size_t place;
    Common::AnyKey key;
  };
  struct Node {
    Common::IntentOp op;
    std::size_t place;
    Common::AnyKey key;
    std::string text;
    std::shared_ptr<Source> source;
    std::uint64_t line;
    std::optional<Target> after;
    std::vector<Replaced> replaces;
    State state = State::waiting;
  };
  using Newest = std::unordered_map<Common::AnyKey, Node*, HashKey>;
  struct Place {
    Newest newest;
    Node* removeAll = nullptr;
  };

  void put(const Common::Intent& intent, std::string_view text,
           const std::shared_ptr<Source>& source, std::uint64_t line);
  static void replace(Node& old, Node& by);
  [[nodiscard]] Node* mustGoFirst(const Node& node) const;
  [[nodiscard]] Node* afterOf(const Node& node) const;
  void handOn(Node& node);

  Intake& intake_;
  std::vector<Place> places_;
  std::deque<Node> nodes_;
  std::size_t next_ = 0;     // of nodes_
  std::vector<Node*> open_;  // each waits for the one behind it
};

}  // namespace Agent
