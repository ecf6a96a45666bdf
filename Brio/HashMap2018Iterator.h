#pragma once

#include "Brio/HashMap2018Generic.h"

namespace Brio {

// A place in a keyed collection, blind to types. It survives any change of the collection (see
// HashMap2018Generic.h); the collection must outlive every use of it but currNodeMaybeStale(),
// assignment and destruction. Holds a reference on one bucket: while it stands, the first change of that
// bucket costs a copy of it.
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
        slot_(other.slot_) {
    if (bucket_ != nullptr) {
      bucket_->bktHdrRefInc();
    }
  }
  HashMap2018IteratorGeneric(HashMap2018IteratorGeneric&& other) noexcept
      : collection_(other.collection_),
        vtable_(other.vtable_),
        bucket_(std::exchange(other.bucket_, nullptr)),
        slot_(other.slot_) {}
  HashMap2018IteratorGeneric& operator=(HashMap2018IteratorGeneric other) noexcept {
    std::swap(collection_, other.collection_);
    std::swap(vtable_, other.vtable_);
    std::swap(bucket_, other.bucket_);
    std::swap(slot_, other.slot_);
    return *this;
  }
  ~HashMap2018IteratorGeneric() {
    if (bucket_ != nullptr) {
      vtable_->bktHdrRefDec(bucket_);
    }
  }

  // Both at an end, or both at the same key.
  [[nodiscard]] bool operator==(const HashMap2018IteratorGeneric& other) const;

  // To the next node in the collection's order, or to the end. At the end: nothing.
  void advance() {
    if (bucket_ == nullptr) {
      return;
    }
    if (collection_->entry(bucket_->hash(slot_)).bucket == bucket_ && slot_ + 1 < bucket_->used())
        [[likely]] {
      ++slot_;
      return;
    }
    advanceToOtherBucket();
  }

  [[nodiscard]] bool hasCollection() const noexcept { return collection_ != nullptr; }
  [[nodiscard]] bool atEnd() const noexcept { return bucket_ == nullptr; }

  // The node as the iterator sees it, valid even if it has been removed or replaced since; null at the
  // end. Its key never changes. A value that was overwritten in place shows the new value until the
  // bucket is copied. Valid while the iterator stands on it.
  [[nodiscard]] const HashMap2018LinkNodeBase* currNodeMaybeStale() const noexcept {
    return bucket_ == nullptr ? nullptr : bucket_->node(slot_, vtable_->nodeSize());
  }
  // The present node of that key; null if it is gone, or at the end. Costs a lookup if the bucket has
  // changed.
  [[nodiscard]] const HashMap2018LinkNodeBase* currNodeNonStale() const;

  // Both for typed iterators, which know the size of a node.
  [[nodiscard]] const HashMap2018BucketHdr* bucket() const noexcept { return bucket_; }
  [[nodiscard]] unsigned slot() const noexcept { return slot_; }

 private:
  void advanceToOtherBucket();
  // To the first slot of the first bucket from the directory entry `index` on.
  void standFrom(std::size_t index) noexcept;
  void standAt(const HashMap2018BucketHdr* bucket, unsigned slot) noexcept {
    bucket_ = bucket;
    slot_ = slot;
    bucket_->bktHdrRefInc();
  }

  const HashMap2018Generic* collection_ = nullptr;
  const HashMap2018VTable* vtable_ = nullptr;
  const HashMap2018BucketHdr* bucket_ = nullptr;
  unsigned slot_ = 0;
};

}  // namespace Brio
