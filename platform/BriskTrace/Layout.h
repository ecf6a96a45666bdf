#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

// The bytes of a trace file. All words are little-endian as the processor writes them; nothing in
// the file is a pointer, and a reader believes nothing in it that a checksum or a bound does not
// confirm.
//
//   offset 0                        Header: one page
//   offset 4096                     descriptors: kDescriptorBytes; one block for each call site,
//                                   appended, never changed
//   offset 4096 + kDescriptorBytes  ring: ringSlots (a power of two) slots of 64 bytes
//
//   descriptor = { u32 bytes of the whole block, a multiple of 8; u32 checksum of what follows;
//                  i32 id; i32 line;
//                  u16 lengths of file, class, function, format, letters; u16 0, 0, 0;
//                  those five texts, without a terminator; zeroes up to a multiple of 8 }
//   slot       = { u64 number; u64 ticks; u64 id | argument bytes << 32 | check << 40;
//                  u64 arguments[5] }
//
// Message n (from 1) lies in slot (n - 1) % ringSlots. Arguments are packed without padding, each
// as many bytes as its letter says. The check covers every word of the slot that the message uses.
//
// Publication of a message: number = 0, then the other words, then number = n, each store after the
// one before. So a process killed between any two stores leaves a slot that holds no message, and
// all others as they were. A reader that meets a slot in the middle of a store finds a check that
// does not fit.

namespace BriskTrace::Layout {

inline constexpr std::uint64_t kMagic = 0x454341525450454bULL;  // "KEPTRACE"
inline constexpr std::uint32_t kVersion = 1;
inline constexpr std::size_t kHeaderBytes = 4096;
inline constexpr std::size_t kDescriptorBytes = 256 * 1024;
inline constexpr std::size_t kDescriptorHeadBytes = 32;
inline constexpr std::size_t kRingOffset = kHeaderBytes + kDescriptorBytes;
inline constexpr std::size_t kSlotWords = 8;
inline constexpr std::size_t kSlotBytes = kSlotWords * 8;
inline constexpr std::size_t kArgumentWords = 5;
inline constexpr std::size_t kMostArgumentBytes = kArgumentWords * 8;
inline constexpr std::uint32_t kMostRingSlots = 1U << 22;

using Word = std::atomic<std::uint64_t>;
static_assert(Word::is_always_lock_free && sizeof(Word) == 8);

// What never changes after the file was made, and `check` over it.
struct FixedHeader {
  std::uint64_t magic;
  std::uint32_t version;
  std::uint32_t pid;  // of the writer
  std::uint64_t ringSlots;
  std::uint64_t startTicks;
  std::uint64_t startNanoseconds;  // UTC, since 1970
  std::uint64_t ticksPerSecond;
  std::uint64_t check;
};

struct Header {
  FixedHeader fixed;
  // Bytes of descriptors; stored after the block that it covers. A stale value hides the newest
  // site.
  Word descriptorBytes;
  // Sites whose descriptor found no room; for the reader's information only.
  Word descriptorsLost;
  // Messages so far: a hint whether there is news. What counts is the numbers in the slots.
  Word written;
  // 1 when the writer ended the file in order.
  Word closed;
  // The last time at which ticks and UTC were read together: ticks, nanoseconds, and a check over
  // the two. One that does not fit is ignored.
  Word syncTicks;
  Word syncNanoseconds;
  Word syncCheck;
};
static_assert(sizeof(FixedHeader) == 56 && offsetof(Header, descriptorBytes) == 56 &&
              sizeof(Header) == 112 && sizeof(Header) <= kHeaderBytes);

// Check of a block of words.
[[nodiscard]] inline std::uint64_t blockCheck(const std::uint64_t* words,
                                              std::size_t count) noexcept {
  std::uint64_t state = 0x9fb21c651e98df25ULL + count;
  for (std::size_t i = 0; i < count; ++i) {
    state = (state ^ words[i]) * 0xe7037ed1a0b428dbULL;
    state ^= state >> 32;
  }
  return state;
}

// The third word of a slot, with the check in its upper 24 bits. A sum of products, so that the
// multiplications of one message run side by side; every flipped bit moves the sum by a product of
// an odd number, which shows in the upper bits.
[[nodiscard]] inline std::uint64_t slotTag(std::uint64_t number, std::uint64_t ticks,
                                           std::int32_t id, std::size_t argumentBytes,
                                           const std::uint64_t* arguments) noexcept {
  constexpr std::uint64_t kFactor[kArgumentWords] = {0x8ebc6af09c88c6e3ULL, 0xa0761d6478bd642fULL,
                                                     0x589965cc75374cc3ULL, 0x1d8e4e27c47d124fULL,
                                                     0xeb44accab455d165ULL};
  const std::uint64_t plain =
      static_cast<std::uint32_t>(id) | static_cast<std::uint64_t>(argumentBytes) << 32;
  std::uint64_t sum = number * 0x9fb21c651e98df25ULL + ticks * 0xe7037ed1a0b428dbULL +
                      plain * 0xc2b2ae3d27d4eb4fULL;
  for (std::size_t i = 0; i * 8 < argumentBytes; ++i) {
    sum += (arguments[i] ^ (arguments[i] >> 29)) * kFactor[i];
  }
  sum ^= sum >> 31;
  sum *= 0x2545f4914f6cdd1dULL;
  return plain | (sum >> 40) << 40;
}

[[nodiscard]] inline std::uint64_t syncCheck(std::uint64_t ticks,
                                             std::uint64_t nanoseconds) noexcept {
  const std::uint64_t words[2] = {ticks, nanoseconds};
  return blockCheck(words, 2);
}

}  // namespace BriskTrace::Layout
