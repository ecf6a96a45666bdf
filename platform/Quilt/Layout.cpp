#include "Quilt/Layout.h"

#include <sys/random.h>

#include <bit>
#include <chrono>
#include <cstring>
#include <limits>

#include "Lumen/Assert.h"
#include "Quilt/Crc32c.h"

namespace Quilt {
namespace {

constexpr char kMagic[8] = {'q', 'u', 'i', 'l', 't', 'm', 'a', 'p'};

constexpr std::uint64_t kMostSlots = (1ULL << 31) - 64;

std::uint64_t roundUp(std::uint64_t value, std::uint64_t step) {
  return (value + step - 1) / step * step;
}

std::uint64_t freshIncarnation() {
  std::uint64_t number = 0;
  if (::getrandom(&number, sizeof number, GRND_NONBLOCK) != sizeof number) {
    number =
        static_cast<std::uint64_t>(std::chrono::system_clock::now().time_since_epoch().count());
  }
  return number == 0 ? 1 : number;
}

std::uint32_t checksumOf(const HeaderConstants& constants) {
  constexpr std::size_t kCovered = offsetof(HeaderConstants, checksum);
  std::uint64_t words[(kCovered + 7) / 8] = {};
  std::memcpy(words, &constants, kCovered);
  return Crc32c::extend(~0U, words, std::size(words));
}

bool whole(const HeaderConstants& constants) {
  return std::memcmp(constants.magic, kMagic, sizeof kMagic) == 0 &&
         constants.checksum == checksumOf(constants);
}

template <std::size_t N>
void fill(char (&place)[N], const Lumen::String& text, const char* what) {
  Lumen::assertThat(text.size() < N, what);
  std::memcpy(place, text.data(), text.size());
}

}  // namespace

Geometry Geometry::of(std::uint32_t capacity, unsigned headroom, std::size_t slotBytes) {
  const std::uint64_t limit = static_cast<std::uint64_t>(capacity) * headroom;
  Lumen::assertThat(capacity > 0 && limit < kMostSlots && slotBytes < (1U << 20),
                    "a collection has room for 1 to 2^31 - 65 records");
  Geometry made;
  made.capacity = capacity;
  made.limit = static_cast<std::uint32_t>(limit);
  made.buckets = std::bit_ceil(capacity < 8 ? 8U : capacity);
  made.bucketBits = static_cast<std::uint32_t>(std::countr_zero(made.buckets));
  made.slots = made.limit + kSpareSlots;
  made.slotBytes = static_cast<std::uint32_t>(slotBytes);
  // 64 KiB of heads, or more where the header would have too few bits for that.
  made.headChunkBits = static_cast<std::uint32_t>(std::countr_zero(kSpaceChunk / sizeof(Word64)));
  while ((made.buckets >> made.headChunkBits) > kMostHeadChunks) {
    ++made.headChunkBits;
  }
  made.slotsOffset =
      roundUp(kHeadsOffset + static_cast<std::uint64_t>(made.buckets) * sizeof(Word64), kPageBytes);
  made.fileBytes =
      roundUp(made.slotsOffset + static_cast<std::uint64_t>(made.slots) * slotBytes, kPageBytes);
  return made;
}

void headerConstantsIs(HeaderConstants& constants, const Shape& shape) {
  std::memset(&constants, 0, sizeof constants);
  std::memcpy(constants.magic, kMagic, sizeof kMagic);
  constants.formatVersion = kFormatVersion;
  constants.headroom = shape.headroom;
  constants.signature = shape.signature;
  constants.incarnation = freshIncarnation();
  constants.capacity = shape.capacity;
  constants.recordBytes = shape.recordBytes;
  constants.keyBytes = shape.keyBytes;
  constants.slotBytes = shape.slotBytes;
  fill(constants.typeName, shape.typeName, "the type name of a collection has 127 bytes at most");
  fill(constants.collectionName, shape.collectionName,
       "the name of a collection has 63 bytes at most");
  constants.checksum = checksumOf(constants);
}

std::optional<HeaderConstants> wholeConstants(const Header& header) {
  // Copied before it is judged, so that what was judged is what is used.
  for (const HeaderConstants* place : {&header.constants, &header.copy}) {
    HeaderConstants constants;
    std::memcpy(&constants, place, sizeof constants);
    if (whole(constants)) {
      return constants;
    }
  }
  return std::nullopt;
}

bool bothConstantsWhole(const Header& header) {
  return whole(header.constants) && whole(header.copy) &&
         std::memcmp(&header.constants, &header.copy, sizeof header.copy) == 0;
}

bool sameLayout(const HeaderConstants& constants, const Shape& shape) {
  return constants.formatVersion == kFormatVersion && constants.signature == shape.signature &&
         constants.headroom == shape.headroom && constants.recordBytes == shape.recordBytes &&
         constants.keyBytes == shape.keyBytes && constants.slotBytes == shape.slotBytes &&
         constants.capacity > 0 &&
         static_cast<std::uint64_t>(constants.capacity) * constants.headroom < kMostSlots &&
         std::strncmp(constants.typeName, shape.typeName.c_str(), sizeof constants.typeName) == 0;
}

void LayoutSignature::add(std::string_view text) noexcept {
  for (const char c : text) {
    value_ = (value_ ^ static_cast<unsigned char>(c)) * 0x100000001b3ULL;
  }
  add(text.size());
}

void LayoutSignature::add(std::uint64_t number) noexcept {
  for (unsigned shift = 0; shift < 64; shift += 8) {
    value_ = (value_ ^ ((number >> shift) & 0xffU)) * 0x100000001b3ULL;
  }
}

}  // namespace Quilt
