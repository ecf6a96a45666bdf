#pragma once

// clang-format off
//
// How a collection lies in shared memory, and why a process may die at any instruction of a change.
//
// THE FILE
//
//   offset 0      Header, one page
//     0             constants      who the file is; never changes. With a checksum.
//     256           copy           the same once more
//     512           published      words that change alone, each one atomic. This one is polled
//     576           scratchpad
//                   announced
//                   records        number of records: a cache
//                   lowKey         bounds of the keys, of a collection in key order: a cache
//                   highKey
//     640           slotsReserved  slots whose space has been taken from the file system
//                   wiped          1: what the collection once held is lost
//                   damaged        1: corruption has been met
//     704           headsUsed[16]  a bit for each chunk of heads that may be touched
//   offset 4096   heads[buckets]   links; a power of two, no less than the declared capacity
//   next page     slots[limit + 8]
//                   next           link to the next record of the bucket
//                   generation     32 bits, raised each time the slot is taken; 0: never
//                   checksum       CRC-32C of the record, begun with the generation
//                   words[]        the record, its key within
//
//   A link is {slot, generation} in one 64-bit word, 0 for none. The file holds no pointer and is
//   sparse: a chunk of heads or slots takes space when it is first needed, by a call that can say
//   no, so that no store to the mapping can fail. Nobody touches what has no space, since even a
//   read would take some.
//
// INVARIANTS
//
//   1. What a link from a head or from a linked slot leads to is a slot below slotsReserved,
//      with the generation of the link, whose checksum holds.
//   2. The record in it belongs to the bucket: bucketOf(key) is the bucket of the chain.
//   3. The keys of a chain rise strictly. So a chain is finite whatever happens to it, and the
//      place of a key that is gone is known.
//   4. No two links lead to one slot. A slot that no link leads to is free.
//   5. A slot that a link leads to does not change but for `next`.
//   6. lowKey <= every key <= highKey, and the number of records is no more than `records`.
//
// A CHANGE, AND THE DEATH OF A WRITER
//
//   recordIs: (1) a free slot gets a new generation; (2) the record, (3) its checksum and (4)
//   `next` go in; (5) of a new key, the bounds and the count take it in; (6) one store of the link
//   that leads here, to the head or to the `next` of the record before. An overwrite is the same:
//   the new slot takes over the successor of the old one, and store 6 takes the old one out.
//   recordDel: (1) one store of the successor over the link to the record; (2) count and bounds.
//
//   Before store 6 nothing that a link leads to has changed, and after it the change is complete:
//   that is the whole argument. A process that dies in between leaves a slot that is filled in
//   part and free (invariant 4), a count or bounds that are too wide (6), and nothing to repair.
//   Which slots are free is known to the writer alone, in private memory; a mount finds it out by
//   going over the chains, and makes count and bounds exact.
//
// READERS
//
//   A reader loads a link, reads the slot that it leads to, then its generation: if that is the
//   link's still, nothing of what was read is of a later use of the slot, since a later use begins
//   with another generation. Otherwise it starts at the head again. It waits for nobody. Words are
//   stored with release and loaded with acquire order, those of the record too, which costs
//   nothing on the processors here: so (a) a record is complete for whoever sees the link; (b) who
//   sees a word of a later use sees its generation; (c) who sees a later generation sees that the
//   link is gone. By (c), a link that leads to another generation in two attempts in a row is no
//   race, it is corruption.
//   A reader that stands on a record which has just been taken out goes on from there, along a
//   `next` that nobody changes any more, to where the chain led at that moment: what it finds was
//   there after its search began. Slots are reused at once, but then the generation gives it away.
//
// WHO WRITES, WHO READS, AND WHICH STALE VALUE IS HARMLESS
//
//   The writer of the collection writes all words; readers map the file read-only.
//     heads, next     stale: the chain as it was at a moment of the search, see above
//     generation      stale: impossible without a stale link, by (b)
//     records         readers' size(), and "empty" for a walk in key order. Too high by one at most
//     lowKey, highKey where a walk in key order begins and ends. Stale: it began or ended earlier
//     slotsReserved   refuses links that lead nowhere. Stale: a reader looks again first
//     headsUsed       stale: the buckets were empty when the search began
//     published       with it all that was stored before it. Stale: the reader gets less
//     scratchpad, announced, wiped   for the next mount; others read them for reports
//     damaged         for the next mount; a reader's damaged()
//   The source of truth are the links; every cache is made anew from them at a mount.
//
// CORRUPTION
//
//   Links, counts and bounds are words without a checksum, since two stores could be cut apart.
//   What holds against flipped bytes is that everything is checked where it is used: links against
//   the number of slots, generations, the rise of keys, the checksum of what is shown. A flipped
//   link may lead past records, which then read as absent; it can't show what was never written,
//   and cannot make a chain endless (3). Reads throw and change nothing. A change cuts the chain
//   where it ceases to add up, so that it never ties a new record to what it does not trust,
//   counts anew, and marks the collection; the next mount saves every whole record (Mount.h) and
//   reports the rest as lost.
//
// clang-format on

