#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>
#include <unordered_map>
#include <utility>

#include "Quilt/Chains.h"
#include "Quilt/StoreFile.h"

namespace Quilt {

// A place of a collection where something does not add up.
struct Damage {
  std::uint32_t bucket;
  std::optional<std::uint32_t> slot;  // none: the head of the bucket
  const char* cause;
};

struct SurveyResult {
  std::uint64_t records = 0;
  std::uint64_t damages = 0;
};

// Goes along every chain of a file that somebody else may be writing, and shows as much as there is
// to be shown: visit(record) for each whole record that its chain still leads to, tell(damage) for
// each place that does not add up. Unlike a walk it goes on behind damage, and it relies neither on
// the count of the records nor on the bounds of their keys. Records that come and go meanwhile are
// shown or not, all others once. Changes nothing. What either function throws passes on. Memory is
// taken for damaged records only.
template <class Record, class Visit, class Tell>
class Survey {
 public:
  Survey(const StoreFile& file, Visit& visit, Tell& tell)
      : file_(file), chains_(file), visit_(visit), tell_(tell) {}

  SurveyResult run() {
    const std::uint64_t buckets = chains_.buckets();
    for (std::uint64_t from = 0; from < buckets; from += chains_.headChunkBuckets()) {
      const auto first = static_cast<std::uint32_t>(from);
      const auto end = static_cast<std::uint32_t>(
          std::min<std::uint64_t>(buckets, from + chains_.headChunkBuckets()));
      if (chains_.headsUsed(first)) {
        for (std::uint32_t bucket = first; bucket < end; ++bucket) {
          goAlong(bucket);
        }
      } else {
        lookBehindMark(first, end);
      }
    }
    return result_;
  }

 private:
  using Words = typename Chains<Record>::Words;
  enum class Attempt { ended, changed };

  // A writer that changes a bucket this often while it is looked at is none.
  static constexpr std::uint32_t kMostAttempts = 1'000'000;

  // Heads that are not marked as in use hold nothing, and nothing else may be read of them than
  // what the file system has pages for.
  void lookBehindMark(std::uint32_t bucket, std::uint32_t end) {
    const auto place = [](std::uint64_t at) {
      return Geometry::kHeadsOffset + at * sizeof(Word64);
    };
    while (bucket < end) {
      const std::uint64_t data = file_.dataFrom(place(bucket));
      if (data >= place(end)) {
        return;
      }
      const auto there =
          static_cast<std::uint32_t>((data - Geometry::kHeadsOffset) / sizeof(Word64));
      bucket = std::max(bucket, there);
      const std::uint32_t pageEnd =
          std::min<std::uint32_t>(end, (bucket / kHeadsOfPage + 1) * kHeadsOfPage);
      for (; bucket < pageEnd; ++bucket) {
        // The mark is set before the link: who sees the link sees the mark.
        if (chains_.head(bucket).load(std::memory_order_acquire) == 0) {
          continue;
        }
        if (!chains_.headsUsed(bucket)) {
          say(bucket, std::nullopt, "the head leads to a record and is not marked as in use");
        }
        goAlong(bucket);
      }
    }
  }

  void goAlong(std::uint32_t bucket) {
    shownAny_ = false;
    std::uint64_t suspect = 0;
    for (std::uint32_t attempts = 0;; ++attempts) {
      ++attempt_;
      if (tryAlong(bucket) == Attempt::ended) {
        return;
      }
      // A link whose slot has another generation twice in a row is no race. See QuiltMap.h.
      if (changedLink_ == suspect || attempts == kMostAttempts) {
        say(bucket, Link::slot(changedLink_), "a link leads to a slot of another generation");
        return;
      }
      suspect = changedLink_;
    }
  }

  Attempt tryAlong(std::uint32_t bucket) {
    std::uint64_t link = chains_.head(bucket).load(std::memory_order_acquire);
    Words previous;
    bool any = false;
    while (link != 0) {
      const std::uint32_t index = Link::slot(link);
      const std::uint32_t generation = Link::generation(link);
      if (index >= slotBound() || generation == 0) {
        say(bucket, index, "a link leads out of the slots");
        return Attempt::ended;
      }
      const auto& slot = chains_.slot(index);
      const std::uint64_t nextLink = slot.next.load(std::memory_order_acquire);
      Record record;
      const std::uint32_t wanted = Chains<Record>::checksumIn(
          slot, generation,
          [&](std::size_t i, std::uint64_t word) { Chains<Record>::wordIs(record, i, word); });
      const std::uint32_t checksum = slot.checksum.load(std::memory_order_acquire);
      if (slot.generation.load(std::memory_order_acquire) != generation) {
        changedLink_ = link;
        return Attempt::changed;
      }
      if (checksum != wanted) {
        if (!passDamaged(bucket, index)) {
          return Attempt::ended;
        }
        link = nextLink;
        continue;
      }
      const Words key = Words::of(record.quiltKey());
      if (chains_.bucketOf(key) != bucket) {
        say(bucket, index, "a link leads to a record of another bucket");
        return Attempt::ended;
      }
      if (any && !(previous < key)) {
        say(bucket, index, "the keys of the bucket do not rise");
        return Attempt::ended;
      }
      previous = key;
      any = true;
      // Since keys rise, an attempt that starts over knows what has been shown.
      if (!shownAny_ || shown_ < key) {
        shownAny_ = true;
        shown_ = key;
        ++result_.records;
        visit_(std::as_const(record));
      }
      link = nextLink;
    }
    return Attempt::ended;
  }

  // Tells of a damaged record, once. False if no way leads on from it: the chain goes round, or has
  // run into another one. So no file, whatever its bytes are, makes the survey endless.
  bool passDamaged(std::uint32_t bucket, std::uint32_t index) {
    const auto [at, fresh] = damaged_.try_emplace(index, Seen{bucket, attempt_});
    if (fresh) {
      say(bucket, index, "a record does not fit its checksum");
      return true;
    }
    return at->second.bucket == bucket && std::exchange(at->second.attempt, attempt_) != attempt_;
  }

  void say(std::uint32_t bucket, std::optional<std::uint32_t> slot, const char* cause) {
    ++result_.damages;
    tell_(Damage{bucket, slot, cause});
  }
  [[nodiscard]] std::uint64_t slotBound() const noexcept {
    return std::min<std::uint64_t>(file_.header().slotsReserved.load(std::memory_order_acquire),
                                   file_.geometry().slots);
  }

  static constexpr std::uint32_t kHeadsOfPage = kPageBytes / sizeof(Word64);
  struct Seen {
    std::uint32_t bucket;
    std::uint64_t attempt;
  };

  const StoreFile& file_;
  Chains<Record> chains_;
  Visit& visit_;
  Tell& tell_;
  SurveyResult result_;
  std::unordered_map<std::uint32_t, Seen> damaged_;
  std::uint64_t attempt_ = 0;
  std::uint64_t changedLink_ = 0;
  Words shown_;
  bool shownAny_ = false;
};

// See Survey.
template <class Record, class Visit, class Tell>
SurveyResult survey(const StoreFile& file, Visit&& visit, Tell&& tell) {
  return Survey<Record, std::remove_reference_t<Visit>, std::remove_reference_t<Tell>>(file, visit,
                                                                                       tell)
      .run();
}

}  // namespace Quilt
