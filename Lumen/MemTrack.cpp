#include "Lumen/MemTrack.h"

namespace Lumen {
namespace {

// Constant-initialized, so that trackers may register from any static initializer.
constinit std::atomic<MemTrack*> trackers{nullptr};

}  // namespace

MemTrack::MemTrack(const char* typeName) noexcept : typeName_(typeName) {
  next_ = trackers.load(std::memory_order_relaxed);
  while (!trackers.compare_exchange_weak(next_, this, std::memory_order_release,
                                         std::memory_order_relaxed)) {
  }
}

void MemTrack::forEach(const std::function<void(const MemTrack&)>& visit) {
  for (const MemTrack* tracker = trackers.load(std::memory_order_acquire); tracker != nullptr;
       tracker = tracker->next_) {
    visit(*tracker);
  }
}

}  // namespace Lumen
