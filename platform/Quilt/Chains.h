#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <utility>

#include "Quilt/Crc32c.h"
#include "Quilt/KeyWords.h"
#include "Quilt/Layout.h"
#include "Quilt/StoreFile.h"

namespace Quilt {

// The bucket heads and slots of a mapped collection file, seen as records of one type. Reads what
// it is told to; who calls has checked that the slot exists. A few words, copied freely; the file
// must outlive it.
template <class Record>
class Chains {
 public:
  using Traits = RecordTraits<Record>;
  using Key = typename Traits::Key;
  using Words = KeyWords<Key>;
  using RecordSlot = Slot<Traits::kWords>;

 private:
  static constexpr std::size_t kMostSmallWords = 16;
  static constexpr std::size_t kParts = 4;  // of a large record
  static constexpr std::size_t kPartWords = Traits::kWords / kParts;

  struct RecordWords {
    std::uint64_t words[Traits::kWords];
  };
  [[nodiscard]] static constexpr std::size_t bytesOf(std::size_t i) noexcept {
    return sizeof(Record) - 8 * i < 8 ? sizeof(Record) - 8 * i : 8;
  }

 public:
  // Word `i` of a record, zero beyond its end; and the other way round.
  [[nodiscard]] static std::uint64_t wordOf(const Record& record, std::size_t i) noexcept {
    std::uint64_t word = 0;
    std::memcpy(&word, reinterpret_cast<const unsigned char*>(&record) + 8 * i, bytesOf(i));
    return word;
  }
  static void wordIs(Record& record, std::size_t i, std::uint64_t word) noexcept {
    std::memcpy(reinterpret_cast<unsigned char*>(&record) + 8 * i, &word, bytesOf(i));
  }

  explicit Chains(const StoreFile& file) noexcept
      : heads_(static_cast<Word64*>(file.at(Geometry::kHeadsOffset))),
        slots_(static_cast<RecordSlot*>(file.at(file.geometry().slotsOffset))),
        headsUsed_(file.header().headsUsed),
        bucketShift_(64 - file.geometry().bucketBits),
        bucketMask_(file.geometry().buckets - 1),
        headChunkBits_(file.geometry().headChunkBits) {}

  [[nodiscard]] Word64& head(std::uint32_t bucket) const noexcept { return heads_[bucket]; }
  [[nodiscard]] RecordSlot& slot(std::uint32_t index) const noexcept { return slots_[index]; }
  [[nodiscard]] std::uint32_t buckets() const noexcept { return bucketMask_ + 1; }

  [[nodiscard]] std::uint32_t bucketOf(const Words& key) const noexcept {
    if constexpr (Traits::kOrderedByKey) {
      return static_cast<std::uint32_t>(key.words[0]) & bucketMask_;
    } else {
      return static_cast<std::uint32_t>(key.hash() >> bucketShift_);
    }
  }

  // Heads are taken into use in chunks. A chunk that is not in use is a hole of the file, all of
  // its buckets are empty, and nobody may touch it: even a read would take pages from the file
  // system.
  [[nodiscard]] std::uint32_t headChunkOf(std::uint32_t bucket) const noexcept {
    return bucket >> headChunkBits_;
  }
  [[nodiscard]] bool headsUsed(std::uint32_t bucket) const noexcept {
    const std::uint32_t chunk = headChunkOf(bucket);
    return ((headsUsed_[chunk / 64].load(std::memory_order_acquire) >> (chunk % 64)) & 1U) != 0;
  }
  [[nodiscard]] Word64& headsUsedWord(std::uint32_t bucket) const noexcept {
    return headsUsed_[headChunkOf(bucket) / 64];
  }
  [[nodiscard]] std::uint64_t headsUsedBit(std::uint32_t bucket) const noexcept {
    return std::uint64_t{1} << (headChunkOf(bucket) % 64);
  }
  [[nodiscard]] std::uint64_t headChunkBuckets() const noexcept {
    return std::uint64_t{1} << headChunkBits_;
  }

