#include "HeapCount.h"

#include <cstddef>

namespace {

std::uint64_t count = 0;

}  // namespace

// The program's own malloc comes before the C library's, for all that is loaded.
extern "C" {
void* __libc_malloc(std::size_t bytes);
void* malloc(std::size_t bytes) {
  ++count;
  return __libc_malloc(bytes);
}
}

namespace Bench {

std::uint64_t heapAllocations() noexcept { return count; }

}  // namespace Bench
