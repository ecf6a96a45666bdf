#pragma once

#include <deque>
#include <string>
#include <utility>

#include "State.h"

namespace ModelTest {

// What the tables tell, in its order, and whether they may.
class Feed {
 public:
  explicit Feed(std::deque<Event>& events) : events_(events) {}

  // The next one if it is a rewrite, or null.
  [[nodiscard]] const Event* update() const {
    const bool is = !events_.empty() && events_.front().kind == Event::Kind::update;
    return is ? &events_.front() : nullptr;
  }
  Event take() {
    const Event event = events_.front();
    events_.pop_front();
    return event;
  }
  // The next commit that the tables have told of, which must be this one.
  Event takeCommit(Place place, const Operation& operation, const Table& table) {
    Event event;
    event.place = place;
    event.key = operation.key;
    event.kind =
        operation.kind == Operation::Kind::remove ? Event::Kind::removed : Event::Kind::success;
    if (events_.empty() || events_.front().place != place || events_.front().key != operation.key ||
        events_.front().kind == Event::Kind::update ||
        (events_.front().kind == Event::Kind::removed) != (event.kind == Event::Kind::removed)) {
      complain(event, "is missing");
      return event;
    }
    event = events_.front();
    events_.pop_front();
    if (operation.kind == Operation::Kind::write) {
      judge(event, table, operation.variant);
    }
    return event;
  }
  void complain(const Event& event, const char* what) {
    static constexpr const char* kNames[] = {"write", "failed write", "remove", "update"};
    complaints_ += "  " + std::string(kNames[static_cast<unsigned>(event.kind)]) + " of table " +
                   std::to_string(event.place.table) + " unit " + std::to_string(event.place.unit) +
                   " key " + std::to_string(event.key) + " at version " +
                   std::to_string(event.version) + " " + what + "\n";
  }
  [[nodiscard]] std::string takeComplaints() {
    while (!events_.empty()) {
      complain(take(), "happened");
    }
    return std::exchange(complaints_, {});
  }

 private:
  // A write succeeds just when all its resources can be had.
  void judge(const Event& event, const Table& table, unsigned variant) {
    bool all = true;
    for (unsigned linkage = 0; linkage < table.linkages; ++linkage) {
      const auto& verdict = event.verdicts[linkage];
      if (table.resources[variant][linkage].number == 0) {
        continue;
      }
      const bool had = !verdict.refused && verdict.index != 0;
      if (!had && !verdict.refused && !verdict.exhausted) {
        complain(event, "has no index though one was to be had");
      }
      all = all && had;
    }
    if (all != (event.kind == Event::Kind::success)) {
      complain(event, "does not fit its resources");
    }
    for (unsigned linkage = 0; linkage < table.linkages; ++linkage) {
      const bool named = table.resources[variant][linkage].number != 0;
      if (event.indexes[linkage] != (all && named ? event.verdicts[linkage].index : 0)) {
        complain(event, "carries another index");
      }
    }
  }

  std::deque<Event>& events_;
  std::string complaints_;
};

}  // namespace ModelTest