  // The key in a slot. Its words are read in acquire order: what is read afterwards is not older.
  [[nodiscard]] static Words keyOf(const RecordSlot& slot) noexcept {
    const std::size_t offset = Traits::keyOffset();
    const std::size_t first = offset / 8;
    const std::size_t last = (offset + sizeof(Key) - 1) / 8;
    std::uint64_t covering[Words::kWords + 1] = {};
    for (std::size_t i = first; i <= last; ++i) {
      covering[i - first] = slot.words[i].load(std::memory_order_acquire);
    }
    Words key;
    std::memcpy(key.words.data(), reinterpret_cast<const unsigned char*>(covering) + offset % 8,
                sizeof(Key));
    return key;
  }
  // The bytes in a slot as the record that they are. For the writer alone, whose thread is the only
  // one that changes them.
  [[nodiscard]] static const Record& recordIn(const RecordSlot& slot) noexcept {
    return *std::launder(static_cast<const Record*>(static_cast<const void*>(slot.words)));
  }
  // Calls load(i) once for each word of a record, hands it to take(i, word), and gives the checksum
  // of all.
  template <class Load, class Take>
  [[nodiscard]] static std::uint32_t checksumOver(std::uint32_t generation, Load&& load,
                                                  Take&& take) noexcept {
    if (Crc32c::kHasInstruction) [[likely]] {
      const auto one = [&](std::uint64_t& state, std::size_t i) {
        const std::uint64_t word = load(i);
        take(i, word);
        state = Crc32c::stepByInstruction(state, word);
      };
      if constexpr (Traits::kWords <= kMostSmallWords) {
        std::uint64_t state = ~generation;
        [&]<std::size_t... I>(std::index_sequence<I...>) { (one(state, I), ...); }
        (std::make_index_sequence<Traits::kWords>());
        return static_cast<std::uint32_t>(state);
      } else {
        std::uint64_t states[kParts] = {~0U, ~0U, ~0U, ~0U};
        for (std::size_t i = 0; i < kPartWords; ++i) {
          for (std::size_t part = 0; part < kParts; ++part) {
            one(states[part], part * kPartWords + i);
          }
        }
        for (std::size_t i = kParts * kPartWords; i < Traits::kWords; ++i) {
          one(states[kParts - 1], i);
        }
        return overParts(states, generation);
      }
    }
    RecordWords record;
    for (std::size_t i = 0; i < Traits::kWords; ++i) {
      record.words[i] = load(i);
      take(i, record.words[i]);
    }
    return checksumOf(record, generation);
  }
  // The checksum that the record in a slot should have. Its words are read in acquire order.
  template <class Take>
  [[nodiscard]] static std::uint32_t checksumIn(const RecordSlot& slot, std::uint32_t generation,
                                                Take&& take) noexcept {
    return checksumOver(
        generation, [&](std::size_t i) { return slot.words[i].load(std::memory_order_acquire); },
        take);
  }

 private:
  // CRC-32C of the record, the key with it, begun with the generation. Large records are cut into
  // four parts, whose checksums the processor computes side by side, and a checksum over those.
  [[nodiscard]] static std::uint32_t checksumOf(const RecordWords& record,
                                                std::uint32_t generation) noexcept {
    constexpr std::size_t kCount = Traits::kWords;
    if constexpr (kCount <= kMostSmallWords) {
      return Crc32c::extend(~generation, record.words, kCount);
    } else {
      std::uint64_t states[kParts];
      for (std::size_t part = 0; part < kParts; ++part) {
        const std::size_t first = part * kPartWords;
        states[part] = Crc32c::extend(~0U, record.words + first,
                                      part + 1 < kParts ? kPartWords : kCount - first);
      }
      return overParts(states, generation);
    }
  }
  [[nodiscard]] static std::uint32_t overParts(const std::uint64_t (&states)[kParts],
                                               std::uint32_t generation) noexcept {
    const std::uint64_t parts[2] = {states[0] | states[1] << 32, states[2] | states[3] << 32};
    return Crc32c::extend(~generation, parts, 2);
  }

  Word64* heads_;
  RecordSlot* slots_;
  Word64* headsUsed_;
  std::uint32_t bucketShift_;
  std::uint32_t bucketMask_;
  std::uint32_t headChunkBits_;
};

}  // namespace Quilt
