#pragma once

// The engine of the keyed collections, blind to the types of keys and nodes.
//
// Layout. A directory of 2^d entries is indexed by the top d bits of a member's 32-bit hash; each
// entry leads to one bucket, or to none. An entry carries the low byte of the hash of each of the
// first 16 slots, so that a lookup compares 16 members at once and a miss seldom leaves the entry:
//
//   directory:  { bucket*, tag[16] } x 2^d             (one entry lies in the collection itself)
//   bucket:     hash[capacity] | header | slot[capacity]     (HashMap2018Bucket.h)
//
// A bucket is as large as what it holds, rounded up to a few slots. The directory doubles when the
// mean number of members per entry passes what suits the node's size, so that a bucket stays small
// enough to be ranked, split and copied at little cost. Members of equal hashes can't be told
// apart by any directory: their bucket grows up to the width of its capacity.
//
// Order. Members have a total order that nothing changes: by hash, and by key where hashes are
// equal. Directory entries follow it, having the top bits of the hash as index. Inside a bucket it
// is made up when somebody asks: slots that have a tag are filled and vacated in no order, so that
// neither costs a search or a shift, and a walk ranks them when it comes to the bucket. A bucket of
// more slots is kept in order.
//
// Invariants:
//   1. All hashes of a bucket have the entry's index as top bits.
//   2. tag[i] of an entry is tagOf(hash of slot i) for i < min(used, 16), else 0; tagOf is never 0.
//   3. An entry without members has no bucket. (One from entryWithRoom() may have an empty one,
//      until its caller adds the member, or for longer if the member's constructor throws.)
//   4. A bucket with more than one reference is never changed, but replaced by a copy. Values of
//      nodes are the one exception: they belong to the caller. A bucket that the directory has let
//      go and that somebody else holds is marked as detached.
//   5. A bucket of more than 16 used slots ascends by (hash, key).
//
// Why iteration survives. An iterator holds a reference on its bucket and a place in its order, and
// by invariant 4 both stay readable. To advance, it looks whether its bucket is detached. If not,
// the next place is next. If so, it looks for the successor of (hash, key) in the present
// directory, which by the total order is the same whatever was done in between. A member that is
// there during the whole walk is passed exactly once, and one that comes or goes during it at most
// once. The same holds for a walk that remembers a key instead of an iterator.
//
// Re-entrancy. A node's destructor may call back into the collection. The engine destroys nodes of
// the caller's only as the last step of an operation, when the collection is whole again.

#include <cstddef>
#include <cstdint>

#include "Brio/HashKey.h"
#include "Brio/HashMap2018Directory.h"
#include "Brio/HashMap2018SlotOrder.h"
#include "Brio/HashMap2018VTable.h"
#include "Brio/TypeSafeIndex.h"

namespace Brio {

class HashMap2018Generic {
 public:
  // An empty collection; allocates nothing. The directory never shrinks below what `minSize`
  // members need; with `keepDirectory` it does not shrink at all before emptyAllBuckets.
  HashMap2018Generic(const HashMap2018VTable* vtable, TypeSafeIndex<unsigned, 1> minSize,
                     bool keepDirectory) noexcept;
  // Asserts that emptyAllBuckets has run.
  ~HashMap2018Generic();
  HashMap2018Generic(const HashMap2018Generic&) = delete;
  HashMap2018Generic& operator=(const HashMap2018Generic&) = delete;

  // Members.
  [[nodiscard]] unsigned size() const noexcept { return members_; }
  // The second size: slots of all buckets, in use or not.
  [[nodiscard]] unsigned slotCount() const noexcept { return slots_; }
  // Directory entries.
  [[nodiscard]] unsigned directorySize() const noexcept { return 1U << directoryLog2(); }

  // The node of the key; null if absent.
  [[nodiscard]] HashMap2018LinkNodeBase* lookupNodeG(
      const HashMap2018VTable* vtable, HashHelper::KeyAndRhashSeedArg keyAndHash) const;
  // For keys of type Lumen::String.
  [[nodiscard]] HashMap2018LinkNodeBase* lookupNodeG(const HashMap2018VTable* vtable,
                                                     const HashHelper::KeyString& keyAndHash) const;
  // Inserts and yields the new node; `node` stays behind cleared. The key must be absent.
  HashMap2018LinkNodeBase* newMemberG(const HashMap2018VTable* vtable,
                                      HashHelper::KeyAndRhashSeedArg keyAndHash,
                                      HashMap2018LinkNodeBase&& node);
  // True if the key was there. `out` is raw memory that then gets the removed node, or null.
  bool deleteMemberG(const HashMap2018VTable* vtable, HashHelper::KeyAndRhashSeedArg keyAndHash,
                     void* out);
  // Removes all members. The directory stays if it was in good use.
  void _memberDelAll(const HashMap2018VTable* vtable);
  // Removes all members, and the directory too with `freeDirectory`.
  void emptyAllBuckets(const HashMap2018VTable* vtable, bool freeDirectory);

