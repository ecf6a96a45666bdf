#pragma once

#include "Brio/HashMap2018Generic.h"

namespace Brio {

// A place in a keyed collection, blind to types. It survives any change of the collection (see
// HashMap2018Generic.h); the collection must outlive every use of it but currNodeMaybeStale(),
// assignment and destruction. Holds a reference on one bucket: while it stands, the first change of
// that bucket costs a copy of it.
class HashMap2018IteratorGeneric {
 public:
  struct EndOfCollection {};

  // An iterator of no collection.
  HashMap2018IteratorGeneric() noexcept = default;
  // At the first node.
  HashMap2018IteratorGeneric(const HashMap2018Generic& collection, const HashMap2018VTable* vtable);
  HashMap2018IteratorGeneric(const HashMap2018Generic& collection, const HashMap2018VTable* vtable,
                             EndOfCollection) noexcept
      : collection_(&collection), vtable_(vtable) {}
  // At the key; at the end if it is absent.
  HashMap2018IteratorGeneric(const HashMap2018Generic& collection, const HashMap2018VTable* vtable,
                             HashHelper::KeyAndRhashSeedArg keyAndHash);
  HashMap2018IteratorGeneric(const HashMap2018IteratorGeneric& other) noexcept
      : collection_(other.collection_),
        vtable_(other.vtable_),
        bucket_(other.bucket_),
        order_(other.order_),
        slot_(other.slot_),
        behind_(other.behind_) {
    if (bucket_ != nullptr) {
      bucket_->bktHdrRefInc();
    }
  }
  HashMap2018IteratorGeneric(HashMap2018IteratorGeneric&& other) noexcept
      : collection_(other.collection_),
        vtable_(other.vtable_),
        bucket_(std::exchange(other.bucket_, nullptr)),
        order_(other.order_),
        slot_(other.slot_),
        behind_(other.behind_) {}
  HashMap2018IteratorGeneric& operator=(HashMap2018IteratorGeneric other) noexcept {
    std::swap(collection_, other.collection_);
    std::swap(vtable_, other.vtable_);
    std::swap(bucket_, other.bucket_);
    std::swap(order_, other.order_);
    std::swap(slot_, other.slot_);
    std::swap(behind_, other.behind_);
    return *this;
  }
  ~HashMap2018IteratorGeneric() {
    if (bucket_ != nullptr) {
      drop(bucket_);
    }
  }

  // Both at an end, or both at the same key.
  [[nodiscard]] bool operator==(const HashMap2018IteratorGeneric& other) const {
    return bucket_ == nullptr || other.bucket_ == nullptr ? bucket_ == other.bucket_
                                                          : atSameKey(other);
  }

  // To the next node in the collection's order, or to the end. At the end: nothing.
  void advance() {
    if (bucket_ == nullptr) {
      return;
    }
    if (behind_ != 0 && !bucket_->detached()) [[likely]] {
      --behind_;
      if (HashMap2018Generic::ordered(bucket_)) [[unlikely]] {
        ++slot_;
      } else {
        slot_ = static_cast<unsigned>(order_ & 0xf);
        order_ >>= 4;
      }
      return;
    }
    const HashMap2018BucketHdr* left = bucket_;
    if (left->detached()) [[unlikely]] {
      findSuccessor();
    } else {
      standFrom(collection_->entryIndex(left->hash(slot_)) + 1);
    }
    // Last, since the nodes that go with it may call anything.
    drop(left);
  }

  [[nodiscard]] bool hasCollection() const noexcept { return collection_ != nullptr; }
  [[nodiscard]] bool atEnd() const noexcept { return bucket_ == nullptr; }

  // The node as the iterator sees it, valid even if it has been removed or replaced since; null at
  // the end. Its key never changes. A value that was overwritten in place shows the new value until
  // the bucket is copied. Valid while the iterator stands on it.
  [[nodiscard]] const HashMap2018LinkNodeBase* currNodeMaybeStale() const noexcept {
    return bucket_ == nullptr ? nullptr : bucket_->node(slot_, vtable_->nodeSize());
  }
  // The present node of that key; null if it is gone, or at the end. Costs a lookup if the bucket
  // has changed.
  [[nodiscard]] const HashMap2018LinkNodeBase* currNodeNonStale() const;

  // Both for typed iterators, which know the size of a node.
  [[nodiscard]] const HashMap2018BucketHdr* bucket() const noexcept { return bucket_; }
  [[nodiscard]] unsigned slot() const noexcept { return slot_; }

 private:
  [[nodiscard]] bool atSameKey(const HashMap2018IteratorGeneric& other) const;
  // To the first node behind the one that it stands on, whose bucket is detached.
  void findSuccessor();
  void drop(const HashMap2018BucketHdr* bucket) const {
    // The vtable's function is needed for the last reference only.
    if (bucket->shared()) [[likely]] {
      static_cast<void>(bucket->bktHdrRefDecHelper());
    } else {
      vtable_->bktHdrRefDec(bucket);
    }
  }
  // To the first node of the first bucket from the directory entry `index` on, or to the end.
  void standFrom(std::size_t index) noexcept {
    const std::size_t end = collection_->directorySize();
    for (; index < end; ++index) {
      const HashMap2018BucketHdr* bucket = collection_->entryAt(index).bucket;
      if (bucket != nullptr && bucket->used() != 0) {
        prefetch(index + kEntriesAhead < end ? index + kEntriesAhead : end - 1);
        standAt(bucket, 0);
        return;
      }
    }
    bucket_ = nullptr;
  }
  // Asks for the bucket of an entry ahead, and for the far end of its first node: a walk meets
  // buckets in no order of memory.
  void prefetch(std::size_t index) const noexcept {
    const HashMap2018BucketHdr* bucket = collection_->entryAt(index).bucket;
    __builtin_prefetch(bucket);
    __builtin_prefetch(reinterpret_cast<const void*>(reinterpret_cast<std::uintptr_t>(bucket) +
                                                     vtable_->nodeSize()));
  }
  // To the place `place` in the order of `bucket`.
  void standAt(const HashMap2018BucketHdr* bucket, unsigned place) noexcept {
    bucket->bktHdrRefInc();
    bucket_ = bucket;
    slot_ = place;
    behind_ = bucket->used() - place - 1;
    if (!HashMap2018Generic::ordered(bucket)) [[likely]] {
      order_ = HashMap2018Generic::slotOrder(vtable_, bucket) >> 4 * place;
      slot_ = static_cast<unsigned>(order_ & 0xf);
      order_ >>= 4;
    }
  }
  // The slot of the present entry for `hash` that has the key of `node`; false if there is none.
  [[nodiscard]] bool findPresent(std::uint32_t hash, const HashMap2018LinkNodeBase* node,
                                 unsigned& slot) const;

  static constexpr std::size_t kEntriesAhead = 6;

  const HashMap2018Generic* collection_ = nullptr;
  const HashMap2018VTable* vtable_ = nullptr;
  const HashMap2018BucketHdr* bucket_ = nullptr;
  std::uint64_t order_ =
      0;  // of the slots behind the current one, if the bucket is not an ordered one
  unsigned slot_ = 0;
  unsigned behind_ = 0;  // nodes of the bucket behind the current one
};

}  // namespace Brio
