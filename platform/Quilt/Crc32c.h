#pragma once

#include <cstddef>
#include <cstdint>

// CRC-32C (polynomial 0x1edc6f41, reflected) over 64-bit words, low byte first: by the processor's
// instruction where it has one, else by tables. Both give the same number.

namespace Quilt::Crc32c {

// By tables, on any processor.
[[nodiscard]] std::uint32_t extendByTable(std::uint32_t crc, const std::uint64_t* words,
                                          std::size_t count) noexcept;

[[nodiscard]] bool processorHasInstruction() noexcept;

// Read before it is initialised it says no, which costs time and changes no result.
inline const bool kHasInstruction = processorHasInstruction();

// Carries `crc` on over one word, by the instruction: only where kHasInstruction holds.
[[nodiscard]] inline std::uint32_t stepByInstruction(std::uint32_t crc,
                                                     std::uint64_t word) noexcept {
#if defined(__x86_64__)
  // As assembly, since an intrinsic would need the whole program built for processors that have it.
  std::uint64_t state = crc;
  asm("crc32q %1, %0" : "+r"(state) : "r"(word));
  return static_cast<std::uint32_t>(state);
#else
  return extendByTable(crc, &word, 1);
#endif
}

// Carries `crc` on over `count` words. About a nanosecond a word.
[[nodiscard]] inline std::uint32_t extend(std::uint32_t crc, const std::uint64_t* words,
                                          std::size_t count) noexcept {
  if (!kHasInstruction) [[unlikely]] {
    return extendByTable(crc, words, count);
  }
  for (std::size_t i = 0; i < count; ++i) {
    crc = stepByInstruction(crc, words[i]);
  }
  return crc;
}

}  // namespace Quilt::Crc32c
