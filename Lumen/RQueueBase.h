#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>
#include <utility>

#include "Lumen/IntrusiveLinkedTailQueue.h"
#include "Lumen/MemTrack.h"
#include "Lumen/SlabAlloc.h"
#include "Lumen/TypeName.h"
#include "Lumen/Util.h"

// A first-in first-out queue whose elements keep a logical index for life: a ring of chunks, not a
// ring of slots. Elements never move; memory grows by a chunk and shrinks by a chunk that has been
// read out.
//
//   tail -> [chunk] -> head -> [chunk] -> ... -> [chunk] -> tail
//
// The element in slot s of a chunk has the index firstIndex + s. A queue that was read empty keeps
// a marker, one chunk without slots whose firstIndex is the next index to give out.
//
// Invariants:
//   1. beginPos <= endPos <= capacity in every chunk; slots [beginPos, endPos) hold elements.
//   2. Only the head has a beginPos above 0.
//   3. firstIndex of a chunk is the back index of the chunk before it, plus 1.
//   4. A chunk without elements is the only one, and a marker.
//
// Indexes are compared as on a circle, so the 32-bit counter may wrap.

namespace Lumen {

namespace RQueueIndex {

// a comes after b.
[[nodiscard]] constexpr bool isAfter(std::uint32_t a, std::uint32_t b) noexcept {
  const std::uint32_t difference = a - b;
  return difference != 0 && difference < 0x7fffffffU;
}

}  // namespace RQueueIndex

template <class T>
class RQueueBaseConstIter;

// What of a queue of T does not depend on its tag.
template <class T>
class RQueueBase {
 public:
  static constexpr std::uint32_t kFirstIndex = 1;
  static constexpr unsigned kCapacityMin = 4;
  static constexpr unsigned kCapacityMax = 8192;

  // A chunk: this header and, behind it, the slots.
  struct Array {
    IntrusiveLinkedTailQueueLink link;
    std::uint32_t beginPos : 14;     // first element not yet dequeued
    std::uint32_t endPos : 14;       // behind the last element enqueued
    std::uint32_t capacityLog2 : 4;  // 0 stands for capacity 0: a marker
    std::uint32_t firstIndex;        // of slot 0

    Array(unsigned capacity, std::uint32_t first) noexcept
        : beginPos(0),
          endPos(0),
          capacityLog2(capacity == 0 ? 0 : powerOfTwoLog2(capacity) & 0xfU),
          firstIndex(first) {}

    [[nodiscard]] unsigned capacity() const noexcept {
      return capacityLog2 == 0 ? 0 : 1U << capacityLog2;
    }
    [[nodiscard]] T* slot(unsigned position) noexcept {
      return reinterpret_cast<T*>(reinterpret_cast<char*>(this) + kSlotsOffset) + position;
    }
    [[nodiscard]] const T* slot(unsigned position) const noexcept {
      return const_cast<Array*>(this)->slot(position);
    }
    [[nodiscard]] std::uint32_t frontIndex() const noexcept { return firstIndex + beginPos; }
    [[nodiscard]] std::uint32_t backIndex() const noexcept { return firstIndex + endPos - 1; }

    static constexpr std::size_t kSlotsOffset =
        (sizeof(void*) + 2 * sizeof(std::uint32_t) + alignof(T) - 1) / alignof(T) * alignof(T);
  };
  static_assert(sizeof(Array) == sizeof(void*) + 2 * sizeof(std::uint32_t),
                "the three small fields share one 32-bit word");
  static_assert(alignof(T) <= 16, "the alignment of slab memory");

  RQueueBase(const RQueueBase&) = delete;
  RQueueBase& operator=(const RQueueBase&) = delete;

  [[nodiscard]] bool empty() const noexcept { return backIndex() - frontIndex() > 0xfffffffeU; }
  [[nodiscard]] std::uint32_t size() const noexcept { return backIndex() - frontIndex() + 1; }
  // Index of the first element; on an empty queue the next index to give out.
  [[nodiscard]] unsigned frontIndex() const noexcept {
    return chunks_.empty() ? kFirstIndex : chunks_.front()->frontIndex();
  }
  // Index of the last element; on an empty queue one less than the front index.
  [[nodiscard]] unsigned backIndex() const noexcept {
    return chunks_.empty() ? kFirstIndex - 1 : chunks_.tail()->backIndex();
  }

