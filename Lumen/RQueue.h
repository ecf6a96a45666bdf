#pragma once

#include <cstdint>

#include "Lumen/RQueueBase.h"

namespace Lumen {

// The queue of elements T of one attribute, which Tag names (RQueueBase.h tells how it works). One
// word. The queue tells nobody of its changes: its owner publishes them, with the index that enq
// and deq give. The second parameter is false in all uses and has no effect.
template <class T, bool, class Tag>
class RQueue : public RQueueBase<T> {
 public:
  // The first element gets the index 1, or `firstIndex`.
  explicit RQueue(std::uint32_t firstIndex = RQueueBase<T>::kFirstIndex)
      : RQueueBase<T>(elementTracker_, firstIndex) {}
  ~RQueue() { doClear(false); }

  // Appends a copy and yields its index. Allocates only when the last chunk is full; aborts the
  // process when memory is exhausted.
  unsigned enq(const T& element) { return RQueueBase<T>::enq(elementTracker_, element); }
  // Moves the front to `out` and its index to `index`. False, with both untouched, on an empty
  // queue.
  bool deq(T& out, unsigned& index) { return RQueueBase<T>::deq(elementTracker_, out, index); }
  // Removes all elements. With `keepIndex` the indexes go on; otherwise they start at 1 again, and
  // no iterator may be used any more.
  void doClear(bool keepIndex) { RQueueBase<T>::doClear(elementTracker_, keepIndex); }

  // Counts the slots of the queues of this tag.
  static MemTrack& elementTracker() noexcept { return elementTracker_; }

 private:
  static inline MemTrack elementTracker_{trackerName<Tag>()};
};

}  // namespace Lumen
