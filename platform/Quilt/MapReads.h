#pragma once

#include <algorithm>
#include <cstdint>
#include <limits>
#include <optional>
#include <utility>

#include "Quilt/AllocBase.h"
#include "Quilt/Chains.h"
#include "Quilt/IterHint.h"
#include "Quilt/QuiltMapBase.h"

namespace Quilt {

// The reading half of a collection: finding and walking, in the writer and in readers. QuiltMap is
// the whole; why this is safe beside a writer stands there.
template <class Record>
class MapReads : public QuiltMapBase {
 public:
  using Key = typename Record::QuiltKey;

  // The record of `key`, or the default record if there is none. In the writer it is a reference
  // into the mapping, good until the next change of this collection; in a reader, a reference into
  // this object, good until its next read. Throws CorruptionDetectedException. No allocation.
  [[nodiscard]] const Record& find(const Key& key, bool& found) const;

  // The same for a walk that goes on from `key`, of a collection that is not in key order: a copy
  // of the record, and with it the hint. False if there is none.
  [[nodiscard]] bool at(const Key& key, Record& out, IterHint& hint) const;

  // The number of records whose quiltMarked() says yes, as a pass over all records has counted it;
  // none once something has changed since, and none in a reader.
  [[nodiscard]] std::optional<std::uint64_t> marked() const noexcept {
    return markedAt_ == changes_ ? std::optional(marked_) : std::nullopt;
  }

  // Has the processor fetch what a search for the key comes to first; `near`, when that is there,
  // what it comes to next. Changes nothing.
  void fetchAhead(const Key& key, bool near) const noexcept;

  // A walk in the collection's own order. first() fills the first record; next() the one that
  // follows `after`, which need not be there. False at the end. Throws CorruptionDetectedException;
  // `out` then holds anything. Records that come and go during a walk are shown or not, all others
  // once.
  [[nodiscard]] bool first(Record& out, IterHint& hint) const;
  [[nodiscard]] bool next(const Key& after, Record& out, IterHint& hint) const;

 protected:
  using Traits = RecordTraits<Record>;
  using Words = KeyWords<Key>;
  using RecordSlot = typename Chains<Record>::RecordSlot;

  explicit MapReads(Lumen::Ptr<StoreFile> file) : QuiltMapBase(std::move(file)), chains_(*file_) {}
  ~MapReads() = default;

  Chains<Record> chains_;
  // Links lead to slots below this: the writer's slots in use, the reader's last look at the slots
  // that the file system has given.
  mutable std::uint32_t slotBound_ = 0;
  // The writer's, rebuilt at every mount.
  std::uint64_t changes_ = 1;  // tells a walk that its position may be gone
  std::uint64_t lowKey_ = 0;   // no key is below, of a collection in key order
  std::uint64_t highKey_ = 0;  // no key is above
  std::uint64_t marked_ = 0;   // as of the change markedAt_
  std::uint64_t markedAt_ = 0;

 private:
  static constexpr std::uint32_t kFetchAhead = 8;

  // The place in a chain that a search came to.
  struct Landing {
    const RecordSlot* slot = nullptr;  // null: the end of the chain
    std::uint64_t link = 0;  // of `slot`; of the slot that had changed if the search failed
    bool equal = false;
  };

  [[nodiscard]] const RecordSlot& slotOf(std::uint64_t link) const;
  [[nodiscard]] bool seek(std::uint32_t bucket, const Words& wanted, bool above,
                          Landing& out) const;
  [[nodiscard]] bool seekEqual(std::uint32_t bucket, const Words& wanted, Landing& out) const;
  [[nodiscard]] bool copyOut(const RecordSlot& slot, std::uint64_t link, Record& out) const;
  [[nodiscard]] bool stepFrom(std::uint32_t bucket, Record& out, IterHint::Position& at) const;
  [[nodiscard]] bool landOn(std::uint64_t link, std::uint32_t bucket, Record& out,
                            IterHint::Position& at) const;
  [[nodiscard]] bool successor(std::uint64_t from, Record& out) const;
  void fetchAhead(std::uint32_t bucket, IterHint::Position& at) const;

