#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

#include "Brio/HashKey.h"
#include "Brio/HashMap2018Bucket.h"
#include "Lumen/Assert.h"
#include "Lumen/MemTrack.h"
#include "Lumen/SlabAlloc.h"
#include "Lumen/TypeName.h"

namespace Brio {

enum class MoveOrCopy : unsigned char { move, copy };

// A run of nodes that goes into a new bucket. Moved nodes stay behind as live, cleared objects.
struct HashMap2018NodeRange {
  HashMap2018LinkNodeBase* nodes;
  unsigned count;
  MoveOrCopy moveOrCopy;
};

// All that the engine knows about the nodes and keys of a collection type: one constant record per
// type, made by Impl<Node, Key>.
struct HashMap2018VTable {
  // The node's size in the upper half, its alignment in the lower byte, and kStoredHashes.
  std::uint32_t sizeWord;
  // Drops a reference on a bucket. With the last one the nodes are destroyed and the block is
  // freed.
  void (*bktHdrRefDec)(const HashMap2018BucketHdr* bucket);
  bool (*keyEqualsNode)(const void* key, const HashMap2018LinkNodeBase* node);
  // Makes a node in the raw memory `slot` out of `node`, which a move leaves behind cleared.
  void (*place)(const HashMap2018VTable* vtable, void* slot, HashMap2018LinkNodeBase* node,
                MoveOrCopy moveOrCopy);
  // Moves the slots [first, end) of `nodes` by `slotsToShift` places. Negative: closes the gap in
  // front of `first`; the nodes in the gap are destroyed. Positive: must be 1; opens a gap at
  // `first` and moves `node` into it.
  void (*shift)(const HashMap2018VTable* vtable, HashMap2018LinkNodeBase* nodes,
                HashMap2018LinkNodeBase* node, unsigned first, unsigned end, int slotsToShift);
  // Fills the raw slots at `dest` of a new bucket of `capacity` with the nodes of `sources`, one
  // range after the other. Yields the number of nodes placed.
  unsigned (*newBucketAssemble)(const HashMap2018VTable* vtable, unsigned capacity, void* dest,
                                const HashMap2018NodeRange* sources, unsigned numSources);
  // Orders a key and a node: the left side is the key of `a`, or `key` if `a` is null; the right
  // side is the key of `b`. 0: equal, 1: the left is less, 2: otherwise.
  unsigned (*compareOrLruUnlink)(const void* key, const HashMap2018LinkNodeBase* a,
                                 const HashMap2018LinkNodeBase* b);

  // Each slot's hash is stored beside the nodes. Set in every record.
  static constexpr std::uint32_t kStoredHashes = 0x100;

  [[nodiscard]] std::size_t nodeSize() const noexcept { return sizeWord >> 16; }
  [[nodiscard]] std::size_t nodeAlignment() const noexcept { return sizeWord & 0xff; }

  // For nodes that are plain values of `nodeSize` bytes, which is known here so that small ones are
  // copied without a call.
  template <std::size_t nodeSize>
  static void trivialPlace(const HashMap2018VTable* vtable, void* slot,
                           HashMap2018LinkNodeBase* node, MoveOrCopy moveOrCopy);
  template <std::size_t nodeSize>
  static void trivialShift(const HashMap2018VTable* vtable, HashMap2018LinkNodeBase* nodes,
                           HashMap2018LinkNodeBase* node, unsigned first, unsigned end,
                           int slotsToShift);
  template <std::size_t nodeSize, Lumen::MemTrack& tracker>
  static unsigned trivialNewBucketAssemble(const HashMap2018VTable* vtable, unsigned capacity,
                                           void* dest, const HashMap2018NodeRange* sources,
                                           unsigned numSources);

  // Counts the buckets of all collections.
  static Lumen::MemTrack& bucketTracker() noexcept { return bucketTracker_; }

  template <class Node, class Key>
  class Impl;