  // For typed lookups and for iterators: the entry that all members with this hash are under, and
  // its place in the directory.
  [[nodiscard]] std::size_t entryIndex(std::uint32_t hash) const noexcept {
    return static_cast<std::uint64_t>(hash) >> shift_;
  }
  [[nodiscard]] const HashMap2018DirectoryEntry& entry(std::uint32_t hash) const noexcept {
    return directory_[entryIndex(hash)];
  }
  [[nodiscard]] const HashMap2018DirectoryEntry& entryAt(std::size_t index) const noexcept {
    return directory_[index];
  }
  // The node of the key in a bucket that reaches beyond the tags, where the tags have found
  // nothing.
  [[nodiscard]] static HashMap2018LinkNodeBase* lookupBeyondTags(
      const HashMap2018VTable* vtable, HashMap2018BucketHdr* bucket,
      HashHelper::KeyAndRhashSeedArg keyAndHash);
  // First slot of an ordered bucket that is not before (hash, key); the key is that of `node`, or
  // `key` if `node` is null.
  [[nodiscard]] static unsigned lowerBound(const HashMap2018VTable* vtable,
                                           const HashMap2018BucketHdr* bucket, std::uint32_t hash,
                                           const void* key, const HashMap2018LinkNodeBase* node);
  // The slots of a bucket that has a tag for each, in the collection's order: four bits for each
  // slot, the first lowest.
  [[nodiscard]] static std::uint64_t slotOrder(const HashMap2018VTable* vtable,
                                               const HashMap2018BucketHdr* bucket) {
    std::uint64_t order;
    if (HashMap2018SlotOrder::byHash(bucket, order)) [[likely]] {
      return order;
    }
    return slotOrderByKeys(vtable, bucket);
  }
  // Slots of `bucket` are kept in order.
  [[nodiscard]] static bool ordered(const HashMap2018BucketHdr* bucket) noexcept {
    return bucket->used() > HashMap2018DirectoryEntry::kTags;
  }
  // Removes the member in `slot` of the bucket under `hash`. Unless the bucket is shared, the
  // caller has moved the node's contents away.
  void memberErase(const HashMap2018VTable* vtable, std::uint32_t hash, unsigned slot);

  // For typed insertions and erasures, which do the common case in place. The entry under `hash`,
  // with a bucket of its own that takes one more; the caller adds the member and calls
  // countInsert().
  [[nodiscard]] HashMap2018DirectoryEntry& entryWithRoom(const HashMap2018VTable* vtable,
                                                         std::uint32_t hash) {
    Entry& in = entryOf(hash);
    if (members_ < growAt_ && in.bucket != nullptr && in.bucket->takesOneMore()) [[likely]] {
      return in;
    }
    return makeRoom(vtable, hash);
  }
  [[nodiscard]] HashMap2018DirectoryEntry& entryOf(std::uint32_t hash) noexcept {
    return directory_[entryIndex(hash)];
  }
  void countInsert() noexcept { ++members_; }
  void countErase(const HashMap2018VTable* vtable) {
    peak_ = peak_ > members_ ? peak_ : members_;
    --members_;
    if (--erasuresLeft_ == 0) [[unlikely]] {
      endOfEpoch(vtable);
    }
  }

 private:
  using Entry = HashMap2018DirectoryEntry;
  struct Piece;
  static constexpr unsigned kPiecesMax = 2 * Entry::kTags;

  [[nodiscard]] unsigned directoryLog2() const noexcept { return 32U - shift_; }
  [[nodiscard]] static std::uint64_t slotOrderByKeys(const HashMap2018VTable* vtable,
                                                     const HashMap2018BucketHdr* bucket);

  HashMap2018BucketHdr* assemble(const HashMap2018VTable* vtable, unsigned capacity,
                                 const Piece* pieces, unsigned numPieces);
  void release(const HashMap2018VTable* vtable, HashMap2018BucketHdr* bucket) noexcept;
  [[nodiscard]] static unsigned piecesInOrder(const HashMap2018VTable* vtable,
                                              HashMap2018BucketHdr* bucket, Piece* pieces);
  Entry& makeRoom(const HashMap2018VTable* vtable, std::uint32_t hash);
  void endOfEpoch(const HashMap2018VTable* vtable);
  void startEpoch(const HashMap2018VTable* vtable) noexcept;
  // Makes the directory larger by any factor, or half as large; any size if there is no member.
  void directoryLog2Is(const HashMap2018VTable* vtable, unsigned log2);
  void split(const HashMap2018VTable* vtable, Entry* to, unsigned log2);
  void splitOrdered(const HashMap2018VTable* vtable, HashMap2018BucketHdr* bucket, Entry* to,
                    unsigned log2);
  void merge(const HashMap2018VTable* vtable, Entry* to, unsigned log2);
  [[nodiscard]] bool mayMerge() const noexcept;

  Entry* directory_;
  unsigned members_ = 0;
  unsigned slots_ = 0;
  std::uint8_t shift_ = 32;
  std::uint8_t minLog2_ = 0;
  bool keepDirectory_;
  unsigned growAt_;  // members at which the directory doubles
  // An epoch of erasures, at whose end the directory may shrink: the most members seen in it, and
  // the erasures to come.
  unsigned peak_ = 0;
  unsigned erasuresLeft_;
  Entry single_;
};

}  // namespace Brio
