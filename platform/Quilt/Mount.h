#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>

#include "Quilt/Chains.h"
#include "Quilt/FileError.h"
#include "Quilt/QuiltMap.h"
#include "Quilt/Register.h"
#include "Quilt/Scan.h"
#include "Quilt/Seam.h"
#include "Quilt/StoreFile.h"

namespace Quilt {

// A collection open for writing, and what a pass over it has found.
struct Mounted {
  Lumen::Ptr<StoreFile> file;
  ScanResult found;
};

namespace Impl {

// Goes by what the file system knows of the file: says in the header which chunks of heads hold
// anything, whatever it said before, and gives the number of slots that may hold anything.
template <class Record>
std::uint32_t confirmUse(StoreFile& file) {
  const Geometry& geometry = file.geometry();
  const Chains<Record> chains(file);
  const std::uint64_t chunkBytes = chains.headChunkBuckets() * sizeof(Word64);
  const std::uint64_t headsEnd =
      Geometry::kHeadsOffset + std::uint64_t{geometry.buckets} * sizeof(Word64);
  std::array<std::uint64_t, kMostHeadChunks / 64> used{};
  for (std::uint64_t at = file.dataFrom(Geometry::kHeadsOffset); at < headsEnd;) {
    const std::uint64_t chunk = (at - Geometry::kHeadsOffset) / chunkBytes;
    used[chunk / 64] |= std::uint64_t{1} << (chunk % 64);
    at = file.dataFrom(Geometry::kHeadsOffset + (chunk + 1) * chunkBytes);
  }
  for (std::size_t i = 0; i < used.size(); ++i) {
    Word64& word = file.header().headsUsed[i];
    if (word.load(std::memory_order_relaxed) != used[i]) {
      Seam::store(word, used[i], std::memory_order_release);
    }
  }
  return static_cast<std::uint32_t>(std::min<std::uint64_t>(
      geometry.slots,
      (file.dataEnd(geometry.slotsOffset) - geometry.slotsOffset) / geometry.slotBytes));
}

// Makes sure of the space of all that is in use: a file that was copied by hand may have lost it
// while it kept its bytes. It fetches the page tables, too. Throws StoreError.
template <class Record>
void confirmSpace(StoreFile& file, const FilePlace& place, std::uint32_t slots) {
  const Geometry& geometry = file.geometry();
  const Chains<Record> chains(file);
  const auto reserve = [&](std::uint64_t offset, std::uint64_t bytes) {
    if (!file.reserve(offset, bytes)) {
      throw fileError(place.path, "take space for", place.fileBase + kFileSuffix, file.lastError());
    }
  };
  const std::uint64_t step = chains.headChunkBuckets();
  for (std::uint64_t from = 0; from < geometry.buckets;) {
    // Neighbouring chunks in one go.
    std::uint64_t to = from;
    while (to < geometry.buckets && chains.headsUsed(static_cast<std::uint32_t>(to))) {
      to += step;
    }
    if (to == from) {
      from += step;
      continue;
    }
    reserve(Geometry::kHeadsOffset + from * sizeof(Word64),
            (std::min<std::uint64_t>(to, geometry.buckets) - from) * sizeof(Word64));
    from = to;
  }
  if (slots != 0) {
    reserve(geometry.slotsOffset, std::uint64_t{slots} * geometry.slotBytes);
  }
}

template <class Record>
ScanResult passOver(StoreFile& file, const FilePlace& place) {
  const std::uint32_t bound = confirmUse<Record>(file);
  confirmSpace<Record>(file, place, bound);
  return scan(Chains<Record>(file), bound, ScanMode::look, [](const Record&) {});
}

// A new file with every whole record of `old`, if there is one, and its words. `lost` says whether
// anything of `old` has no place in it.
template <class Record>
Mounted makeAnew(const FilePlace& place, const Shape& shape, StoreFile* old, bool wiped,
                 bool& lost) {
  Mounted made{StoreFile::make(place, shape, wiped), {}};
  if (old == nullptr) {
    return made;
  }
  QuiltMap<Record> map(made.file, made.found);
  const std::uint32_t bound = confirmUse<Record>(*old);
  const ScanResult seen =
      scan(Chains<Record>(*old), bound, ScanMode::look, [&](const Record& record) {
        if (map.hasRoomFor(record.quiltKey())) {
          map.recordIs(record);
        } else {
          lost = true;
        }
      });
  lost = lost || seen.damages != 0;
  Header& from = old->header();
  Header& to = made.file->header();
  for (Word64 Header::*word : {&Header::scratchpad, &Header::announced, &Header::published}) {
    Seam::store(to.*word, (from.*word).load(std::memory_order_acquire), std::memory_order_release);
  }
  made.found = passOver<Record>(*made.file, place);
  return made;
}

}  // namespace Impl

// Opens a collection for writing: the one place where a writer decides what to do with what it
// finds. Throws StoreError - another writer, no permission, no room - and the collection is as it
// was then. A process that dies in here leaves the collection as it was, or mounted.
template <class Record>
Mounted mountForWriting(const FilePlace& place, const Shape& shape) {
  using Verdict = StoreFile::Verdict;
  bool lost = false;

  // Private memory starts empty, and nobody else knows of it.
  if (place.local()) {
    return Impl::makeAnew<Record>(place, shape, nullptr, false, lost);
  }

  // 1. The register is locked by nobody else; otherwise another process writes: an error.
  auto held = std::make_unique<Register>(place.fileBase + kRegisterSuffix, place.path);
  StoreFile::removeLeftovers(place);

  // 2. The file is there, long enough, of this layout and not marked as damaged; otherwise step 4.
  StoreFile::Found existing = StoreFile::openExisting(place, shape);
  if (existing.verdict == Verdict::sound) {
    // 3. Its chains add up; otherwise it is damaged and nobody had noticed.
    Mounted mounted{existing.file, Impl::passOver<Record>(*existing.file, place)};
    if (mounted.found.damages == 0) {
      held->madeIs();
      mounted.file->registerIs(std::move(held));
      return mounted;
    }
    existing.verdict = Verdict::damaged;
  }

  // 4. It is made anew. Of a damaged file and of one of another capacity all whole records are
  // taken over. It is wiped, unless there never was one (the register knows) or only the capacity
  // has changed.
  const bool first = existing.verdict == Verdict::absent && !held->made();
  const bool resized = existing.verdict == Verdict::otherCapacity;
  Mounted mounted =
      Impl::makeAnew<Record>(place, shape, existing.file.get(), !first && !resized, lost);
  if (lost) {
    Seam::store(mounted.file->header().wiped, std::uint64_t{1}, std::memory_order_release);
  }

  // 5. The old file is set aside and the new one takes its name, in an order that survives a death.
  mounted.file->install();
  held->madeIs();
  mounted.file->registerIs(std::move(held));
  return mounted;
}

}  // namespace Quilt
