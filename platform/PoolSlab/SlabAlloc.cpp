#include "Lumen/SlabAlloc.h"

#include <cstdlib>

namespace PoolSlab {

void* slabAllocOrStdMalloc(std::size_t bytes) noexcept { return std::malloc(bytes); }
void slabFreeOrStdFree(void* memory, std::size_t) noexcept { std::free(memory); }

}  // namespace PoolSlab