#include <algorithm>
#include <cstdint>
#include <memory>
#include <utility>

#include "Lumen/Ptr.h"
#include "Quilt/MapReads.h"
#include "Quilt/Scan.h"
#include "Quilt/Seam.h"

namespace Quilt {

// A collection of records in shared memory, by key. See the essay at the top of this file.
//
// Record: trivially copyable, with `using QuiltKey = ...` and `const QuiltKey& quiltKey() const`,
// which yields a member of the record. QuiltKey has unique object representations. A record type
// may have `static constexpr bool kQuiltOrderedByKey = true` (a 64-bit unsigned key; a walk goes up
// the keys), `static constexpr unsigned kQuiltHeadroom` (room for that many times the declared
// capacity) and `bool quiltMarked() const` (a mount counts the records that say yes).
//
// An object is of one thread. Any number of readers, in any process, each with an object of its
// own, may read while the one writer changes the collection.
template <class Record>
class QuiltMap final : public MapReads<Record> {
 public:
  using Key = typename Record::QuiltKey;

  // The writer's map over a file and what a scan of it has found. Mount.h makes both.
  QuiltMap(Lumen::Ptr<StoreFile> file, const ScanResult& found);
  // A reader's map over a file, which somebody else may write.
  explicit QuiltMap(Lumen::Ptr<StoreFile> file);

  // True if recordIs() of a record with this key would succeed now: there is room for a new key, a
  // slot to replace a present one, and the file system has given the space. Takes space ahead if
  // need be.
  [[nodiscard]] bool hasRoomFor(const Key& key);
  // Adds the record, or replaces the one of its key. Asserts that there is room; the text names the
  // collection. Never throws for corruption: it cuts the chain at the damage and goes on.
  void recordIs(const Record& record);
  // Removes the record of `key`; false if there is none. Asks for no room. Cuts as recordIs() does.
  bool recordDel(const Key& key);

 private:
  using Base = MapReads<Record>;
  using Base::chains_;
  using Base::changes_;
  using Base::file_;
  using Base::header_;
  using Base::highKey_;
  using Base::lowKey_;
  using Base::marked_;
  using Base::markedAt_;
  using Base::readOnly_;
  using Base::records_;
  using Base::slotBound_;
  using typename Base::RecordSlot;
  using typename Base::Traits;
  using typename Base::Words;

  // Where a change takes place: the link to be replaced and what it leads to.
  struct Place {
    Word64* at = nullptr;
    std::uint64_t link = 0;
    RecordSlot* slot = nullptr;
    bool equal = false;
  };

