#pragma once

#include <atomic>
#include <cstdint>

#include "Lumen/ThreadControl.h"
#include "Lumen/TypeData.h"

namespace Lumen {

class Publisher;

// Base of every shared object. The use count and the flag bits are one 32-bit word; the count is
// kept by Lumen::Ptr. A node is made with a count of 0 and belongs to the first Ptr that takes it.
class Node {
 public:
  // The object wants to be notified of changes of what it watches.
  static constexpr std::uint32_t kHasNotificationActive = 0x20000000;
  // Reactors of the object must not run any more.
  static constexpr std::uint32_t kZombieReactors = 0x40000000;

  Node() = default;
  Node(const Node&) = delete;
  Node& operator=(const Node&) = delete;

  virtual ~Node();
  // Runs when the last Ptr is gone; deletes the object unless a class overrides it.
  virtual void lastUserGone() const noexcept;
  // The publisher of the object's attribute changes, or null if the class publishes none.
  [[nodiscard]] virtual Publisher* publisher() const;
  [[nodiscard]] virtual const TypeData& typeData() const;

  [[gnu::always_inline]] void refInc() const noexcept {
    if (ThreadControl::threaded()) [[unlikely]] {
      word_.fetch_add(1, std::memory_order_relaxed);
    } else {
      word_.store(word_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }
  }
  [[gnu::always_inline]] void refDec() const noexcept {
    std::uint32_t after;
    if (ThreadControl::threaded()) [[unlikely]] {
      after = word_.fetch_sub(1, std::memory_order_acq_rel) - 1;
    } else {
      after = word_.load(std::memory_order_relaxed) - 1;
      word_.store(after, std::memory_order_relaxed);
    }
    if ((after & kCountMask) == 0) {
      lastUserGone();
    }
  }
  [[nodiscard]] std::uint32_t refCount() const noexcept {
    return word_.load(std::memory_order_relaxed) & kCountMask;
  }

  [[nodiscard]] bool nodeFlag(std::uint32_t flag) const noexcept {
    return (word_.load(std::memory_order_relaxed) & flag) != 0;
  }
  void nodeFlagSet(std::uint32_t flag, bool on) const noexcept {
    if (on) {
      word_.fetch_or(flag, std::memory_order_relaxed);
    } else {
      word_.fetch_and(~flag, std::memory_order_relaxed);
    }
  }

 private:
  static constexpr std::uint32_t kCountMask = 0x0fffffff;

  mutable std::atomic<std::uint32_t> word_{0};
};

}  // namespace Lumen
