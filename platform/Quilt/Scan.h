#pragma once

#include <algorithm>
#include <cstdint>
#include <limits>
#include <vector>

#include "Quilt/Chains.h"
#include "Quilt/Seam.h"
#include "Quilt/StoreFile.h"

namespace Quilt {

// What a pass over all chains of a collection has found.
struct ScanResult {
  std::uint64_t records = 0;
  std::uint64_t marked = 0;  // records whose type has a quiltMarked(), and that say yes
  std::uint64_t damages = 0;
  std::uint32_t fresh = 0;  // slots from here on are not in use
  std::uint64_t lowKey = std::numeric_limits<std::uint64_t>::max();  // of a collection in key order
  std::uint64_t highKey = 0;
  std::vector<std::uint64_t> reachable;  // a bit per slot, as far as `fresh`

  [[nodiscard]] bool reaches(std::uint32_t slot) const noexcept {
    return slot / 64 < reachable.size() && ((reachable[slot / 64] >> (slot % 64)) & 1U) != 0;
  }
};

enum class ScanMode {
  look,  // passes over damage: what lies behind a record that is not whole is reached if its link
         // is
  cut,   // the same, and takes what is damaged out of its chain
};

// Goes along every chain of the collection and calls visit(record) for each whole record: one
// whose link leads to an existing slot of the right generation, whose key belongs to the bucket and
// follows the key before it, and whose checksum holds. `slotBound`: slots that may be touched. Only
// the writer, or somebody who works on a file that nobody writes, may scan. Ends on any bytes
// whatsoever, since no slot is gone over twice.
template <class Record, class Visit>
ScanResult scan(const Chains<Record>& chains, std::uint32_t slotBound, ScanMode mode,
                Visit&& visit) {
  using Words = typename Chains<Record>::Words;
  constexpr std::uint32_t kAhead = 12;

  ScanResult result;
  result.reachable.resize(slotBound / 64 + 1);
  const std::uint32_t buckets = chains.buckets();
  const auto fetch = [&](std::uint32_t bucket) {
    const std::uint32_t index = Link::slot(chains.head(bucket).load(std::memory_order_relaxed));
    if (index < slotBound) {
      const auto* slot = reinterpret_cast<const unsigned char*>(&chains.slot(index));
      __builtin_prefetch(slot);
      __builtin_prefetch(slot + sizeof(typename Chains<Record>::RecordSlot) - 1);
    }
  };
  for (std::uint64_t from = 0; from < buckets; from += chains.headChunkBuckets()) {
    if (!chains.headsUsed(static_cast<std::uint32_t>(from))) {
      continue;
    }
    const auto to = static_cast<std::uint32_t>(
        std::min<std::uint64_t>(buckets, from + chains.headChunkBuckets()));
    for (auto bucket = static_cast<std::uint32_t>(from); bucket < to; ++bucket) {
      if (bucket + kAhead < to) {
        fetch(bucket + kAhead);
      }
      Word64* at = &chains.head(bucket);
      Words previous;
      bool any = false;
      while (const std::uint64_t link = at->load(std::memory_order_acquire)) {
        const std::uint32_t index = Link::slot(link);
        bool linkHolds = index < slotBound && !result.reaches(index) && Link::generation(link) != 0;
        if (linkHolds) {
          const auto& slot = chains.slot(index);
          linkHolds = slot.generation.load(std::memory_order_acquire) == Link::generation(link);
        }
        if (!linkHolds) {
          ++result.damages;
          if (mode == ScanMode::cut) {
            Seam::store(*at, std::uint64_t{0}, std::memory_order_release);
          }
          break;
        }
        auto& slot = chains.slot(index);
        Record record;
        const std::uint32_t checksum = Chains<Record>::checksumIn(
            slot, Link::generation(link),
            [&](std::size_t i, std::uint64_t word) { Chains<Record>::wordIs(record, i, word); });
        const Words key = Chains<Record>::keyOf(slot);
        const bool sound = slot.checksum.load(std::memory_order_acquire) == checksum;
        const bool atHome = chains.bucketOf(key) == bucket && (!any || previous < key);
        if (sound && !atHome) {
          // The link went astray: the record is another chain's, and so is what lies behind it.
          ++result.damages;
          if (mode == ScanMode::cut) {
            Seam::store(*at, std::uint64_t{0}, std::memory_order_release);
          }
          break;
        }
        // Marked in either case: no second link may lead here, and a chain cannot go round.
        result.reachable[index / 64] |= std::uint64_t{1} << (index % 64);
        if (!sound) {
          ++result.damages;
          if (mode == ScanMode::cut) {
            Seam::store(*at, slot.next.load(std::memory_order_acquire), std::memory_order_release);
          } else {
            at = &slot.next;
          }
          continue;
        }
        ++result.records;
        if constexpr (requires { record.quiltMarked(); }) {
          result.marked += record.quiltMarked() ? 1 : 0;
        }
        result.fresh = std::max(result.fresh, index + 1);
        if constexpr (RecordTraits<Record>::kOrderedByKey) {
          result.lowKey = std::min(result.lowKey, key.words[0]);
          result.highKey = std::max(result.highKey, key.words[0]);
        }
        visit(record);
        previous = key;
        any = true;
        at = &slot.next;
      }
    }
  }
  return result;
}

}  // namespace Quilt