  mutable Record buffer_{};  // what a reader's find() refers to
};

template <class Record>
inline auto MapReads<Record>::slotOf(std::uint64_t link) const -> const RecordSlot& {
  const std::uint32_t index = Link::slot(link);
  if (index >= slotBound_) [[unlikely]] {
    if (readOnly_) {
      slotBound_ = static_cast<std::uint32_t>(std::min<std::uint64_t>(
          header_->slotsReserved.load(std::memory_order_acquire), file_->geometry().slots));
    }
    if (index >= slotBound_) {
      corrupt("a link leads out of the slots", link);
    }
  }
  return chains_.slot(index);
}

// Goes along a chain to the first record whose key is not below `wanted`; with `above`, to the
// first whose key is above. False if a link and its slot do not agree on the generation.
template <class Record>
inline bool MapReads<Record>::seek(std::uint32_t bucket, const Words& wanted, bool above,
                                   Landing& out) const {
  std::uint64_t link = chains_.head(bucket).load(std::memory_order_acquire);
  Words previous;
  bool any = false;
  while (link != 0) {
    const RecordSlot& slot = slotOf(link);
    const Words key = Chains<Record>::keyOf(slot);
    const std::uint64_t nextLink = slot.next.load(std::memory_order_acquire);
    if (slot.generation.load(std::memory_order_acquire) != Link::generation(link)) [[unlikely]] {
      out.link = link;
      return false;
    }
    const bool equal = key == wanted;
    if ((equal && !above) || wanted < key) {
      out = Landing{&slot, link, equal};
      return true;
    }
    // The keys of a chain rise (invariant 3), so that no chain goes round, whatever its bytes are.
    if (any && !(previous < key)) [[unlikely]] {
      corrupt("the keys of a bucket do not rise", link);
    }
    previous = key;
    any = true;
    link = nextLink;
  }
  out = Landing{};
  return true;
}

// The same for the record of `wanted` alone. It goes to the end of a chain that has no such record:
// where a chain ends is foreseen by the processor more often than which of two keys is above, and
// costs less.
template <class Record>
inline bool MapReads<Record>::seekEqual(std::uint32_t bucket, const Words& wanted,
                                        Landing& out) const {
  std::uint64_t link = chains_.head(bucket).load(std::memory_order_acquire);
  Words previous;
  bool any = false;
  while (link != 0) {
    const RecordSlot& slot = slotOf(link);
    const Words key = Chains<Record>::keyOf(slot);
    const std::uint64_t nextLink = slot.next.load(std::memory_order_acquire);
    if (slot.generation.load(std::memory_order_acquire) != Link::generation(link)) [[unlikely]] {
      out.link = link;
      return false;
    }
    if (key == wanted) {
      out = Landing{&slot, link, true};
      return true;
    }
    if (any && !(previous < key)) [[unlikely]] {
      corrupt("the keys of a bucket do not rise", link);
    }
    previous = key;
    any = true;
    link = nextLink;
  }
  out = Landing{};
  return true;
}

// Copies a record out and checks it. False if its slot has been taken for another meanwhile.
template <class Record>
inline bool MapReads<Record>::copyOut(const RecordSlot& slot, std::uint64_t link,
                                      Record& out) const {
  const std::uint32_t wanted = Chains<Record>::checksumIn(
      slot, Link::generation(link),
      [&](std::size_t i, std::uint64_t word) { Chains<Record>::wordIs(out, i, word); });
  const std::uint32_t checksum = slot.checksum.load(std::memory_order_acquire);
  if (slot.generation.load(std::memory_order_acquire) != Link::generation(link)) [[unlikely]] {
    return false;
  }
  if (checksum != wanted) [[unlikely]] {
    corrupt("a record does not fit its checksum", link);
  }
  return true;
}

template <class Record>
inline const Record& MapReads<Record>::find(const Key& key, bool& found) const {
  const Words wanted = Words::of(key);
  const std::uint32_t bucket = chains_.bucketOf(wanted);
  found = false;
  if (!chains_.headsUsed(bucket)) [[unlikely]] {
    return AllocBase<Record>::defaultRecord();
  }
  for (Restarts restarts;;) {
    Landing landing;
    if (seekEqual(bucket, wanted, landing)) [[likely]] {
      if (landing.slot == nullptr) {
        return AllocBase<Record>::defaultRecord();
      }
      if (!readOnly_) {
        if (landing.slot->checksum.load(std::memory_order_relaxed) !=
            Chains<Record>::checksumIn(*landing.slot, Link::generation(landing.link),
                                       [](std::size_t, std::uint64_t) {})) [[unlikely]] {
          corrupt("a record does not fit its checksum", landing.link);
        }
        found = true;
        return Chains<Record>::recordIn(*landing.slot);
      }
      if (copyOut(*landing.slot, landing.link, buffer_)) [[likely]] {
        found = true;
        return buffer_;
      }
    }
    restarts.again(*this, landing.link);
  }
}

template <class Record>
inline void MapReads<Record>::fetchAhead(const Key& key, bool near) const noexcept {
  const std::uint32_t bucket = chains_.bucketOf(Words::of(key));
  if (!chains_.headsUsed(bucket)) {
    return;
  }
  const Word64& head = chains_.head(bucket);
  if (!near) {
    __builtin_prefetch(&head);
  } else if (const std::uint64_t link = head.load(std::memory_order_relaxed);
             link != 0 && Link::slot(link) < slotBound_) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(&chains_.slot(Link::slot(link)));
    __builtin_prefetch(bytes);
    __builtin_prefetch(bytes + sizeof(RecordSlot) - 1);
  }
}

