#pragma once

#include <cstddef>
#include <map>
#include <memory>

#include "Lumen/Node.h"

namespace Agent {

// What all peers of the inspection socket have together, where each one's own limit is not enough:
// objects that operations have made, which may be copies of whole tables, and subscriptions, which
// cost whoever changes what they are to.
class InspectionLimits {
 public:
  static constexpr std::size_t kMostMade = 16;
  static constexpr std::size_t kMostSubscriptions = 1024;

  InspectionLimits() = default;
  InspectionLimits(const InspectionLimits&) = delete;
  InspectionLimits& operator=(const InspectionLimits&) = delete;

  // Keeps an object that an operation has made counted. All who hold the object have the same one;
  // it must go before the object, and before this.
  using Mark = std::shared_ptr<const Lumen::Node>;
  // Null if the object is not counted.
  [[nodiscard]] Mark markOf(const Lumen::Node& object) const;
  // Counts the object, if it is not counted yet. Throws InspectionError at the limit.
  [[nodiscard]] Mark markMade(const Lumen::Node& object);
  // Throws InspectionError if markMade() would throw for another object.
  void checkMade() const;

  // Counts a subscription from its making to its end.
  class Subscription {
   public:
    // Throws InspectionError at the limit.
    explicit Subscription(InspectionLimits& limits);
    ~Subscription() { --limits_.subscriptions_; }
    Subscription(const Subscription&) = delete;
    Subscription& operator=(const Subscription&) = delete;

   private:
    InspectionLimits& limits_;
  };

 private:
  std::map<const Lumen::Node*, std::weak_ptr<const Lumen::Node>> made_;
  std::size_t subscriptions_ = 0;
};

}  // namespace Agent