 private:
  static Lumen::MemTrack bucketTracker_;
};

// The functions and the record of collections of Node. Key equality and order are those of
// HashKey.h.
template <class Node, class Key>
class HashMap2018VTable::Impl {
  static_assert(HashMap2018Key<Key>);
  static_assert(std::is_base_of_v<HashMap2018LinkNodeBase, Node>);
  static_assert(std::is_copy_constructible_v<Node>,
                "a shared bucket is copied before it is changed");
  static_assert(std::is_nothrow_move_constructible_v<Node> &&
                std::is_nothrow_move_assignable_v<Node>);
  static_assert(sizeof(Node) <= 0xffff && alignof(Node) <= 16);

 public:
  static constexpr bool kPlainValue =
      std::is_trivially_copyable_v<Node> && std::is_trivially_destructible_v<Node>;

  static bool keyEqualsNode(const void* key, const HashMap2018LinkNodeBase* node) {
    return HashHelper::keyIsEq<Key>(*static_cast<const Key*>(key), asNode(node)->key());
  }

  static unsigned compareOrLruUnlink(const void* key, const HashMap2018LinkNodeBase* a,
                                     const HashMap2018LinkNodeBase* b) {
    const auto compare = [&](const Key& left) -> unsigned {
      const Key& right = asNode(b)->key();
      if (HashHelper::keyIsEq<Key>(left, right)) {
        return 0;
      }
      return (left <=> right) < 0 ? 1 : 2;
    };
    return a != nullptr ? compare(asNode(a)->key()) : compare(*static_cast<const Key*>(key));
  }

  static void place(const HashMap2018VTable*, void* slot, HashMap2018LinkNodeBase* node,
                    MoveOrCopy moveOrCopy) {
    if (moveOrCopy == MoveOrCopy::move) {
      ::new (slot) Node(std::move(*asNode(node)));
    } else {
      ::new (slot) Node(std::as_const(*asNode(node)));
    }
  }

  // Moves a node to raw memory and leaves raw memory behind.
  static void relocate(Node* to, Node* from) noexcept {
    ::new (static_cast<void*>(to)) Node(std::move(*from));
    std::destroy_at(from);
  }

  static void shift(const HashMap2018VTable*, HashMap2018LinkNodeBase* nodes,
                    HashMap2018LinkNodeBase* node, unsigned first, unsigned end, int slotsToShift) {
    Node* slots = asNode(nodes);
    if (slotsToShift < 0) {
      const unsigned gap = static_cast<unsigned>(-slotsToShift);
      for (unsigned i = first; i < end; ++i) {
        std::swap(slots[i - gap], slots[i]);
      }
      for (unsigned i = end - gap; i < end; ++i) {
        std::destroy_at(&slots[i]);
      }
      return;
    }
    Lumen::assertThat(slotsToShift == 1, "slotsToShift == 1");
    for (unsigned i = end; i > first; --i) {
      relocate(&slots[i], &slots[i - 1]);
    }
    ::new (&slots[first]) Node(std::move(*asNode(node)));
  }

  static unsigned newBucketAssemble(const HashMap2018VTable* vtable, unsigned capacity, void* dest,
                                    const HashMap2018NodeRange* sources, unsigned numSources) {
    reportAllocated(capacity);
    auto* slot = static_cast<Node*>(dest);
    for (const auto* source = sources; source != sources + numSources; ++source) {
      Node* node = asNode(source->nodes);
      for (unsigned i = 0; i < source->count; ++i) {
        place(vtable, slot++, &node[i], source->moveOrCopy);
      }
    }
    return static_cast<unsigned>(slot - static_cast<Node*>(dest));
  }

  static void bktHdrRefDec(const HashMap2018BucketHdr* bucket) {
    if (!bucket->bktHdrRefDecHelper()) {
      return;
    }
    const unsigned capacity = bucket->capacity();
    bucketTracker_.freed(1, sizeof(HashMap2018BucketHdr));
    nodeTracker_.freed(capacity, capacity * kBytesPerSlot);
    if constexpr (!std::is_trivially_destructible_v<Node>) {
      auto* node = reinterpret_cast<Node*>(const_cast<char*>(bucket->slots()));
      std::destroy_n(node, bucket->used());
    }
    PoolSlab::slabFreeOrStdFree(
        bucket->block(alignof(Node)),
        HashMap2018BucketHdr::blockBytes(capacity, sizeof(Node), alignof(Node)));
  }

