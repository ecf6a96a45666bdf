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

  // What of a hash is kept beside the directory: its low byte, which has no part in the choice of the
  // entry. 0 stands for a slot that is not in use.
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

  void tagInsert(unsigned slot, std::uint32_t hash) noexcept {
    if (slot < kTags) {
      std::memmove(tags + slot + 1, tags + slot, kTags - 1 - slot);
      tags[slot] = tagOf(hash);
    }
  }
  // To be called when the slot is gone from the bucket.
  void tagErase(unsigned slot) noexcept {
    if (slot < kTags) {
      std::memmove(tags + slot, tags + slot + 1, kTags - 1 - slot);
      tags[kTags - 1] = bucket->used() >= kTags ? tagOf(bucket->hash(kTags - 1)) : std::uint8_t{0};
    }
  }
  void bucketIs(HashMap2018BucketHdr* to) noexcept {
    bucket = to;
    const unsigned used = to == nullptr ? 0 : to->used();
    for (unsigned i = 0; i < kTags; ++i) {
      tags[i] = i < used ? tagOf(to->hash(i)) : std::uint8_t{0};
    }
  }
};

}  // namespace Brio
