#pragma once

#include <cstdint>
#include <memory>

namespace Lumen {

// Number of an attribute as a change notification carries it. Only the low 16 bits name the
// attribute.
struct FieldId {
  std::uint32_t value = 0;

  [[nodiscard]] constexpr std::uint16_t attribute() const noexcept {
    return static_cast<std::uint16_t>(value);
  }
  friend constexpr bool operator==(FieldId, FieldId) = default;
};

class Publisher;

// One end of a notification: a dispatch function that a publisher calls for each change. Embedded
// in, or inherited by, the object that listens. Not copied: its address is its identity. It must be
// removed from every publisher before it dies.
class Subscriber {
 public:
  // `key` points to the key of the member or the queue index that changed, `oldValue` to the value
  // before the change; either is null where there is none. Both are valid during the call only.
  using Dispatch = void (*)(Publisher* publisher, Subscriber* subscriber, FieldId field,
                            const void* key, const void* oldValue);

  Subscriber() = default;
  explicit Subscriber(Dispatch dispatch) : dispatch_(dispatch) {}
  Subscriber(const Subscriber&) = delete;
  Subscriber& operator=(const Subscriber&) = delete;

  // The dispatch slot; null: not listening.
  [[nodiscard]] Dispatch dispatch() const noexcept { return dispatch_; }
  void dispatchIs(Dispatch dispatch) noexcept { dispatch_ = dispatch; }

 private:
  Dispatch dispatch_ = nullptr;
};

// Tells subscribers of attribute changes of one object. One word when nobody listens. Subscribers
// may come and go while it publishes: one that goes is not called any more, one that comes is
// called from the next publication on. Subscribers are called in the order of their coming. The
// publisher must outlive a publication.
class Publisher {
 public:
  Publisher() noexcept;
  ~Publisher();
  Publisher(const Publisher&) = delete;
  Publisher& operator=(const Publisher&) = delete;

  // A subscriber that is there already is not added again; removing one that is absent does
  // nothing.
  void subscriberAdd(Subscriber* subscriber);
  void subscriberRemove(Subscriber* subscriber) noexcept;
  [[nodiscard]] bool hasSubscribers() const noexcept { return state_ != nullptr; }

  // Tells of a changed plain attribute or queue element. Costs one branch when nobody listens.
  void publishChange(FieldId field, const void* key = nullptr, const void* oldValue = nullptr) {
    if (state_ != nullptr) [[unlikely]] {
      deliver(field, key, oldValue);
    }
  }
  // Tells of a changed attribute together with what is below it: the member of a keyed collection
  // under `key`, or an attribute that is itself a node.
  void publishChangeRecursive(FieldId field, const void* key = nullptr,
                              const void* oldValue = nullptr) {
    publishChange(field, key, oldValue);
  }

 private:
  struct State;

  void deliver(FieldId field, const void* key, const void* oldValue);

  std::unique_ptr<State> state_;
};

}  // namespace Lumen