  // Counts the slots of the collections of this type, and their bytes with the stored hashes.
  static Lumen::MemTrack& nodeTracker() noexcept { return nodeTracker_; }

 private:
  static constexpr std::size_t kBytesPerSlot = sizeof(Node) + sizeof(std::uint32_t);

  static Node* asNode(HashMap2018LinkNodeBase* node) noexcept { return static_cast<Node*>(node); }
  static const Node* asNode(const HashMap2018LinkNodeBase* node) noexcept {
    return static_cast<const Node*>(node);
  }
  static void reportAllocated(unsigned capacity) noexcept {
    bucketTracker_.allocated(1, sizeof(HashMap2018BucketHdr));
    nodeTracker_.allocated(capacity, capacity * kBytesPerSlot);
  }

  static inline Lumen::MemTrack nodeTracker_{Lumen::trackerName<Node>()};

  static constexpr HashMap2018VTable makeRecord() noexcept {
    constexpr std::uint32_t kSizeWord = sizeof(Node) << 16 | kStoredHashes | alignof(Node);
    if constexpr (kPlainValue) {
      return {kSizeWord,
              &bktHdrRefDec,
              &keyEqualsNode,
              &trivialPlace<sizeof(Node)>,
              &trivialShift<sizeof(Node)>,
              &trivialNewBucketAssemble<sizeof(Node), nodeTracker_>,
              &compareOrLruUnlink};
    } else {
      return {kSizeWord, &bktHdrRefDec,      &keyEqualsNode,     &place,
              &shift,    &newBucketAssemble, &compareOrLruUnlink};
    }
  }

 public:
  static constexpr HashMap2018VTable record = makeRecord();
};

template <std::size_t nodeSize>
void HashMap2018VTable::trivialPlace(const HashMap2018VTable*, void* slot,
                                     HashMap2018LinkNodeBase* node, MoveOrCopy) {
  std::memcpy(slot, static_cast<const void*>(node), nodeSize);
}

template <std::size_t nodeSize>
void HashMap2018VTable::trivialShift(const HashMap2018VTable*, HashMap2018LinkNodeBase* nodes,
                                     HashMap2018LinkNodeBase* node, unsigned first, unsigned end,
                                     int slotsToShift) {
  char* from = reinterpret_cast<char*>(nodes) + first * nodeSize;
  std::memmove(from + slotsToShift * static_cast<std::ptrdiff_t>(nodeSize), from,
               (end - first) * nodeSize);
  if (slotsToShift > 0) {
    Lumen::assertThat(slotsToShift == 1, "slotsToShift == 1");
    std::memcpy(from, static_cast<const void*>(node), nodeSize);
  }
}

template <std::size_t nodeSize, Lumen::MemTrack& tracker>
unsigned HashMap2018VTable::trivialNewBucketAssemble(const HashMap2018VTable*, unsigned capacity,
                                                     void* dest,
                                                     const HashMap2018NodeRange* sources,
                                                     unsigned numSources) {
  bucketTracker_.allocated(1, sizeof(HashMap2018BucketHdr));
  tracker.allocated(capacity, capacity * (nodeSize + sizeof(std::uint32_t)));
  auto* slot = static_cast<char*>(dest);
  for (const auto* source = sources; source != sources + numSources; ++source) {
    const auto* node = reinterpret_cast<const char*>(source->nodes);
    for (unsigned i = 0; i < source->count; ++i, slot += nodeSize, node += nodeSize) {
      std::memcpy(slot, node, nodeSize);
    }
  }
  return static_cast<unsigned>(static_cast<std::size_t>(slot - static_cast<char*>(dest)) /
                               nodeSize);
}

}  // namespace Brio
