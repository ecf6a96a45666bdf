#pragma once

#include <cstddef>

#include "Lumen/ThreadControl.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KELP_SLAB_PASS_THROUGH 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define KELP_SLAB_PASS_THROUGH 1
#endif
#endif

// What the base library needs of the slab allocator, with the fast path inline. The rest is defined
// in platform/PoolSlab.
//
// One free list per size class of 16 bytes. A list is filled from chunks that are never given back
// to the system. While Lumen::ThreadControl is off the lists are touched without a lock; once it is
// on, every operation takes its class's lock, and finds the same lists: the flag is raised before a
// second thread exists, so no operation without a lock can still be under way. Under the address
// and thread sanitizers every block comes from malloc, so that they see each object's own life.
namespace PoolSlab {

inline constexpr std::size_t kSizeStep = 16;      // the alignment of every block too
inline constexpr std::size_t kLargestSize = 512;  // above, malloc
#ifdef KELP_SLAB_PASS_THROUGH
inline constexpr bool kPassThrough = true;
#else
inline constexpr bool kPassThrough = false;
#endif

namespace Impl {

struct FreeBlock {
  FreeBlock* next;
};

// Heads of the free lists; class c holds blocks of c * kSizeStep bytes, class 0 those of class 1.
struct FreeLists {
  FreeBlock* heads[kLargestSize / kSizeStep + 1];
};
extern FreeLists freeLists;

[[nodiscard]] void* allocSlow(std::size_t bytes) noexcept;
void freeSlow(void* memory, std::size_t bytes) noexcept;

[[nodiscard]] constexpr std::size_t sizeClass(std::size_t bytes) noexcept {
  return (bytes + kSizeStep - 1) / kSizeStep;
}
[[nodiscard]] inline bool onFastPath(std::size_t bytes) noexcept {
  return !kPassThrough && bytes <= kLargestSize && !Lumen::ThreadControl::threaded();
}

}  // namespace Impl

// `bytes` of memory, aligned for any object of ordinary alignment, from the free list of its size
// class; sizes above kLargestSize come from malloc. Null when memory is exhausted. 0 bytes are a
// block too.
[[nodiscard]] inline void* slabAllocOrStdMalloc(std::size_t bytes) noexcept {
  if (Impl::onFastPath(bytes)) [[likely]] {
    Impl::FreeBlock*& head = Impl::freeLists.heads[Impl::sizeClass(bytes)];
    if (Impl::FreeBlock* block = head; block != nullptr) [[likely]] {
      head = block->next;
      // The block that comes next is read when it is taken, and written at once.
      __builtin_prefetch(head, 1);
      return block;
    }
  }
  return Impl::allocSlow(bytes);
}

// Gives back what slabAllocOrStdMalloc(bytes) gave out. `bytes` must be the same; null is ignored.
inline void slabFreeOrStdFree(void* memory, std::size_t bytes) noexcept {
  if (memory != nullptr && Impl::onFastPath(bytes)) [[likely]] {
    auto* block = static_cast<Impl::FreeBlock*>(memory);
    Impl::FreeBlock*& head = Impl::freeLists.heads[Impl::sizeClass(bytes)];
    block->next = head;
    head = block;
    return;
  }
  Impl::freeSlow(memory, bytes);
}

// Bytes that the slab has taken from the system since the process began, in use or on a free list.
// 0 while every block comes from malloc (kPassThrough).
[[nodiscard]] std::size_t slabChunkBytes() noexcept;

}  // namespace PoolSlab

#undef KELP_SLAB_PASS_THROUGH
