#include "Brio/HashMap2018Iterator.h"

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
  const auto offset = reinterpret_cast<const char*>(node) - bucket->slots();
  standAt(bucket, static_cast<unsigned>(static_cast<std::size_t>(offset) / vtable->nodeSize()));
}

bool HashMap2018IteratorGeneric::operator==(const HashMap2018IteratorGeneric& other) const {
  if (bucket_ == nullptr || other.bucket_ == nullptr) {
    return bucket_ == other.bucket_;
  }
  if (collection_ != other.collection_ || bucket_->hash(slot_) != other.bucket_->hash(other.slot_)) {
    return false;
  }
  if (bucket_ == other.bucket_ && slot_ == other.slot_) {
    return true;
  }
  return vtable_->compareOrLruUnlink(nullptr, currNodeMaybeStale(), other.currNodeMaybeStale()) == 0;
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
  const HashMap2018BucketHdr* present = collection_->entry(hash).bucket;
  if (present == nullptr) {
    return nullptr;
  }
  const unsigned slot = HashMap2018Generic::lowerBound(vtable_, present, hash, nullptr, seen);
  if (slot == present->used() || present->hash(slot) != hash) {
    return nullptr;
  }
  const HashMap2018LinkNodeBase* node = present->node(slot, vtable_->nodeSize());
  return vtable_->compareOrLruUnlink(nullptr, seen, node) == 0 ? node : nullptr;
}

void HashMap2018IteratorGeneric::findSuccessor() {
  const HashMap2018LinkNodeBase* seen = currNodeMaybeStale();
  const std::uint32_t hash = bucket_->hash(slot_);
  const std::size_t index = collection_->entryIndex(hash);
  const HashMap2018BucketHdr* present = collection_->entryAt(index).bucket;
  if (present != nullptr) {
    unsigned slot = HashMap2018Generic::lowerBound(vtable_, present, hash, nullptr, seen);
    if (slot < present->used() && present->hash(slot) == hash &&
        vtable_->compareOrLruUnlink(nullptr, seen, present->node(slot, vtable_->nodeSize())) == 0) {
      ++slot;
    }
    if (slot < present->used()) {
      standAt(present, slot);
      return;
    }
  }
  standFrom(index + 1);
}

}  // namespace Brio