  // The first and the last element; null on an empty queue. Valid until the element is dequeued.
  [[nodiscard]] const T* front() const noexcept {
    return empty() ? nullptr : chunks_.front()->slot(chunks_.front()->beginPos);
  }
  [[nodiscard]] const T* back() const noexcept {
    return empty() ? nullptr : chunks_.tail()->slot(chunks_.tail()->endPos - 1);
  }
  // front index <= index <= back index.
  [[nodiscard]] bool has(unsigned index) const noexcept {
    // The distance from the front decides also for an index on the far side of the circle.
    return index - frontIndex() < size();
  }
  // The element of the index; null if out of range. Costs a walk over the chunks, none if it is in
  // the last one.
  [[nodiscard]] const T* at(unsigned index) const noexcept {
    if (!has(index)) {
      return nullptr;
    }
    const Array* chunk = chunks_.tail();
    if (RQueueIndex::isAfter(chunk->frontIndex(), index)) {
      chunk = chunks_.front();
      while (RQueueIndex::isAfter(index, chunk->backIndex())) {
        chunk = Chunks::next(chunk);
      }
    }
    return chunk->slot(index - chunk->firstIndex);
  }

  [[nodiscard]] RQueueBaseConstIter<T> constIter() const noexcept {
    return RQueueBaseConstIter<T>(*this);
  }

  // Counts the chunks of all queues of T.
  static MemTrack& chunkTracker() noexcept { return chunkTracker_; }

 protected:
  // An empty queue; the first element gets the index `firstIndex`. Allocates nothing for the usual
  // one.
  explicit RQueueBase(MemTrack& elementTracker, std::uint32_t firstIndex) {
    if (firstIndex != kFirstIndex) {
      chunks_.push(makeChunk(elementTracker, 0, firstIndex));
    }
  }
  ~RQueueBase() = default;

  unsigned enq(MemTrack& elementTracker, const T& element) {
    Array* chunk = chunks_.tail();
    if (chunk == nullptr) {
      chunks_.push(chunk = makeChunk(elementTracker, kCapacityMin, kFirstIndex));
    } else if (chunk->capacity() == 0) {
      const std::uint32_t next = chunk->firstIndex;
      freeChunk(elementTracker, chunks_.pop());
      chunks_.push(chunk = makeChunk(elementTracker, kCapacityMin, next));
    } else if (chunk->endPos == chunk->capacity()) {
      chunk = makeChunk(elementTracker, capacityAbove(size()), chunk->firstIndex + chunk->endPos);
      chunks_.push(chunk);
    }
    ::new (chunk->slot(chunk->endPos)) T(element);
    chunk->endPos = (chunk->endPos + 1U) & 0x3fffU;
    return chunk->backIndex();
  }

  bool deq(MemTrack& elementTracker, T& out, unsigned& index) {
    if (empty()) {
      return false;
    }
    Array* head = chunks_.front();
    T* element = head->slot(head->beginPos);
    index = head->frontIndex();
    T removed(std::move(*element));
    std::destroy_at(element);
    head->beginPos = (head->beginPos + 1U) & 0x3fffU;
    if (head->beginPos == head->endPos) {
      chunks_.pop();
      if (chunks_.empty()) {
        chunks_.push(makeChunk(elementTracker, 0, head->firstIndex + head->endPos));
      }
      freeChunk(elementTracker, head);
    }
    // Last: what `out` held before may call anything on its way out.
    out = std::move(removed);
    return true;
  }

