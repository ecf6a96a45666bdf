#pragma once

#include <cstdint>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "Brio/HashMap2018Bucket.h"

namespace Brio {

// Ranks the slots of a bucket of at most 16 by their stored hashes, without a branch on any of
// them.
class HashMap2018SlotOrder {
 public:
  // The slots in ascending order of their hashes, four bits each, the first lowest. False, and
  // `order` of no use, if hashes are equal.
  [[nodiscard]] static bool byHash(const HashMap2018BucketHdr* bucket,
                                   std::uint64_t& order) noexcept {
    const unsigned used = bucket->used();
    order = 0;
    if (used == 1) {
      return true;
    }
    return used <= 8 ? rankAll<2>(bucket, used, order) : rankAll<4>(bucket, used, order);
  }

 private:
  // Four hashes at a time; `groups` of them hold all slots in use.
  template <unsigned groups>
  [[nodiscard]] static bool rankAll(const HashMap2018BucketHdr* bucket, unsigned used,
                                    std::uint64_t& order) noexcept {
    unsigned taken = 0;
#if defined(__SSE2__)
    // Comparison is of signed numbers only; slots that are not in use come last.
    const __m128i sign = _mm_set1_epi32(INT32_MIN);
    const __m128i last = _mm_set1_epi32(static_cast<int>(used) - 1);
    __m128i keys[groups];
    for (unsigned i = 0; i < groups; ++i) {
      if (4 * i >= used) {
        keys[i] = _mm_set1_epi32(INT32_MAX);
        continue;
      }
      // In memory the higher slot comes first.
      const int first = static_cast<int>(4 * i);
      const __m128i slots = _mm_set_epi32(first, first + 1, first + 2, first + 3);
      const __m128i unused = _mm_cmpgt_epi32(slots, last);
      const __m128i hashes =
          _mm_loadu_si128(reinterpret_cast<const __m128i*>(bucket->hashGroup(4 * i)));
      keys[i] = _mm_or_si128(_mm_andnot_si128(unused, _mm_xor_si128(hashes, sign)),
                             _mm_and_si128(unused, _mm_set1_epi32(INT32_MAX)));
    }
    for (unsigned slot = 0; slot < used; ++slot) {
      const __m128i key =
          _mm_set1_epi32(static_cast<std::int32_t>(bucket->hash(slot) ^ 0x80000000U));
      __m128i lower = _mm_packs_epi32(_mm_cmpgt_epi32(key, keys[0]), _mm_cmpgt_epi32(key, keys[1]));
      if constexpr (groups == 4) {
        lower = _mm_packs_epi16(
            lower, _mm_packs_epi32(_mm_cmpgt_epi32(key, keys[2]), _mm_cmpgt_epi32(key, keys[3])));
      } else {
        lower = _mm_packs_epi16(lower, _mm_setzero_si128());
      }
      const __m128i counts =
          _mm_sad_epu8(_mm_sub_epi8(_mm_setzero_si128(), lower), _mm_setzero_si128());
      unsigned rank = static_cast<unsigned>(_mm_cvtsi128_si32(counts));
      if constexpr (groups == 4) {
        rank += static_cast<unsigned>(_mm_extract_epi16(counts, 4));
      }
#else
    for (unsigned slot = 0; slot < used; ++slot) {
      unsigned rank = 0;
      for (unsigned other = 0; other < used; ++other) {
        rank += bucket->hash(other) < bucket->hash(slot);
      }
#endif
      order |= static_cast<std::uint64_t>(slot) << 4 * rank;
      taken |= 1U << rank;
    }
    return taken == (1U << used) - 1;
  }
};

}  // namespace Brio
