#include "Lumen/SlabAlloc.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <mutex>
#include <new>

namespace PoolSlab {
namespace {

constexpr std::size_t kChunkBytes = 64 * 1024;
// Blocks that a refill threads onto a list at once: enough to stay on the fast path, few enough not
// to touch pages that nobody asked for.
constexpr std::size_t kRefillBlocks = 32;
constexpr std::size_t kClasses = kLargestSize / kSizeStep + 1;

// What is left of the chunk that a class was carved from last. Constant-initialized and never
// destroyed: objects are allocated before main and freed after it.
struct Source {
  std::mutex mutex;
  char* next = nullptr;
  char* end = nullptr;
};
constinit Source sources[kClasses];
constinit std::atomic<std::size_t> chunkBytes{0};

std::size_t blockBytes(std::size_t sizeClass) noexcept {
  return std::max<std::size_t>(sizeClass, 1) * kSizeStep;
}

// Threads fresh blocks onto the empty list of a class, lowest address first. False: no memory.
bool refill(std::size_t sizeClass) noexcept {
  Source& source = sources[sizeClass];
  const std::size_t size = blockBytes(sizeClass);
  if (static_cast<std::size_t>(source.end - source.next) < size) {
    auto* chunk = static_cast<char*>(std::malloc(kChunkBytes));
    if (chunk == nullptr) {
      return false;
    }
    chunkBytes.fetch_add(kChunkBytes, std::memory_order_relaxed);
    source.next = chunk;
    source.end = chunk + kChunkBytes;
  }
  const std::size_t count =
      std::min(kRefillBlocks, static_cast<std::size_t>(source.end - source.next) / size);
  Impl::FreeBlock* head = nullptr;
  for (std::size_t i = count; i-- > 0;) {
    head = ::new (source.next + i * size) Impl::FreeBlock{head};
  }
  source.next += count * size;
  Impl::freeLists.heads[sizeClass] = head;
  return true;
}

void* take(std::size_t sizeClass) noexcept {
  Impl::FreeBlock*& head = Impl::freeLists.heads[sizeClass];
  if (head == nullptr && !refill(sizeClass)) {
    return nullptr;
  }
  Impl::FreeBlock* block = head;
  head = block->next;
  return block;
}

}  // namespace

constinit Impl::FreeLists Impl::freeLists{};

void* Impl::allocSlow(std::size_t bytes) noexcept {
  if (kPassThrough || bytes > kLargestSize) {
    return std::malloc(std::max<std::size_t>(bytes, 1));
  }
  const std::size_t wanted = sizeClass(bytes);
  if (!Lumen::ThreadControl::threaded()) {
    return take(wanted);
  }
  const std::lock_guard lock(sources[wanted].mutex);
  return take(wanted);
}

void Impl::freeSlow(void* memory, std::size_t bytes) noexcept {
  if (memory == nullptr) {
    return;
  }
  if (kPassThrough || bytes > kLargestSize) {
    std::free(memory);
    return;
  }
  // Only a threaded process comes here: without threads the fast path never leaves a block over.
  const std::size_t given = sizeClass(bytes);
  const std::lock_guard lock(sources[given].mutex);
  freeLists.heads[given] = ::new (memory) FreeBlock{freeLists.heads[given]};
}

std::size_t slabChunkBytes() noexcept { return chunkBytes.load(std::memory_order_relaxed); }

}  // namespace PoolSlab
