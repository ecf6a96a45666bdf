#include "agent/InspectionLimits.h"

#include <fmt/format.h>

#include "agent/InspectionError.h"

namespace Agent {

InspectionLimits::Mark InspectionLimits::markOf(const Lumen::Node& object) const {
  const auto known = made_.find(&object);
  return known == made_.end() ? nullptr : known->second.lock();
}

InspectionLimits::Mark InspectionLimits::markMade(const Lumen::Node& object) {
  if (Mark known = markOf(object)) {
    return known;
  }
  checkMade();
  // It owns no object, but the place among those that are counted.
  Mark mark(&object, [this](const Lumen::Node* made) { made_.erase(made); });
  made_[&object] = mark;
  return mark;
}

void InspectionLimits::checkMade() const {
  if (made_.size() >= kMostMade) {
    throw InspectionError(kLimitReached,
                          fmt::format("{} results of operations are held for all peers at most: "
                                      "release some, or end what walks them",
                                      kMostMade));
  }
}

InspectionLimits::Subscription::Subscription(InspectionLimits& limits) : limits_(limits) {
  if (limits.subscriptions_ >= kMostSubscriptions) {
    throw InspectionError(kLimitReached, fmt::format("{} subscriptions of all peers at most: "
                                                     "unsubscribe from some",
                                                     kMostSubscriptions));
  }
  ++limits.subscriptions_;
}

}  // namespace Agent
