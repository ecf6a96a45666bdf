#pragma once

#include <cstddef>

// What the base library needs of the slab allocator. Defined in platform/PoolSlab.
namespace PoolSlab {

// `bytes` of memory, aligned for any object, from the free list of its size class; sizes above the
// largest class come from malloc. Null when memory is exhausted. A few nanoseconds on a warm list.
[[nodiscard]] void* slabAllocOrStdMalloc(std::size_t bytes) noexcept;

// Gives back what slabAllocOrStdMalloc(bytes) gave out. `bytes` must be the same; null is ignored.
void slabFreeOrStdFree(void* memory, std::size_t bytes) noexcept;

}  // namespace PoolSlab