template <class Record>
inline bool MapReads<Record>::at(const Key& key, Record& out, IterHint& hint) const {
  static_assert(!Traits::kOrderedByKey);
  const Words wanted = Words::of(key);
  const std::uint32_t bucket = chains_.bucketOf(wanted);
  if (!chains_.headsUsed(bucket)) [[unlikely]] {
    return false;
  }
  for (Restarts restarts;;) {
    Landing landing;
    if (seekEqual(bucket, wanted, landing)) [[likely]] {
      if (landing.slot == nullptr) {
        return false;
      }
      const std::uint64_t nextLink = landing.slot->next.load(std::memory_order_acquire);
      if (copyOut(*landing.slot, landing.link, out)) [[likely]] {
        // The step before has fetched ahead from here.
        hint.position() = {serial_, changes_, landing.link, nextLink, bucket, bucket + kFetchAhead};
        return true;
      }
    }
    restarts.again(*this, landing.link);
  }
}

// Has the processor fetch the first slots of the buckets to come.
template <class Record>
inline void MapReads<Record>::fetchAhead(std::uint32_t bucket, IterHint::Position& at) const {
  const std::uint32_t to = static_cast<std::uint32_t>(
      std::min<std::uint64_t>(std::uint64_t{bucket} + kFetchAhead, chains_.buckets()));
  for (at.fetched = std::max(at.fetched, bucket); at.fetched < to; ++at.fetched) {
    if (!chains_.headsUsed(at.fetched)) {
      return;
    }
    const std::uint32_t index =
        Link::slot(chains_.head(at.fetched).load(std::memory_order_relaxed));
    if (index < slotBound_) {
      const auto* bytes = reinterpret_cast<const unsigned char*>(&chains_.slot(index));
      __builtin_prefetch(bytes);
      __builtin_prefetch(bytes + sizeof(RecordSlot) - 1);
    }
  }
}

// Shows the record behind `link`, which must be one of `bucket`. False if it changed.
template <class Record>
inline bool MapReads<Record>::landOn(std::uint64_t link, std::uint32_t bucket, Record& out,
                                     IterHint::Position& at) const {
  const RecordSlot& slot = slotOf(link);
  const std::uint64_t nextLink = slot.next.load(std::memory_order_acquire);
  if (!copyOut(slot, link, out)) [[unlikely]] {
    return false;
  }
  if (chains_.bucketOf(Words::of(out.quiltKey())) != bucket) [[unlikely]] {
    corrupt("a record lies in a bucket that is not its own", link);
  }
  at.map = serial_;
  at.changes = changes_;
  at.link = link;
  at.nextLink = nextLink;
  at.bucket = bucket;
  return true;
}

// Shows the first record of the first bucket from `bucket` on that has one.
template <class Record>
inline bool MapReads<Record>::stepFrom(std::uint32_t bucket, Record& out,
                                       IterHint::Position& at) const {
  const std::uint32_t buckets = chains_.buckets();
  while (bucket < buckets) {
    if (!chains_.headsUsed(bucket)) {
      const std::uint64_t chunk = chains_.headChunkBuckets();
      bucket = static_cast<std::uint32_t>(
          std::min<std::uint64_t>(buckets, (bucket / chunk + 1) * chunk));
      continue;
    }
    fetchAhead(bucket, at);
    for (Restarts restarts;;) {
      const std::uint64_t link = chains_.head(bucket).load(std::memory_order_acquire);
      if (link == 0) {
        break;
      }
      if (landOn(link, bucket, out, at)) [[likely]] {
        return true;
      }
      restarts.again(*this, link);
    }
    ++bucket;
  }
  return false;
}

