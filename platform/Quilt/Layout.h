#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <type_traits>

#include "Brio/Fields.h"
#include "Lumen/String.h"

// The layout of a collection file, which is the contract between processes. The map of it, and what
// every word means to whom, stands at the top of Quilt/QuiltMap.h.

namespace Quilt {

inline constexpr std::uint32_t kFormatVersion = 1;
inline constexpr std::size_t kPageBytes = 4096;
// Slots beyond the records that may live: an overwrite of a full collection takes one of them.
inline constexpr std::uint32_t kSpareSlots = 8;
// Space is taken from the file system in pieces of this size.
inline constexpr std::uint64_t kSpaceChunk = 64 * 1024;

using Word32 = std::atomic<std::uint32_t>;
using Word64 = std::atomic<std::uint64_t>;
static_assert(Word32::is_always_lock_free && sizeof(Word32) == 4);
static_assert(Word64::is_always_lock_free && sizeof(Word64) == 8);

// What leads to a slot: its number, and the generation that it must have. One word, so that one
// store publishes or removes a record. 0 leads nowhere, since no slot that is linked has the
// generation 0.
struct Link {
  [[nodiscard]] static constexpr std::uint64_t to(std::uint32_t slot,
                                                  std::uint32_t generation) noexcept {
    return static_cast<std::uint64_t>(generation) << 32 | slot;
  }
  [[nodiscard]] static constexpr std::uint32_t slot(std::uint64_t link) noexcept {
    return static_cast<std::uint32_t>(link);
  }
  [[nodiscard]] static constexpr std::uint32_t generation(std::uint64_t link) noexcept {
    return static_cast<std::uint32_t>(link >> 32);
  }
};

template <std::size_t Words>
struct Slot {
  Word64 next;
  Word32 generation;
  Word32 checksum;
  Word64 words[Words];
};
static_assert(sizeof(Slot<3>) == 40 && std::is_standard_layout_v<Slot<3>>);

// The numbers that follow from a declared capacity.
struct Geometry {
  std::uint32_t capacity = 0;  // records, as declared
  std::uint32_t limit = 0;     // records that there is room for: capacity times headroom
  std::uint32_t buckets = 0;   // a power of two
  std::uint32_t bucketBits = 0;
  std::uint32_t slots = 0;
  std::uint32_t slotBytes = 0;
  std::uint32_t headChunkBits = 0;  // a bucket shifted by it is the number of its chunk of heads
  std::uint64_t slotsOffset = 0;    // bytes from the start of the file
  std::uint64_t fileBytes = 0;

  static constexpr std::uint64_t kHeadsOffset = kPageBytes;

  // Asserts that the numbers fit into 32 bits.
  [[nodiscard]] static Geometry of(std::uint32_t capacity, unsigned headroom,
                                   std::size_t slotBytes);
};

// What a program expects a file to hold.
struct Shape {
  Lumen::String typeName;
  Lumen::String collectionName;
  std::uint64_t signature = 0;
  std::uint32_t recordBytes = 0;
  std::uint32_t keyBytes = 0;
  std::uint32_t slotBytes = 0;
  std::uint32_t headroom = 1;
  std::uint32_t capacity = 0;  // 0: whatever the file says
};

// What never changes in a header. It stands in it twice, each with its own checksum.
struct HeaderConstants {
  char magic[8];
  std::uint32_t formatVersion;
  std::uint32_t headroom;
  std::uint64_t signature;
  std::uint64_t incarnation;
  std::uint32_t capacity;
  std::uint32_t recordBytes;
  std::uint32_t keyBytes;
  std::uint32_t slotBytes;
  char typeName[128];
  char collectionName[64];
  std::uint32_t reserved;
  std::uint32_t checksum;  // CRC-32C of all that stands before it
};
static_assert(sizeof(HeaderConstants) == 248 && std::is_trivially_copyable_v<HeaderConstants>);

inline constexpr std::size_t kMostHeadChunks = 1024;

struct Header {
  HeaderConstants constants;
  alignas(64) HeaderConstants copy;
  // Words that change alone. Those that a reader polls stand apart from those of every change.
  alignas(64) Word64 published;
  alignas(64) Word64 scratchpad;
  Word64 announced;
  Word64 records;
  Word64 lowKey;
  Word64 highKey;
  alignas(64) Word64 slotsReserved;
  Word64 wiped;
  Word64 damaged;
  alignas(64) Word64 headsUsed[kMostHeadChunks / 64];
};
static_assert(sizeof(Header) <= kPageBytes);
static_assert(offsetof(Header, copy) == 256 && offsetof(Header, published) == 512 &&
              offsetof(Header, scratchpad) == 576 && offsetof(Header, slotsReserved) == 640 &&
              offsetof(Header, headsUsed) == 704);

// Fills `constants` for a new file, with an incarnation number that no other file has.
void headerConstantsIs(HeaderConstants& constants, const Shape& shape);
// The constants of a header as far as one of the copies is whole.
[[nodiscard]] std::optional<HeaderConstants> wholeConstants(const Header& header);
// True if both copies are whole and the same.
[[nodiscard]] bool bothConstantsWhole(const Header& header);
// True if a file with these constants holds what `shape` expects, whatever its capacity.
[[nodiscard]] bool sameLayout(const HeaderConstants& constants, const Shape& shape);

// A 64-bit number of all that decides where the bytes of a record lie.
class LayoutSignature {
 public:
  void add(std::string_view text) noexcept;
  void add(std::uint64_t number) noexcept;
  [[nodiscard]] std::uint64_t value() const noexcept { return value_; }

