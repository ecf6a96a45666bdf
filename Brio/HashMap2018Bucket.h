#pragma once

#include <cstddef>
#include <cstdint>

namespace Brio {

// Base of every node of a keyed collection; nodes are handed about as pointers to it wherever their
// type is not known. Empty.
struct HashMap2018LinkNodeBase {};

// Head of a bucket, the one allocation that holds several nodes:
//
//   [padding] hash[capacity-1] ... hash[1] hash[0] | header | slot 0, slot 1, ... slot[capacity-1]
//
// The stored hashes lie in front of the header, slot 0's next to it, so that header, hashes and
// slots are all reached from the header's address alone. The slots follow at once: the padding in
// front aligns them. Slots [0, used) hold nodes, the others are raw memory.
//
// A bucket is reference-counted, on the one thread that owns its collection. With more than one
// reference it does not change any more, but for the values of its nodes and the mark that its
// collection has dropped it.
class alignas(8) HashMap2018BucketHdr {
 public:
  // The width of the capacity and of the used count.
  static constexpr unsigned kCapacityMax = (1U << 14) - 1;
  // There is room for a multiple of so many hashes.
  static constexpr unsigned kHashGroup = 4;

  explicit HashMap2018BucketHdr(unsigned capacity) noexcept : word_(capacity << kCapacityShift) {}
  HashMap2018BucketHdr(const HashMap2018BucketHdr&) = delete;
  HashMap2018BucketHdr& operator=(const HashMap2018BucketHdr&) = delete;

  [[nodiscard]] unsigned capacity() const noexcept {
    return word_ >> kCapacityShift & kCapacityMax;
  }
  [[nodiscard]] unsigned used() const noexcept { return word_ >> kUsedShift; }
  void usedIs(unsigned used) noexcept {
    word_ = (word_ & ((1U << kUsedShift) - 1)) | used << kUsedShift;
  }

  // No reference but the collection's, and a slot to spare.
  [[nodiscard]] bool takesOneMore() const noexcept { return used() < capacity() && !shared(); }
  // The collection has replaced or dropped the bucket.
  [[nodiscard]] bool detached() const noexcept { return (word_ & kDetached) != 0; }
  void detach() noexcept { word_ |= kDetached; }

  [[nodiscard]] bool shared() const noexcept { return references_ > 1; }
  void bktHdrRefInc() const noexcept { ++references_; }
  // Drops one reference; true if it was the last.
  [[nodiscard]] bool bktHdrRefDecHelper() const noexcept { return --references_ == 0; }

  [[nodiscard]] std::uint32_t hash(unsigned slot) const noexcept {
    return reinterpret_cast<const std::uint32_t*>(this)[-1 - static_cast<int>(slot)];
  }
  void hashIs(unsigned slot, std::uint32_t hash) noexcept {
    reinterpret_cast<std::uint32_t*>(this)[-1 - static_cast<int>(slot)] = hash;
  }
  // Stored hashes of the `count` slots from `slot` on, in memory order: the last slot's first.
  [[nodiscard]] std::uint32_t* hashRange(unsigned slot, unsigned count) noexcept {
    return reinterpret_cast<std::uint32_t*>(this) - slot - count;
  }

  // The four hashes from `slot` on, the highest slot's first. A group that begins in use can be
  // read whole.
  [[nodiscard]] const std::uint32_t* hashGroup(unsigned slot) const noexcept {
    return reinterpret_cast<const std::uint32_t*>(this) - slot - kHashGroup;
  }

  [[nodiscard]] char* slots() noexcept { return reinterpret_cast<char*>(this + 1); }
  [[nodiscard]] const char* slots() const noexcept {
    return reinterpret_cast<const char*>(this + 1);
  }
  [[nodiscard]] HashMap2018LinkNodeBase* node(unsigned slot, std::size_t nodeSize) noexcept {
    return reinterpret_cast<HashMap2018LinkNodeBase*>(slots() + slot * nodeSize);
  }
  [[nodiscard]] const HashMap2018LinkNodeBase* node(unsigned slot,
                                                    std::size_t nodeSize) const noexcept {
    return reinterpret_cast<const HashMap2018LinkNodeBase*>(slots() + slot * nodeSize);
  }

  // Bytes from the start of the allocation to slot 0.
  [[nodiscard]] static constexpr std::size_t slotsOffset(unsigned capacity,
                                                         std::size_t alignment) noexcept;
  [[nodiscard]] static constexpr std::size_t blockBytes(unsigned capacity, std::size_t nodeSize,
                                                        std::size_t alignment) noexcept {
    return slotsOffset(capacity, alignment) + capacity * nodeSize;
  }
  // Start of the allocation.
  [[nodiscard]] void* block(std::size_t alignment) const noexcept {
    return const_cast<char*>(slots()) - slotsOffset(capacity(), alignment);
  }

 private:
  static constexpr std::uint32_t kDetached = 1;
  static constexpr unsigned kCapacityShift = 4;
  static constexpr unsigned kUsedShift = 18;

  // kDetached in bit 0, the capacity from bit 4, the used slots from bit 18; 14 bits each.
  std::uint32_t word_;
  mutable std::uint32_t references_ = 1;
};
static_assert(sizeof(HashMap2018BucketHdr) == 8);

constexpr std::size_t HashMap2018BucketHdr::slotsOffset(unsigned capacity,
                                                        std::size_t alignment) noexcept {
  const std::size_t hashes = (capacity + kHashGroup - 1) / kHashGroup * kHashGroup;
  const std::size_t step = alignment < 8 ? 8 : alignment;
  return (hashes * sizeof(std::uint32_t) + sizeof(HashMap2018BucketHdr) + step - 1) / step * step;
}

}  // namespace Brio
