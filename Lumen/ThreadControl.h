#pragma once

#include <atomic>

namespace Lumen {

// Says whether the process runs threads that share nodes. Off (the default), use counts and
// allocation counters are plain increments; on, they are atomic ones. Turn it on before the second
// thread starts and never off again.
class ThreadControl {
 public:
  [[nodiscard]] static bool threaded() noexcept {
    return threaded_.load(std::memory_order_relaxed);
  }
  static void threadedIs(bool threaded) noexcept {
    threaded_.store(threaded, std::memory_order_relaxed);
  }

 private:
  static std::atomic<bool> threaded_;
};

}  // namespace Lumen