 private:
  std::uint64_t value_ = 0xcbf29ce484222325ULL;
};

namespace Impl {

template <class Record>
inline constinit std::byte probe[sizeof(Record)]{};

template <class Owner>
void addFields(LayoutSignature& signature, const Owner& owner) {
  Brio::forEachField<Owner>([&](const auto& field) {
    const auto& member = owner.*field.member;
    signature.add(field.name);
    signature.add(static_cast<std::uint64_t>(reinterpret_cast<const std::byte*>(&member) -
                                             reinterpret_cast<const std::byte*>(&owner)));
    signature.add(sizeof(member));
    using Member = std::remove_cvref_t<decltype(member)>;
    if constexpr (Brio::HasFields<Member>) {
      addFields(signature, member);
    }
  });
}

}  // namespace Impl

// What the engine knows of a record type.
template <class Record>
struct RecordTraits {
  using Key = typename Record::QuiltKey;
  static_assert(std::is_trivially_copyable_v<Record>);
  static_assert(alignof(Record) <= 8, "records lie on 8-byte boundaries");

  static constexpr std::size_t kWords = (sizeof(Record) + 7) / 8;
  static constexpr bool kOrderedByKey = [] {
    if constexpr (requires { Record::kQuiltOrderedByKey; }) {
      return Record::kQuiltOrderedByKey;
    } else {
      return false;
    }
  }();
  static constexpr unsigned kHeadroom = [] {
    if constexpr (requires { Record::kQuiltHeadroom; }) {
      return Record::kQuiltHeadroom;
    } else {
      return 1U;
    }
  }();
  static_assert(!kOrderedByKey || sizeof(Key) == 8, "a collection in key order has 64-bit keys");
  static_assert(kHeadroom >= 1);

  // Where the key lies in the record. Only the address of what quiltKey() yields is looked at, and
  // the compiler makes a constant of it.
  [[nodiscard]] static std::size_t keyOffset() noexcept {
    const void* const place = Impl::probe<Record>;
    return static_cast<std::size_t>(
        reinterpret_cast<const std::byte*>(&static_cast<const Record*>(place)->quiltKey()) -
        Impl::probe<Record>);
  }

  [[nodiscard]] static Shape shape(const Lumen::String& typeName,
                                   const Lumen::String& collectionName, std::uint32_t capacity) {
    LayoutSignature signature;
    signature.add(typeName);
    signature.add(sizeof(Record));
    signature.add(alignof(Record));
    signature.add(sizeof(Key));
    signature.add(alignof(Key));
    signature.add(keyOffset());
    signature.add(kOrderedByKey ? 1 : 0);
    if constexpr (Brio::HasFields<Record>) {
      const Record record{};
      Impl::addFields(signature, record);
    }
    Shape made;
    made.typeName = typeName;
    made.collectionName = collectionName;
    made.signature = signature.value();
    made.recordBytes = sizeof(Record);
    made.keyBytes = sizeof(Key);
    made.slotBytes = sizeof(Slot<kWords>);
    made.headroom = kHeadroom;
    made.capacity = capacity;
    return made;
  }
};

}  // namespace Quilt
