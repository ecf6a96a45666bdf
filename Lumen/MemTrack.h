#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>

#include "Lumen/ThreadControl.h"

namespace Lumen {

// Counts the live objects and bytes of one class. A tracker registers itself for the life of the
// process; make it a static of the class it counts. A leak shows as a count that does not return.
class MemTrack {
 public:
  explicit MemTrack(const char* typeName) noexcept;
  MemTrack(const MemTrack&) = delete;
  MemTrack& operator=(const MemTrack&) = delete;

  void allocated(std::size_t objects, std::size_t bytes) noexcept {
    add(objects_, objects);
    add(bytes_, bytes);
    add(allocations_, 1);
  }
  void freed(std::size_t objects, std::size_t bytes) noexcept {
    add(objects_, ~static_cast<std::uint64_t>(objects) + 1);
    add(bytes_, ~static_cast<std::uint64_t>(bytes) + 1);
  }

  [[nodiscard]] const char* typeName() const noexcept { return typeName_; }
  [[nodiscard]] std::uint64_t liveObjects() const noexcept { return load(objects_); }
  [[nodiscard]] std::uint64_t liveBytes() const noexcept { return load(bytes_); }
  // Allocations since the process began.
  [[nodiscard]] std::uint64_t allocations() const noexcept { return load(allocations_); }

  // Calls `visit` for every tracker of the process, newest first.
  static void forEach(const std::function<void(const MemTrack&)>& visit);

 private:
  using Counter = std::atomic<std::uint64_t>;

  static void add(Counter& counter, std::uint64_t step) noexcept {
    if (ThreadControl::threaded()) [[unlikely]] {
      counter.fetch_add(step, std::memory_order_relaxed);
    } else {
      counter.store(counter.load(std::memory_order_relaxed) + step, std::memory_order_relaxed);
    }
  }
  static std::uint64_t load(const Counter& counter) noexcept {
    return counter.load(std::memory_order_relaxed);
  }

  const char* typeName_;
  Counter objects_{0};
  Counter bytes_{0};
  Counter allocations_{0};
  MemTrack* next_ = nullptr;
};

}  // namespace Lumen
