#pragma once

#include <cstddef>
#include <iterator>

#include "Brio/HashMap2018Iterator.h"
#include "Lumen/Assert.h"

namespace Brio {

// Iterator over a collection of Node in the generic iterator's terms: two reads, and a walk that
// survives changes of the collection.
template <class Node>
class HashMap2018ConstIterator {
 public:
  HashMap2018ConstIterator() noexcept = default;
  explicit HashMap2018ConstIterator(HashMap2018IteratorGeneric iterator) noexcept
      : iter_(std::move(iterator)) {}

  // Has a current node.
  [[nodiscard]] explicit operator bool() const noexcept { return !iter_.atEnd(); }
  // The node as the iterator sees it, also when it is gone from the collection; null at the end.
  [[nodiscard]] const Node* currNodeMaybeStale() const noexcept {
    return iter_.atEnd() ? nullptr
                         : reinterpret_cast<const Node*>(iter_.bucket()->slots()) + iter_.slot();
  }
  // The present node of that key; null if it is gone, or at the end.
  [[nodiscard]] const Node* currNodeNonStale() const {
    return static_cast<const Node*>(iter_.currNodeNonStale());
  }
  // To the next node or to the end; nothing at the end.
  void advance() { iter_.advance(); }
  [[nodiscard]] bool hasCollection() const noexcept { return iter_.hasCollection(); }
  [[nodiscard]] bool operator==(const HashMap2018ConstIterator&) const = default;

 private:
  HashMap2018IteratorGeneric iter_;
};

// The same walk as a standard input iterator, for range-for. Dereferencing or incrementing one that
// has no collection is an assertion, and so is dereferencing one at the end.
template <class Node>
class StdIterator {
 public:
  using iterator_category = std::input_iterator_tag;
  using value_type = Node;
  using difference_type = std::ptrdiff_t;
  using pointer = const Node*;
  using reference = const Node&;

  StdIterator() noexcept = default;
  explicit StdIterator(HashMap2018ConstIterator<Node> iterator) noexcept
      : iter_(std::move(iterator)) {}

  reference operator*() const {
    const Node* node = iter_.currNodeMaybeStale();
    Lumen::assertThat(node != nullptr, "iter_");
    return *node;
  }
  pointer operator->() const { return &**this; }
  StdIterator& operator++() {
    Lumen::assertThat(iter_.hasCollection(), "iter_");
    iter_.advance();
    return *this;
  }
  StdIterator operator++(int) {
    StdIterator before = *this;
    ++*this;
    return before;
  }
  [[nodiscard]] bool operator==(const StdIterator&) const = default;

 private:
  HashMap2018ConstIterator<Node> iter_;
};

}  // namespace Brio
