#pragma once

#include <cstdint>

namespace Quilt {

// Where a walk over a collection stands. A default-constructed hint is as good as none: the step
// then searches afresh. It belongs to one walk over one collection; a hint that is stale, or of
// another collection, costs time and changes no answer.
class IterHint {
 public:
  // The rest is the collection's own: the writer's position, which is good as long as nothing has
  // changed, and the bucket up to which a walk has asked the processor to fetch ahead.
  struct Position {
    std::uint64_t map = 0;
    std::uint64_t changes = 0;
    std::uint64_t link = 0;
    std::uint64_t nextLink = 0;
    std::uint32_t bucket = 0;
    std::uint32_t fetched = 0;
  };
  [[nodiscard]] Position& position() noexcept { return position_; }

 private:
  Position position_;
};

}  // namespace Quilt
