#pragma once

#include <cstddef>
#include <new>

#include "Lumen/MemTrack.h"
#include "Lumen/SlabAlloc.h"

namespace PoolSlab {

// Gives a class its own allocation from the slab, counted by a tracker of the class. T has a static
// constexpr member or function `className()` that yields its name. A class below another slabbed
// class says `using PoolSlab::Slabbed<T>::operator new` (and delete) to choose its own.
template <class T>
class __attribute__((visibility("default"))) Slabbed {
 public:
  static void* operator new(std::size_t bytes) {
    static_assert(alignof(T) <= kSizeStep, "slab blocks are not aligned for this class");
    void* memory = slabAllocOrStdMalloc(bytes);
    if (memory == nullptr) [[unlikely]] {
      throw std::bad_alloc();
    }
    tracker().allocated(1, bytes);
    return memory;
  }
  static void operator delete(void* memory, std::size_t bytes) noexcept {
    tracker().freed(1, bytes);
    slabFreeOrStdFree(memory, bytes);
  }

  // The class's allocation tracker.
  static Lumen::MemTrack& tracker() noexcept { return memAllocationTracker_; }

 private:
  static inline Lumen::MemTrack memAllocationTracker_{T::className()};
};

}  // namespace PoolSlab