// Shows the record of the lowest key from `from` on, of a collection in key order. The key that is
// the one expected in its bucket comes first; another one of the bucket counts when a whole round
// has shown none of those.
template <class Record>
bool MapReads<Record>::successor(std::uint64_t from, Record& out) const {
  for (;;) {
    if (size() == 0) {
      return false;
    }
    const std::uint64_t low = readOnly_ ? header_->lowKey.load(std::memory_order_acquire) : lowKey_;
    const std::uint64_t high =
        readOnly_ ? header_->highKey.load(std::memory_order_acquire) : highKey_;
    from = std::max(from, low);
    if (from > high) {
      return false;
    }
    const std::uint64_t mask = chains_.buckets() - 1;
    const std::uint64_t span = std::min(high - from, mask);
    bool any = false;
    std::uint64_t candidate = 0;
    for (std::uint64_t distance = 0; distance <= span;) {
      const auto bucket = static_cast<std::uint32_t>((from + distance) & mask);
      if (!chains_.headsUsed(bucket)) {
        const std::uint64_t chunk = chains_.headChunkBuckets();
        distance += std::min<std::uint64_t>(chunk - bucket % chunk, mask + 1 - bucket);
        continue;
      }
      for (Restarts restarts;;) {
        Words wanted;
        wanted.words[0] = from + distance;
        Landing landing;
        if (seek(bucket, wanted, false, landing)) [[likely]] {
          if (landing.slot == nullptr) {
            break;
          }
          if (copyOut(*landing.slot, landing.link, out)) [[likely]] {
            if (landing.equal) {
              return true;
            }
            const std::uint64_t key = Words::of(out.quiltKey()).words[0];
            if (key <= high && (!any || key < candidate)) {
              any = true;
              candidate = key;
            }
            break;
          }
        }
        restarts.again(*this, landing.link);
      }
      ++distance;
    }
    if (!any) {
      return false;
    }
    // Only one record of many was kept in mind; it may be gone by now, in another process.
    from = candidate;
  }
}

template <class Record>
inline bool MapReads<Record>::first(Record& out, IterHint& hint) const {
  if constexpr (Traits::kOrderedByKey) {
    return successor(0, out);
  } else {
    hint = IterHint();
    // A reader does not go by the count: one flipped word must not empty the collection for it.
    return (readOnly_ || size() != 0) && stepFrom(0, out, hint.position());
  }
}

template <class Record>
inline bool MapReads<Record>::next(const Key& after, Record& out, IterHint& hint) const {
  const Words wanted = Words::of(after);
  if constexpr (Traits::kOrderedByKey) {
    return wanted.words[0] != std::numeric_limits<std::uint64_t>::max() &&
           successor(wanted.words[0] + 1, out);
  } else {
    IterHint::Position& at = hint.position();
    // Nothing has changed since this writer's walk stood here, and it stood at `after`.
    if (!readOnly_ && at.map == serial_ && at.changes == changes_ &&
        Chains<Record>::keyOf(slotOf(at.link)) == wanted) {
      if (at.nextLink == 0) {
        return stepFrom(at.bucket + 1, out, at);
      }
      if (landOn(at.nextLink, at.bucket, out, at)) {
        return true;
      }
      corrupt("a link leads to a slot of another generation", at.nextLink);
    }
    // A reader's walk need not compute the bucket again where the slot still has the key; it
    // searches the bucket all the same.
    const auto stillThere = [&] {
      const RecordSlot& slot = chains_.slot(Link::slot(at.link));
      return slot.generation.load(std::memory_order_acquire) == Link::generation(at.link) &&
             Chains<Record>::keyOf(slot) == wanted;
    };
    const bool known =
        at.map == serial_ && at.link != 0 && Link::slot(at.link) < slotBound_ && stillThere();
    const std::uint32_t bucket = known ? at.bucket : chains_.bucketOf(wanted);
    if (chains_.headsUsed(bucket)) {
      for (Restarts restarts;;) {
        Landing landing;
        if (seek(bucket, wanted, true, landing)) [[likely]] {
          if (landing.slot == nullptr) {
            break;
          }
          if (landOn(landing.link, bucket, out, at)) [[likely]] {
            return true;
          }
        }
        restarts.again(*this, landing.link);
      }
    }
    return stepFrom(bucket + 1, out, at);
  }
}

}  // namespace Quilt
