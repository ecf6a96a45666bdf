#include "Brio/HashMap2018VTable.h"

namespace Brio {

Lumen::MemTrack HashMap2018VTable::bucketTracker_{"Brio::HashMap2018BucketHdr"};

void HashMap2018VTable::trivialPlace(const HashMap2018VTable* vtable, void* slot,
                                     HashMap2018LinkNodeBase* node, MoveOrCopy) {
  std::memcpy(slot, static_cast<const void*>(node), vtable->nodeSize());
}

void HashMap2018VTable::trivialShift(const HashMap2018VTable* vtable, HashMap2018LinkNodeBase* nodes,
                                     HashMap2018LinkNodeBase* node, unsigned first, unsigned end,
                                     int slotsToShift) {
  const std::size_t nodeSize = vtable->nodeSize();
  char* from = reinterpret_cast<char*>(nodes) + first * nodeSize;
  std::memmove(from + slotsToShift * static_cast<std::ptrdiff_t>(nodeSize), from,
               (end - first) * nodeSize);
  if (slotsToShift > 0) {
    Lumen::assertThat(slotsToShift == 1, "slotsToShift == 1");
    std::memcpy(from, static_cast<const void*>(node), nodeSize);
  }
}

}  // namespace Brio
