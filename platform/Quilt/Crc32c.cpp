#include "Quilt/Crc32c.h"

#include <array>

namespace Quilt::Crc32c {
namespace {

constexpr std::uint32_t kReflectedPolynomial = 0x82f63b78;

constexpr std::array<std::uint32_t, 256> makeTable() {
  std::array<std::uint32_t, 256> table{};
  for (std::uint32_t byte = 0; byte < table.size(); ++byte) {
    std::uint32_t crc = byte;
    for (int bit = 0; bit < 8; ++bit) {
      crc = (crc >> 1) ^ ((crc & 1U) != 0 ? kReflectedPolynomial : 0U);
    }
    table[byte] = crc;
  }
  return table;
}

constexpr std::array<std::uint32_t, 256> kTable = makeTable();

}  // namespace

std::uint32_t extendByTable(std::uint32_t crc, const std::uint64_t* words,
                            std::size_t count) noexcept {
  for (std::size_t i = 0; i < count; ++i) {
    for (unsigned shift = 0; shift < 64; shift += 8) {
      crc = kTable[(crc ^ (words[i] >> shift)) & 0xffU] ^ (crc >> 8);
    }
  }
  return crc;
}

bool processorHasInstruction() noexcept {
#if defined(__x86_64__)
  return __builtin_cpu_supports("sse4.2") != 0;
#else
  return false;
#endif
}

}  // namespace Quilt::Crc32c
