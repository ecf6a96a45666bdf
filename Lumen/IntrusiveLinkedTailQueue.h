#pragma once

#include "Lumen/Assert.h"

namespace Lumen {

template <class ElementType, auto ptrToLinkNode>
class IntrusiveLinkedTailQueue;

// What makes an object an element of such a queue: one word, the next element of the circle. An
// element must leave its queue before it is destroyed.
class IntrusiveLinkedTailQueueLink {
 public:
  IntrusiveLinkedTailQueueLink() noexcept = default;
  IntrusiveLinkedTailQueueLink(const IntrusiveLinkedTailQueueLink&) = delete;
  IntrusiveLinkedTailQueueLink& operator=(const IntrusiveLinkedTailQueueLink&) = delete;
  ~IntrusiveLinkedTailQueueLink() { assertThat(!linked(), "!linked()"); }

  [[nodiscard]] bool linked() const noexcept { return next_ != nullptr; }

 private:
  template <class, auto>
  friend class IntrusiveLinkedTailQueue;

  void* next_ = nullptr;  // the element, not its link
};

// First-in first-out queue of elements that carry their own link, the member `ptrToLinkNode`. One
// word: the list is circular and the queue holds its tail, whose link is the head. Owns nothing.
template <class ElementType, auto ptrToLinkNode>
class IntrusiveLinkedTailQueue {
 public:
  [[nodiscard]] bool empty() const noexcept { return tail_ == nullptr; }
  // The last element; null if there is none.
  [[nodiscard]] ElementType* tail() const noexcept { return tail_; }
  // The first element. Asserts that there is one.
  [[nodiscard]] ElementType* front() const noexcept {
    assertThat(tail_ != nullptr, "tail_ != nullptr");
    return next(tail_);
  }
  // What follows an element of this queue; after the tail comes the head.
  [[nodiscard]] static ElementType* next(const ElementType* element) noexcept {
    return static_cast<ElementType*>((element->*ptrToLinkNode).next_);
  }
  // Takes the first element out and yields it. Asserts that there is one.
  ElementType* pop() noexcept {
    ElementType* head = front();
    if (head == tail_) {
      tail_ = nullptr;
    } else {
      nextIs(tail_, next(head));
    }
    nextIs(head, nullptr);
    return head;
  }
  // Adds an element that is in no queue behind the last one.
  void push(ElementType* element) noexcept {
    if (tail_ == nullptr) {
      nextIs(element, element);
    } else {
      nextIs(element, next(tail_));
      nextIs(tail_, element);
    }
    tail_ = element;
  }

 private:
  static void nextIs(ElementType* element, ElementType* to) noexcept {
    (element->*ptrToLinkNode).next_ = to;
  }

  ElementType* tail_ = nullptr;
};

}  // namespace Lumen
