#include "Brio/HashMap2018Iterator.h"

#include <bit>

namespace Brio {

HashMap2018IteratorGeneric::HashMap2018IteratorGeneric(const HashMap2018Generic& collection,
                                                       const HashMap2018VTable* vtable)
    : collection_(&collection), vtable_(vtable) {
  if (collection.size() != 0) {
    standFrom(0);
  }
}

HashMap2018IteratorGeneric::HashMap2018IteratorGeneric(const HashMap2018Generic& collection,
                                                       const HashMap2018VTable* vtable,
                                                       HashHelper::KeyAndRhashSeedArg keyAndHash)
    : collection_(&collection), vtable_(vtable) {
  const HashMap2018LinkNodeBase* node = collection.lookupNodeG(vtable, keyAndHash);
  if (node == nullptr) {
    return;
  }
  const HashMap2018BucketHdr* bucket = collection.entry(keyAndHash.hash).bucket;
  const auto offset =
      static_cast<std::size_t>(reinterpret_cast<const char*>(node) - bucket->slots());
  const auto slot = static_cast<unsigned>(offset / vtable->nodeSize());
  if (HashMap2018Generic::ordered(bucket)) {
    standAt(bucket, slot);
    return;
  }
  standAt(bucket, 0);
  while (slot_ != slot) {
    advance();
  }
}

bool HashMap2018IteratorGeneric::atSameKey(const HashMap2018IteratorGeneric& other) const {
  if (collection_ != other.collection_ ||
      bucket_->hash(slot_) != other.bucket_->hash(other.slot_)) {
    return false;
  }
  if (bucket_ == other.bucket_ && slot_ == other.slot_) {
    return true;
  }
  return vtable_->compareOrLruUnlink(nullptr, currNodeMaybeStale(), other.currNodeMaybeStale()) ==
         0;
}

const HashMap2018LinkNodeBase* HashMap2018IteratorGeneric::currNodeNonStale() const {
  if (bucket_ == nullptr) {
    return nullptr;
  }
  const HashMap2018LinkNodeBase* seen = currNodeMaybeStale();
  if (!bucket_->detached()) {
    return seen;
  }
  const std::uint32_t hash = bucket_->hash(slot_);
  unsigned slot = 0;
  return findPresent(hash, seen, slot)
             ? collection_->entry(hash).bucket->node(slot, vtable_->nodeSize())
             : nullptr;
}

bool HashMap2018IteratorGeneric::findPresent(std::uint32_t hash,
                                             const HashMap2018LinkNodeBase* node,
                                             unsigned& slot) const {
  const HashMap2018DirectoryEntry& in = collection_->entry(hash);
  const auto isNode = [&](unsigned candidate) {
    slot = candidate;
    return in.bucket->hash(slot) == hash &&
           vtable_->compareOrLruUnlink(nullptr, node, in.bucket->node(slot, vtable_->nodeSize())) ==
               0;
  };
  if (in.bucket != nullptr && HashMap2018Generic::ordered(in.bucket)) {
    const unsigned bound = HashMap2018Generic::lowerBound(vtable_, in.bucket, hash, nullptr, node);
    return bound < in.bucket->used() && isNode(bound);
  }
  for (unsigned matches = in.matches(hash); matches != 0; matches &= matches - 1) {
    if (isNode(static_cast<unsigned>(std::countr_zero(matches)))) {
      return true;
    }
  }
  return false;
}

void HashMap2018IteratorGeneric::findSuccessor() {
  const HashMap2018LinkNodeBase* seen = currNodeMaybeStale();
  const std::uint32_t hash = bucket_->hash(slot_);
  const std::size_t index = collection_->entryIndex(hash);
  const HashMap2018BucketHdr* present = collection_->entryAt(index).bucket;
  const auto comesBehind = [&](unsigned slot) {
    return present->hash(slot) > hash ||
           (present->hash(slot) == hash &&
            vtable_->compareOrLruUnlink(nullptr, seen, present->node(slot, vtable_->nodeSize())) ==
                1);
  };
  if (present != nullptr) {
    const unsigned used = present->used();
    unsigned place = 0;
    if (HashMap2018Generic::ordered(present)) {
      place = HashMap2018Generic::lowerBound(vtable_, present, hash, nullptr, seen);
      if (place < used && !comesBehind(place)) {
        ++place;
      }
    } else {
      std::uint64_t order = HashMap2018Generic::slotOrder(vtable_, present);
      while (place < used && !comesBehind(static_cast<unsigned>(order & 0xf))) {
        ++place;
        order >>= 4;
      }
    }
    if (place < used) {
      standAt(present, place);
      return;
    }
  }
  standFrom(index + 1);
}

}  // namespace Brio
