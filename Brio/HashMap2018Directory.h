#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "Brio/HashMap2018Bucket.h"

namespace Brio {

// One entry of a collection's directory: a bucket, or null, and a tag for each of its first slots.
struct HashMap2018DirectoryEntry {
  static constexpr unsigned kTags = 16;

  HashMap2018BucketHdr* bucket = nullptr;
  std::uint8_t tags[kTags] = {};

  // What of a hash is kept beside the directory: its low byte, which has no part in the choice of
  // the entry. 0 stands for a slot that is not in use.
  [[nodiscard]] static std::uint8_t tagOf(std::uint32_t hash) noexcept {
    const auto low = static_cast<std::uint8_t>(hash);
    return static_cast<std::uint8_t>(low + (low == 0));
  }

  // The bucket may have slots beyond those that have a tag.
  [[nodiscard]] bool reachesBeyondTags() const noexcept { return tags[kTags - 1] != 0; }

  // A bit for each tag that equals that of `hash`.
  [[nodiscard]] unsigned matches(std::uint32_t hash) const noexcept {
    const std::uint8_t tag = tagOf(hash);
#if defined(__SSE2__)
    const __m128i all = _mm_loadu_si128(reinterpret_cast<const __m128i*>(tags));
    const __m128i wanted = _mm_set1_epi8(static_cast<char>(tag));
    return static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(all, wanted)));
#else
    unsigned mask = 0;
    for (unsigned i = 0; i < kTags; ++i) {
      mask |= static_cast<unsigned>(tags[i] == tag) << i;
    }
    return mask;
#endif
  }

  // A member has come into `slot`, the first that was not in use.
  void tagAppend(unsigned slot, std::uint32_t hash) noexcept {
    store(load() | static_cast<Tags>(tagOf(hash)) << 8 * slot);
  }
  // The member in `slot` has gone, and the one in `last`, the last in use, has taken its place.
  void tagReplace(unsigned slot, unsigned last) noexcept {
    const Tags all = load();
    const Tags moved = (all >> 8 * last ^ all >> 8 * slot) & 0xff;
    store((all ^ moved << 8 * slot) & ((Tags{1} << 8 * last) - 1));
  }
  void bucketIs(HashMap2018BucketHdr* to) noexcept {
    bucket = to;
    const unsigned used = to == nullptr ? 0 : to->used();
    for (unsigned i = 0; i < kTags; ++i) {
      tags[i] = i < used ? tagOf(to->hash(i)) : std::uint8_t{0};
    }
  }

 private:
  // All tags in one register, that of slot 0 in the low byte.
  __extension__ using Tags = unsigned __int128;

  [[nodiscard]] Tags load() const noexcept {
    Tags all;
    std::memcpy(&all, tags, kTags);
    return all;
  }
  void store(Tags all) noexcept {
#if defined(__SSE2__)
    // One store, so that a lookup that follows at once finds it whole in the store buffer.
    _mm_storeu_si128(
        reinterpret_cast<__m128i*>(tags),
        _mm_set_epi64x(static_cast<long long>(all >> 64), static_cast<long long>(all)));
#else
    std::memcpy(tags, &all, kTags);
#endif
  }
};
static_assert(std::endian::native == std::endian::little);
static_assert(sizeof(HashMap2018DirectoryEntry) == 24);

}  // namespace Brio
