#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "Brio/HashMap2018Bucket.h"
#include "Brio/HashMap2018Directory.h"

// How large buckets and directories are, by the size of a node. Tuned with collection_bench.

namespace Brio::HashMap2018Sizing {

// Bytes of a slot with its stored hash.
[[nodiscard]] constexpr std::size_t slotBytes(std::size_t nodeSize) noexcept {
  return nodeSize + sizeof(std::uint32_t);
}

// Mean members per directory entry at which the directory doubles: large nodes cost much to shift
// and to copy, small ones cost little beside the entry.
[[nodiscard]] constexpr unsigned loadMax(std::size_t nodeSize) noexcept {
  return nodeSize <= 24    ? 9
         : nodeSize <= 40  ? 8
         : nodeSize <= 64  ? 6
         : nodeSize <= 128 ? 3
         : nodeSize <= 256 ? 2
                           : 1;
}

// Members that a directory of 2^log2 entries takes before it grows. One bucket alone is filled for
// as long as tags tell its members apart and its block is one of the slab's.
[[nodiscard]] constexpr std::uint64_t membersMax(std::size_t nodeSize, unsigned log2) noexcept {
  if (log2 == 0) {
    return std::clamp<std::size_t>(480 / slotBytes(nodeSize), 2, HashMap2018DirectoryEntry::kTags);
  }
  return static_cast<std::uint64_t>(loadMax(nodeSize)) << log2;
}

// Buckets grow by so many slots, a power of two: several at a time where they are small, one by one
// where a slot alone is worth more than a copy.
[[nodiscard]] constexpr unsigned slotStep(std::size_t nodeSize) noexcept {
  const std::size_t bytes = slotBytes(nodeSize);
  return bytes <= 24 ? 8 : bytes <= 40 ? 4 : bytes <= 72 ? 2 : 1;
}

// Slots of a bucket for `used` members.
[[nodiscard]] constexpr unsigned capacityFor(std::size_t nodeSize, unsigned used) noexcept {
  const unsigned step = used == 1 ? std::min(slotStep(nodeSize), 2U) : slotStep(nodeSize);
  return std::min((used + step - 1) & ~(step - 1), HashMap2018BucketHdr::kCapacityMax);
}

// A bucket that is much too large for `used` members. Room for some more is kept, so that a key
// that comes and goes costs no allocation.
[[nodiscard]] constexpr bool wasteful(std::size_t nodeSize, unsigned capacity,
                                      unsigned used) noexcept {
  return capacity - used >= 2 * std::max(slotStep(nodeSize), 2U) - 1;
}

// Erasures after which it is considered whether the directory of 2^log2 entries is too large.
[[nodiscard]] constexpr std::uint64_t erasuresOfEpoch(std::size_t nodeSize,
                                                      unsigned log2) noexcept {
  return 2 * membersMax(nodeSize, log2);
}

}  // namespace Brio::HashMap2018Sizing