  [[nodiscard]] Place locate(std::uint32_t bucket, const Words& wanted);
  [[nodiscard]] bool tryLocate(std::uint32_t bucket, const Words& wanted, Place& place);
  [[gnu::cold, gnu::noinline]] void cutAt(Word64& at);
  void takeStock(const ScanResult& found);
  void countIs(std::uint64_t records);
  [[nodiscard]] bool slotsReady(std::uint32_t count);
  [[nodiscard]] bool headsReady(std::uint32_t bucket);
  [[gnu::cold, gnu::noinline, nodiscard]] bool slotsTaken(std::uint32_t count);
  [[gnu::cold, gnu::noinline, nodiscard]] bool headsTaken(std::uint32_t bucket);
  [[gnu::cold, gnu::noinline, nodiscard]] bool placeForNewKey();
  void boundsInclude(std::uint64_t key);
  void boundsExclude(std::uint64_t key);

  // The writer's own, rebuilt at every mount. slotBound_ slots are in use or free; those from there
  // to slotsReserved_ have never been taken since the mount.
  std::uint32_t slotsReserved_ = 0;
  std::uint32_t freeCount_ = 0;
  std::uint64_t clearedAt_ = 0;  // the change at which damaged records were last taken out
  std::unique_ptr<std::uint32_t[]>
      freeSlots_;  // a stack: the slot freed last is warm, and taken first
};

template <class Record>
QuiltMap<Record>::QuiltMap(Lumen::Ptr<StoreFile> file, const ScanResult& found)
    : Base(std::move(file)),
      freeSlots_(std::make_unique_for_overwrite<std::uint32_t[]>(file_->geometry().slots)) {
  this->assertWritable();
  takeStock(found);
}

template <class Record>
QuiltMap<Record>::QuiltMap(Lumen::Ptr<StoreFile> file) : Base(std::move(file)) {
  readOnly_ = true;
}

// Takes over what a scan has found: counts, bounds, and the slots that no link leads to.
template <class Record>
void QuiltMap<Record>::takeStock(const ScanResult& found) {
  ++changes_;
  slotBound_ = found.fresh;
  slotsReserved_ = std::max(slotsReserved_, slotBound_);
  marked_ = found.marked;
  markedAt_ = changes_;
  freeCount_ = 0;
  for (std::uint32_t index = slotBound_; index-- > 0;) {
    if (!found.reaches(index)) {
      freeSlots_[freeCount_++] = index;
    }
  }
  if constexpr (Traits::kOrderedByKey) {
    lowKey_ = found.records == 0 ? 0 : found.lowKey;
    highKey_ = found.highKey;
    Seam::store(header_->highKey, highKey_, std::memory_order_release);
    Seam::store(header_->lowKey, lowKey_, std::memory_order_release);
  }
  countIs(found.records);
}

template <class Record>
inline void QuiltMap<Record>::countIs(std::uint64_t records) {
  records_ = records;
  Seam::store(header_->records, records, std::memory_order_release);
}

// --- space

// True if `count` slots can be taken without a question to the file system, now or after one.
template <class Record>
inline bool QuiltMap<Record>::slotsReady(std::uint32_t count) {
  return freeCount_ + (slotsReserved_ - slotBound_) >= count || slotsTaken(count);
}

template <class Record>
bool QuiltMap<Record>::slotsTaken(std::uint32_t count) {
  const Geometry& geometry = file_->geometry();
  while (freeCount_ + (slotsReserved_ - slotBound_) < count) {
    const std::uint64_t from =
        geometry.slotsOffset + std::uint64_t{slotsReserved_} * sizeof(RecordSlot);
    // To the end of the chunk in which at least one more slot ends.
    const std::uint64_t to =
        std::min(geometry.fileBytes,
                 (from + sizeof(RecordSlot) + kSpaceChunk - 1) / kSpaceChunk * kSpaceChunk);
    if (slotsReserved_ == geometry.slots || !file_->reserve(from, to - from)) {
      return false;
    }
    slotsReserved_ = static_cast<std::uint32_t>(
        std::min<std::uint64_t>(geometry.slots, (to - geometry.slotsOffset) / sizeof(RecordSlot)));
    Seam::store(header_->slotsReserved, std::uint64_t{slotsReserved_}, std::memory_order_release);
  }
  return true;
}

// True if the chunk of heads that `bucket` is in may be touched, now or after it has got its space.
template <class Record>
inline bool QuiltMap<Record>::headsReady(std::uint32_t bucket) {
  return chains_.headsUsed(bucket) || headsTaken(bucket);
}

template <class Record>
bool QuiltMap<Record>::headsTaken(std::uint32_t bucket) {
  const std::uint64_t first =
      std::uint64_t{chains_.headChunkOf(bucket)} * chains_.headChunkBuckets();
  const std::uint64_t buckets =
      std::min<std::uint64_t>(chains_.headChunkBuckets(), chains_.buckets() - first);
  if (!file_->reserve(Geometry::kHeadsOffset + first * sizeof(Word64), buckets * sizeof(Word64))) {
    return false;
  }
  Word64& word = chains_.headsUsedWord(bucket);
  Seam::store(word, word.load(std::memory_order_relaxed) | chains_.headsUsedBit(bucket),
              std::memory_order_release);
  return true;
}

// True if the collection is not full. One that is known to be damaged may be full of records that
// nobody can find, whose keys are no longer theirs: they are taken out before it says no.
template <class Record>
bool QuiltMap<Record>::placeForNewKey() {
  if (records_ >= this->limit() && this->damaged() && clearedAt_ != changes_) {
    takeStock(scan(chains_, slotBound_, ScanMode::cut, [](const Record&) {}));
    clearedAt_ = changes_;
  }
  return records_ < this->limit();
}

template <class Record>
bool QuiltMap<Record>::hasRoomFor(const Key& key) {
  this->assertWritable();
  const Words wanted = Words::of(key);
  const std::uint32_t bucket = chains_.bucketOf(wanted);
  // Where a new key would have room, a present one has, too; only a full collection needs a search.
  if (placeForNewKey() && slotsReady(2) && headsReady(bucket)) [[likely]] {
    return true;
  }
  return chains_.headsUsed(bucket) && locate(bucket, wanted).equal && slotsReady(1);
}

// --- changing

// Takes what lies behind `at` out of the collection, and counts anew what is left.
template <class Record>
void QuiltMap<Record>::cutAt(Word64& at) {
  Seam::store(at, std::uint64_t{0}, std::memory_order_release);
  this->reportCut();
  takeStock(scan(chains_, slotBound_, ScanMode::cut, [](const Record&) {}));
}

// Finds where the record of `wanted` lies or belongs. False if the chain had to be cut on the way.
template <class Record>
inline bool QuiltMap<Record>::tryLocate(std::uint32_t bucket, const Words& wanted, Place& place) {
  Word64* at = &chains_.head(bucket);
  Words previous;
  bool any = false;
  for (;;) {
    const std::uint64_t link = at->load(std::memory_order_relaxed);
    if (link == 0) {
      place = Place{at, 0, nullptr, false};
      return true;
    }
    const std::uint32_t index = Link::slot(link);
    if (index >= slotBound_) [[unlikely]] {
      break;
    }
    RecordSlot& slot = chains_.slot(index);
    if (slot.generation.load(std::memory_order_relaxed) != Link::generation(link)) [[unlikely]] {
      break;
    }
    const Words key = Chains<Record>::keyOf(slot);
    if (key == wanted) {
      place = Place{at, link, &slot, true};
      return true;
    }
    // What a link of this bucket leads to must belong here before anything is tied to it.
    if (chains_.bucketOf(key) != bucket || (any && !(previous < key))) [[unlikely]] {
      break;
    }
    if (wanted < key) {
      place = Place{at, link, &slot, false};
      return true;
    }
    previous = key;
    any = true;
    at = &slot.next;
  }
  cutAt(*at);
  return false;
}

template <class Record>
inline auto QuiltMap<Record>::locate(std::uint32_t bucket, const Words& wanted) -> Place {
  Place place;
  while (!tryLocate(bucket, wanted, place)) {
  }
  return place;
}

// Keys outside the bounds that are about to come: the bounds go first (invariant 6).
template <class Record>
inline void QuiltMap<Record>::boundsInclude(std::uint64_t key) {
  if (key > highKey_ || records_ == 0) {
    highKey_ = key;
    Seam::store(header_->highKey, key, std::memory_order_release);
  }
  if (key < lowKey_ || records_ == 0) [[unlikely]] {
    lowKey_ = key;
    Seam::store(header_->lowKey, key, std::memory_order_release);
  }
}

// A key has gone: the lower bound follows, if it was that one or a few that had gone before.
template <class Record>
inline void QuiltMap<Record>::boundsExclude(std::uint64_t key) {
  constexpr int kMostSteps = 64;
  if (key == lowKey_) [[likely]] {
    lowKey_ = key + 1;
  } else {
    for (int step = 0; step < kMostSteps && lowKey_ < key; ++step, ++lowKey_) {
      Words low;
      low.words[0] = lowKey_;
      const std::uint32_t bucket = chains_.bucketOf(low);
      if (chains_.headsUsed(bucket) && chains_.head(bucket).load(std::memory_order_relaxed) != 0) {
        break;
      }
    }
  }
  Seam::store(header_->lowKey, lowKey_, std::memory_order_release);
}

template <class Record>
inline void QuiltMap<Record>::recordIs(const Record& record) {
  this->assertWritable();
  const Words key = Words::of(record.quiltKey());
  const std::uint32_t bucket = chains_.bucketOf(key);
  if (!headsReady(bucket)) [[unlikely]] {
    this->noRoom("the file system gives no space");
  }
  Place place = locate(bucket, key);
  if (!place.equal && records_ >= this->limit()) [[unlikely]] {
    if (!placeForNewKey()) {
      this->noRoom("the collection is full");
    }
    place = locate(bucket, key);
  }
  // A new record leaves a slot for the overwrite that may come next.
  if (!slotsReady(place.equal ? 1 : 2)) [[unlikely]] {
    this->noRoom("the file system gives no space");
  }
  const std::uint32_t index = freeCount_ != 0 ? freeSlots_[--freeCount_] : slotBound_++;
  RecordSlot& slot = chains_.slot(index);

  // The generation first: whoever still copies from this slot sees it change. Its predecessor in
  // the slot may have gone only with the store before; release keeps the two in order.
  std::uint32_t generation = slot.generation.load(std::memory_order_relaxed) + 1;
  generation += generation == 0 ? 1 : 0;
  Seam::store(slot.generation, generation, std::memory_order_release);
  const std::uint32_t checksum = Chains<Record>::checksumOver(
      generation, [&](std::size_t i) { return Chains<Record>::wordOf(record, i); },
      [&](std::size_t i, std::uint64_t word) {
        Seam::store(slot.words[i], word, std::memory_order_release);
      });
  Seam::store(slot.checksum, checksum, std::memory_order_release);
  Seam::store(slot.next,
              place.equal ? place.slot->next.load(std::memory_order_relaxed) : place.link,
              std::memory_order_release);
  if (!place.equal) {
    if constexpr (Traits::kOrderedByKey) {
      boundsInclude(key.words[0]);
    }
    countIs(records_ + 1);
  }
  // From here on it is there.
  Seam::store(*place.at, Link::to(index, generation), std::memory_order_release);
  if (place.equal) {
    freeSlots_[freeCount_++] = Link::slot(place.link);
  }
  ++changes_;
}

template <class Record>
inline bool QuiltMap<Record>::recordDel(const Key& key) {
  this->assertWritable();
  const Words wanted = Words::of(key);
  const std::uint32_t bucket = chains_.bucketOf(wanted);
  if (!chains_.headsUsed(bucket)) [[unlikely]] {
    return false;
  }
  const Place place = locate(bucket, wanted);
  if (!place.equal) {
    return false;
  }
  Seam::store(*place.at, place.slot->next.load(std::memory_order_relaxed),
              std::memory_order_release);
  freeSlots_[freeCount_++] = Link::slot(place.link);
  countIs(records_ - 1);
  if constexpr (Traits::kOrderedByKey) {
    boundsExclude(wanted.words[0]);
  }
  ++changes_;
  return true;
}

}  // namespace Quilt