  void doClear(MemTrack& elementTracker, bool keepIndex) {
    if (chunks_.empty()) {
      return;
    }
    const std::uint32_t next = chunks_.tail()->firstIndex + chunks_.tail()->endPos;
    // Elements are released when the queue is empty already: they may call anything on their way
    // out.
    Chunks cleared = std::exchange(chunks_, {});
    if (keepIndex) {
      chunks_.push(makeChunk(elementTracker, 0, next));
    }
    while (!cleared.empty()) {
      Array* chunk = cleared.pop();
      std::destroy_n(chunk->slot(chunk->beginPos), chunk->endPos - chunk->beginPos);
      freeChunk(elementTracker, chunk);
    }
  }

 private:
  friend class RQueueBaseConstIter<T>;
  using Chunks = IntrusiveLinkedTailQueue<Array, &Array::link>;

  [[nodiscard]] static constexpr unsigned capacityAbove(std::uint32_t live) noexcept {
    unsigned capacity = kCapacityMin;
    while (capacity <= live && capacity < kCapacityMax) {
      capacity *= 2;
    }
    return capacity;
  }
  [[nodiscard]] static constexpr std::size_t chunkBytes(unsigned capacity) noexcept {
    return capacity == 0 ? sizeof(Array) : Array::kSlotsOffset + capacity * sizeof(T);
  }

  static Array* makeChunk(MemTrack& elementTracker, unsigned capacity, std::uint32_t firstIndex) {
    void* memory = PoolSlab::slabAllocOrStdMalloc(chunkBytes(capacity));
    if (memory == nullptr) [[unlikely]] {
      std::abort();
    }
    chunkTracker_.allocated(1, sizeof(Array));
    elementTracker.allocated(capacity, capacity * sizeof(T));
    return ::new (memory) Array(capacity, firstIndex);
  }
  static void freeChunk(MemTrack& elementTracker, Array* chunk) noexcept {
    const unsigned capacity = chunk->capacity();
    chunkTracker_.freed(1, sizeof(Array));
    elementTracker.freed(capacity, capacity * sizeof(T));
    std::destroy_at(chunk);
    PoolSlab::slabFreeOrStdFree(chunk, chunkBytes(capacity));
  }

  static inline MemTrack chunkTracker_{typeName<Array>()};

  Chunks chunks_;
};

// Walks a queue from its front. It survives enqueues, dequeues and clears that keep the index: when
// what it stands on has been dequeued, the next step goes to the present front. Until then it must
// not be dereferenced. The queue must outlive it.
template <class T>
class RQueueBaseConstIter {
 public:
  // The end.
  RQueueBaseConstIter() noexcept = default;
  // At the front; at the end if the queue is empty.
  explicit RQueueBaseConstIter(const RQueueBase<T>& queue) noexcept : queue_(&queue) {
    goToFront();
  }

  // Has a current element.
  [[nodiscard]] explicit operator bool() const noexcept { return array_ != nullptr; }
  [[nodiscard]] const T& operator*() const noexcept { return *array_->slot(slot_); }
  [[nodiscard]] const T* operator->() const noexcept { return array_->slot(slot_); }
  // Logical index of the current element.
  [[nodiscard]] unsigned index() const noexcept { return index_; }

  // To the next element; at the end: nothing.
  void increment() noexcept {
    if (array_ == nullptr) {
      return;
    }
    if (RQueueIndex::isAfter(queue_->frontIndex(), index_)) {
      goToFront();
      return;
    }
    ++index_;
    ++slot_;
    if (slot_ == array_->endPos) {
      array_ = array_ == queue_->chunks_.tail() ? nullptr : RQueueBase<T>::Chunks::next(array_);
      slot_ = 0;
    }
  }
  RQueueBaseConstIter& operator++() noexcept {
    increment();
    return *this;
  }

 private:
  using Array = typename RQueueBase<T>::Array;

  void goToFront() noexcept {
    if (queue_->empty()) {
      array_ = nullptr;
      slot_ = 0;
      index_ = 0;
      return;
    }
    array_ = queue_->chunks_.front();
    slot_ = array_->beginPos;
    index_ = array_->frontIndex();
  }

  const RQueueBase<T>* queue_ = nullptr;
  const Array* array_ = nullptr;
  unsigned slot_ = 0;
  std::uint32_t index_ = 0;
};

}  // namespace Lumen
