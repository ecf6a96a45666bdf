#include "Brio/HashMap2018Generic.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <memory>
#include <new>

#include "Brio/HashMap2018Sizing.h"
#include "Lumen/Assert.h"
#include "Lumen/SlabAlloc.h"

namespace Brio {

using HashMap2018Sizing::membersMax;

namespace {

// The directory reaches no further than this only to part the members of one overfull bucket.
constexpr unsigned kLog2ForOneBucket = 20;
// How far ahead a pass over the directory asks for buckets.
constexpr std::size_t kEntriesAhead = 4;

std::size_t indexOf(std::uint32_t hash, unsigned log2) noexcept {
  return static_cast<std::size_t>(static_cast<std::uint64_t>(hash) >> (32 - log2));
}

unsigned capacityFor(const HashMap2018VTable* vtable, unsigned used) noexcept {
  return HashMap2018Sizing::capacityFor(vtable->nodeSize(), used);
}

}  // namespace

// Where the nodes of a new bucket come from: a run of slots of another bucket.
struct HashMap2018Generic::Piece {
  HashMap2018BucketHdr* bucket;
  unsigned first;
  unsigned count;
};

HashMap2018Generic::HashMap2018Generic(const HashMap2018VTable* vtable,
                                       TypeSafeIndex<unsigned, 1> minSize,
                                       bool keepDirectory) noexcept
    : directory_(&single_), keepDirectory_(keepDirectory) {
  while (membersMax(vtable->nodeSize(), minLog2_) < minSize.value()) {
    ++minLog2_;
  }
  startEpoch(vtable);
}

HashMap2018Generic::~HashMap2018Generic() {
  Lumen::assertThat(members_ == 0 && directory_ == &single_,
                    "members_ == 0 && directory_ == &single_");
}

HashMap2018LinkNodeBase* HashMap2018Generic::lookupNodeG(
    const HashMap2018VTable* vtable, HashHelper::KeyAndRhashSeedArg keyAndHash) const {
  const Entry& in = entry(keyAndHash.hash);
  for (unsigned matches = in.matches(keyAndHash.hash); matches != 0; matches &= matches - 1) {
    const auto slot = static_cast<unsigned>(std::countr_zero(matches));
    HashMap2018LinkNodeBase* node = in.bucket->node(slot, vtable->nodeSize());
    if (in.bucket->hash(slot) == keyAndHash.hash && vtable->keyEqualsNode(keyAndHash.key, node)) {
      return node;
    }
  }
  return in.reachesBeyondTags() ? lookupBeyondTags(vtable, in.bucket, keyAndHash) : nullptr;
}

HashMap2018LinkNodeBase* HashMap2018Generic::lookupNodeG(
    const HashMap2018VTable* vtable, const HashHelper::KeyString& keyAndHash) const {
  const Lumen::String key(keyAndHash.text);
  return lookupNodeG(vtable, HashHelper::KeyAndRhashSeedArg{&key, keyAndHash.hash});
}

HashMap2018LinkNodeBase* HashMap2018Generic::lookupBeyondTags(
    const HashMap2018VTable* vtable, HashMap2018BucketHdr* bucket,
    HashHelper::KeyAndRhashSeedArg keyAndHash) {
  const unsigned slot = lowerBound(vtable, bucket, keyAndHash.hash, keyAndHash.key, nullptr);
  if (slot == bucket->used() || bucket->hash(slot) != keyAndHash.hash) {
    return nullptr;
  }
  HashMap2018LinkNodeBase* node = bucket->node(slot, vtable->nodeSize());
  return vtable->keyEqualsNode(keyAndHash.key, node) ? node : nullptr;
}

unsigned HashMap2018Generic::lowerBound(const HashMap2018VTable* vtable,
                                        const HashMap2018BucketHdr* bucket, std::uint32_t hash,
                                        const void* key, const HashMap2018LinkNodeBase* node) {
  const auto slotsUpTo = [&](auto before) {
    unsigned low = 0;
    for (unsigned high = bucket->used(); low < high;) {
      const unsigned middle = (low + high) / 2;
      before(bucket->hash(middle)) ? low = middle + 1 : high = middle;
    }
    return low;
  };
  // Between them, the slots with this very hash.
  unsigned first = slotsUpTo([hash](std::uint32_t other) { return other < hash; });
  unsigned end = slotsUpTo([hash](std::uint32_t other) { return other <= hash; });
  while (first < end) {
    const unsigned middle = (first + end) / 2;
    const auto* there = bucket->node(middle, vtable->nodeSize());
    vtable->compareOrLruUnlink(key, node, there) == 2 ? first = middle + 1 : end = middle;
  }
  return first;
}

std::uint64_t HashMap2018Generic::slotOrderByKeys(const HashMap2018VTable* vtable,
                                                  const HashMap2018BucketHdr* bucket) {
  const unsigned used = bucket->used();
  unsigned char slots[Entry::kTags];
  for (unsigned slot = 0; slot < used; ++slot) {
    const auto* node = bucket->node(slot, vtable->nodeSize());
    unsigned place = slot;
    for (; place != 0; --place) {
      const unsigned other = slots[place - 1];
      if (bucket->hash(other) < bucket->hash(slot) ||
          (bucket->hash(other) == bucket->hash(slot) &&
           vtable->compareOrLruUnlink(nullptr, node, bucket->node(other, vtable->nodeSize())) !=
               1)) {
        break;
      }
      slots[place] = slots[place - 1];
    }
    slots[place] = static_cast<unsigned char>(slot);
  }
  std::uint64_t order = 0;
  for (unsigned i = 0; i < used; ++i) {
    order |= static_cast<std::uint64_t>(slots[i]) << 4 * i;
  }
  return order;
}

HashMap2018LinkNodeBase* HashMap2018Generic::newMemberG(const HashMap2018VTable* vtable,
                                                        HashHelper::KeyAndRhashSeedArg keyAndHash,
                                                        HashMap2018LinkNodeBase&& node) {
  const std::uint32_t hash = keyAndHash.hash;
  Entry& in = entryWithRoom(vtable, hash);
  HashMap2018BucketHdr* bucket = in.bucket;
  const unsigned used = bucket->used();
  countInsert();
  if (used < Entry::kTags) {
    vtable->place(vtable, bucket->node(used, vtable->nodeSize()), &node, MoveOrCopy::move);
    bucket->hashIs(used, hash);
    bucket->usedIs(used + 1);
    in.tagAppend(used, hash);
    return bucket->node(used, vtable->nodeSize());
  }
  if (used == Entry::kTags) {
    Piece pieces[kPiecesMax];
    const unsigned numPieces = piecesInOrder(vtable, bucket, pieces);
    in.bucket = assemble(vtable, capacityFor(vtable, used + 1), pieces, numPieces);
    release(vtable, bucket);
    bucket = in.bucket;
  }
  const unsigned slot = lowerBound(vtable, bucket, hash, keyAndHash.key, nullptr);
  std::memmove(bucket->hashRange(slot + 1, used - slot), bucket->hashRange(slot, used - slot),
               (used - slot) * sizeof(std::uint32_t));
  bucket->hashIs(slot, hash);
  vtable->shift(vtable, bucket->node(0, 0), &node, slot, used, 1);
  bucket->usedIs(used + 1);
  in.bucketIs(bucket);
  return bucket->node(slot, vtable->nodeSize());
}

bool HashMap2018Generic::deleteMemberG(const HashMap2018VTable* vtable,
                                       HashHelper::KeyAndRhashSeedArg keyAndHash, void* out) {
  HashMap2018LinkNodeBase* node = lookupNodeG(vtable, keyAndHash);
  if (node == nullptr) {
    return false;
  }
  HashMap2018BucketHdr* bucket = entry(keyAndHash.hash).bucket;
  const auto slot = static_cast<unsigned>(
      static_cast<std::size_t>(reinterpret_cast<char*>(node) - bucket->slots()) /
      vtable->nodeSize());
  HashMap2018BucketHdr* parked = nullptr;
  if (out != nullptr) {
    vtable->place(vtable, out, node, bucket->shared() ? MoveOrCopy::copy : MoveOrCopy::move);
  } else if (!bucket->shared()) {
    // The node is destroyed when all is done: it waits in a bucket of its own.
    const Piece pieces[] = {{bucket, slot, 1}};
    parked = assemble(vtable, 1, pieces, 1);
  }
  memberErase(vtable, keyAndHash.hash, slot);
  if (parked != nullptr) {
    release(vtable, parked);
  }
  return true;
}

void HashMap2018Generic::memberErase(const HashMap2018VTable* vtable, std::uint32_t hash,
                                     unsigned slot) {
  Entry& in = entryOf(hash);
  HashMap2018BucketHdr* bucket = in.bucket;
  const unsigned left = bucket->used() - 1;
  if (left == 0) {
    in.bucketIs(nullptr);
    release(vtable, bucket);
    countErase(vtable);
    return;
  }
  if (bucket->shared() ||
      HashMap2018Sizing::wasteful(vtable->nodeSize(), bucket->capacity(), left)) {
    const Piece pieces[] = {{bucket, 0, slot}, {bucket, slot + 1, left - slot}};
    in.bucketIs(assemble(vtable, capacityFor(vtable, left), pieces, 2));
    release(vtable, bucket);
  } else {
    const unsigned behind = left - slot;
    std::memmove(bucket->hashRange(slot, behind), bucket->hashRange(slot + 1, behind),
                 behind * sizeof(std::uint32_t));
    vtable->shift(vtable, bucket->node(0, 0), nullptr, slot + 1, left + 1, -1);
    bucket->usedIs(left);
    in.bucketIs(bucket);
  }
  countErase(vtable);
}

void HashMap2018Generic::_memberDelAll(const HashMap2018VTable* vtable) {
  const bool oversized = 8ULL * members_ < membersMax(vtable->nodeSize(), directoryLog2());
  emptyAllBuckets(vtable, oversized && !keepDirectory_);
}

void HashMap2018Generic::emptyAllBuckets(const HashMap2018VTable* vtable, bool freeDirectory) {
  peak_ = std::max(peak_, members_);
  // Every step leaves the collection whole, and asks anew: a node that goes may call anything.
  for (std::size_t i = 0; slots_ != 0 && i < directorySize(); ++i) {
    if (HashMap2018BucketHdr* bucket = directory_[i].bucket; bucket != nullptr) {
      members_ -= bucket->used();
      directory_[i].bucketIs(nullptr);
      release(vtable, bucket);
    }
  }
  if (freeDirectory && members_ == 0) {
    directoryLog2Is(vtable, 0);
  }
}

HashMap2018BucketHdr* HashMap2018Generic::assemble(const HashMap2018VTable* vtable,
                                                   unsigned capacity, const Piece* pieces,
                                                   unsigned numPieces) {
  const std::size_t alignment = vtable->nodeAlignment();
  auto* block = static_cast<char*>(PoolSlab::slabAllocOrStdMalloc(
      HashMap2018BucketHdr::blockBytes(capacity, vtable->nodeSize(), alignment)));
  Lumen::assertThat(block != nullptr, "block != nullptr");
  auto* bucket = ::new (block + HashMap2018BucketHdr::slotsOffset(capacity, alignment) -
                        sizeof(HashMap2018BucketHdr)) HashMap2018BucketHdr(capacity);
  HashMap2018NodeRange ranges[kPiecesMax];
  unsigned used = 0;
  for (unsigned i = 0; i < numPieces; ++i) {
    const Piece& piece = pieces[i];
    std::memcpy(bucket->hashRange(used, piece.count),
                piece.bucket->hashRange(piece.first, piece.count),
                piece.count * sizeof(std::uint32_t));
    ranges[i] = {piece.bucket->node(piece.first, vtable->nodeSize()), piece.count,
                 piece.bucket->shared() ? MoveOrCopy::copy : MoveOrCopy::move};
    used += piece.count;
  }
  bucket->usedIs(vtable->newBucketAssemble(vtable, capacity, bucket->slots(), ranges, numPieces));
  slots_ += capacity;
  return bucket;
}

void HashMap2018Generic::release(const HashMap2018VTable* vtable,
                                 HashMap2018BucketHdr* bucket) noexcept {
  slots_ -= bucket->capacity();
  bucket->detach();
  vtable->bktHdrRefDec(bucket);
}

HashMap2018DirectoryEntry& HashMap2018Generic::makeRoom(const HashMap2018VTable* vtable,
                                                        std::uint32_t hash) {
  if (members_ >= growAt_) {
    // From one bucket to four: two would be full again at once.
    const unsigned log2 = directoryLog2();
    directoryLog2Is(vtable, std::max<unsigned>(minLog2_, log2 == 0 ? 2 : log2 + 1));
  }
  // Only keys that were chosen for it fill a bucket to its limit. A larger directory may part them.
  while (entry(hash).bucket != nullptr &&
         entry(hash).bucket->used() == HashMap2018BucketHdr::kCapacityMax) {
    Lumen::assertThat(directoryLog2() < kLog2ForOneBucket,
                      "a bucket of HashMap2018 is full: more than 16383 keys have one hash");
    directoryLog2Is(vtable, directoryLog2() + 1);
  }
  Entry& in = entryOf(hash);
  HashMap2018BucketHdr* bucket = in.bucket;
  if (bucket == nullptr) {
    in.bucket = assemble(vtable, capacityFor(vtable, 1), nullptr, 0);
  } else if (!bucket->takesOneMore()) {
    const Piece pieces[] = {{bucket, 0, bucket->used()}};
    in.bucket = assemble(vtable, capacityFor(vtable, bucket->used() + 1), pieces, 1);
    release(vtable, bucket);
  }
  return in;
}

// The directory shrinks when it was at least eight times too large for the length of an epoch, so
// that a collection that is filled and drained again and again keeps the one it needs.
void HashMap2018Generic::endOfEpoch(const HashMap2018VTable* vtable) {
  const std::size_t size = vtable->nodeSize();
  unsigned log2 = directoryLog2();
  if (!keepDirectory_ && 8ULL * peak_ < membersMax(size, log2)) {
    while (log2 > minLog2_ && 4ULL * peak_ < membersMax(size, log2)) {
      --log2;
    }
    while (directoryLog2() > log2 && mayMerge()) {
      directoryLog2Is(vtable, directoryLog2() - 1);
    }
  }
  startEpoch(vtable);
}

void HashMap2018Generic::startEpoch(const HashMap2018VTable* vtable) noexcept {
  constexpr std::uint64_t kMost = ~0U;
  const std::size_t size = vtable->nodeSize();
  const unsigned log2 = directoryLog2();
  peak_ = members_;
  // A directory that is not there yet is made with the first member.
  growAt_ = static_cast<unsigned>(log2 < minLog2_ ? 0 : std::min(kMost, membersMax(size, log2)));
  erasuresLeft_ = static_cast<unsigned>(
      log2 <= minLog2_ ? kMost : std::min(kMost, HashMap2018Sizing::erasuresOfEpoch(size, log2)));
}

void HashMap2018Generic::directoryLog2Is(const HashMap2018VTable* vtable, unsigned log2) {
  const unsigned oldLog2 = directoryLog2();
  if (log2 == oldLog2) {
    return;
  }
  Entry* to = &single_;
  if (log2 != 0) {
    const std::size_t entries = std::size_t{1} << log2;
    to = static_cast<Entry*>(PoolSlab::slabAllocOrStdMalloc(entries * sizeof(Entry)));
    Lumen::assertThat(to != nullptr, "to != nullptr");
    std::uninitialized_value_construct_n(to, entries);
  }
  if (members_ != 0) {
    log2 > oldLog2 ? split(vtable, to, log2) : merge(vtable, to, log2);
  }
  Entry* old = directory_;
  directory_ = to;
  shift_ = static_cast<std::uint8_t>(32 - log2);
  startEpoch(vtable);
  if (old == &single_) {
    single_ = Entry();
  } else {
    PoolSlab::slabFreeOrStdFree(old, (std::size_t{1} << oldLog2) * sizeof(Entry));
  }
}

// Fills the larger, empty directory `to` from the present one.
void HashMap2018Generic::split(const HashMap2018VTable* vtable, Entry* to, unsigned log2) {
  for (std::size_t i = 0; i < directorySize(); ++i) {
    if (i + kEntriesAhead < directorySize()) {
      __builtin_prefetch(directory_[i + kEntriesAhead].bucket);
    }
    HashMap2018BucketHdr* bucket = directory_[i].bucket;
    if (bucket == nullptr) {
      continue;
    }
    if (ordered(bucket)) {
      splitOrdered(vtable, bucket, to, log2);
      continue;
    }
    const unsigned used = bucket->used();
    const unsigned all = (1U << used) - 1;
    for (unsigned left = all; left != 0;) {
      // All slots that go where the first one goes.
      const std::size_t index = indexOf(bucket->hash(std::countr_zero(left)), log2);
      unsigned together = 0;
      for (unsigned slot = 0; slot < used; ++slot) {
        together |= static_cast<unsigned>(indexOf(bucket->hash(slot), log2) == index) << slot;
      }
      if (together == all) {
        to[index] = directory_[i];
        bucket = nullptr;
        break;
      }
      left &= ~together;
      Piece pieces[Entry::kTags];
      unsigned numPieces = 0;
      for (; together != 0; together &= together - 1) {
        pieces[numPieces++] = {bucket, static_cast<unsigned>(std::countr_zero(together)), 1};
      }
      to[index].bucketIs(assemble(vtable, capacityFor(vtable, numPieces), pieces, numPieces));
    }
    if (bucket != nullptr) {
      release(vtable, bucket);
    }
  }
}

void HashMap2018Generic::splitOrdered(const HashMap2018VTable* vtable, HashMap2018BucketHdr* bucket,
                                      Entry* to, unsigned log2) {
  const unsigned used = bucket->used();
  if (const std::size_t index = indexOf(bucket->hash(0), log2);
      index == indexOf(bucket->hash(used - 1), log2)) {
    to[index].bucketIs(bucket);
    return;
  }
  for (unsigned first = 0; first < used;) {
    const std::size_t index = indexOf(bucket->hash(first), log2);
    unsigned end = first + 1;
    while (end < used && indexOf(bucket->hash(end), log2) == index) {
      ++end;
    }
    const Piece pieces[] = {{bucket, first, end - first}};
    to[index].bucketIs(assemble(vtable, capacityFor(vtable, end - first), pieces, 1));
    first = end;
  }
  release(vtable, bucket);
}

// Whether every two neighbouring buckets fit into one.
bool HashMap2018Generic::mayMerge() const noexcept {
  for (std::size_t i = 0; i < directorySize(); i += 2) {
    const HashMap2018BucketHdr* low = directory_[i].bucket;
    const HashMap2018BucketHdr* high = directory_[i + 1].bucket;
    if (low != nullptr && high != nullptr &&
        low->used() + high->used() > HashMap2018BucketHdr::kCapacityMax) {
      return false;
    }
  }
  return true;
}

// Fills the directory `to`, of half the size and empty, from the present one.
void HashMap2018Generic::merge(const HashMap2018VTable* vtable, Entry* to, unsigned log2) {
  for (std::size_t i = 0; i < std::size_t{1} << log2; ++i) {
    const Entry& low = directory_[2 * i];
    const Entry& high = directory_[2 * i + 1];
    if (low.bucket == nullptr || high.bucket == nullptr) {
      to[i] = low.bucket == nullptr ? high : low;
      continue;
    }
    // All of the low one's hashes are below those of the high one.
    Piece pieces[kPiecesMax];
    unsigned numPieces = piecesInOrder(vtable, low.bucket, pieces);
    numPieces += piecesInOrder(vtable, high.bucket, pieces + numPieces);
    const unsigned used = low.bucket->used() + high.bucket->used();
    to[i].bucketIs(assemble(vtable, capacityFor(vtable, used), pieces, numPieces));
    release(vtable, low.bucket);
    release(vtable, high.bucket);
  }
}

// Writes the slots of `bucket` to `pieces`, in order; at most one for each tag. Yields how many.
unsigned HashMap2018Generic::piecesInOrder(const HashMap2018VTable* vtable,
                                           HashMap2018BucketHdr* bucket, Piece* pieces) {
  if (ordered(bucket)) {
    pieces[0] = {bucket, 0, bucket->used()};
    return 1;
  }
  std::uint64_t order = slotOrder(vtable, bucket);
  for (unsigned i = 0; i < bucket->used(); ++i, order >>= 4) {
    pieces[i] = {bucket, static_cast<unsigned>(order & 0xf), 1};
  }
  return bucket->used();
}

}  // namespace Brio
