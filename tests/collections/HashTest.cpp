// A collection takes its bucket from the top bits of a hash and tells members of a bucket apart by
// the low byte. Both are measured on the keys that are met in life: dense numbers, strides, packed
// fields.

#include "Brio/Hash.h"

#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <cstring>
#include <functional>
#include <vector>

namespace {

using HashOf = std::function<std::uint32_t(std::uint64_t)>;

constexpr unsigned kKeys = 1U << 16;

// Chi square over 2^bits cells, per cell: about 1 for a random function, larger is worse.
double chiSquare(const std::vector<std::uint32_t>& hashes, unsigned bits, bool top) {
  std::vector<unsigned> cells(std::size_t{1} << bits);
  for (const std::uint32_t hash : hashes) {
    ++cells[top ? hash >> (32 - bits) : hash & ((1U << bits) - 1)];
  }
  const double expected = static_cast<double>(hashes.size()) / static_cast<double>(cells.size());
  double sum = 0;
  for (const unsigned cell : cells) {
    sum += (cell - expected) * (cell - expected) / expected;
  }
  return sum / static_cast<double>(cells.size());
}

void expectSpread(const char* what, const HashOf& hashOf) {
  SCOPED_TRACE(what);
  const struct {
    const char* name;
    std::function<std::uint64_t(std::uint64_t)> key;
  } patterns[] = {
      {"dense", [](std::uint64_t i) { return i; }},
      {"stride 64", [](std::uint64_t i) { return i * 64; }},
      {"stride 4096", [](std::uint64_t i) { return i * 4096; }},
      {"in the upper half", [](std::uint64_t i) { return i << 32; }},
      {"in the top bits", [](std::uint64_t i) { return i << 48; }},
      {"port and vlan", [](std::uint64_t i) { return (i / 4094) << 48 | (i % 4094) << 32; }},
      {"two packed fields", [](std::uint64_t i) { return (i & 0xff) << 40 | i >> 8; }},
  };
  for (const auto& pattern : patterns) {
    SCOPED_TRACE(pattern.name);
    std::vector<std::uint32_t> hashes;
    for (std::uint64_t i = 0; i < kKeys; ++i) {
      hashes.push_back(hashOf(pattern.key(i)));
    }
    for (const unsigned bits : {4U, 8U, 13U}) {
      EXPECT_LT(chiSquare(hashes, bits, true), 2.2) << bits << " top bits";
    }
    EXPECT_LT(chiSquare(hashes, 8, false), 2.2) << "low byte";
  }
}

// Share of output bits that flip with one input bit, worst over input and output bits.
void expectAvalanche(const char* what, unsigned inputBits, const HashOf& hashOf) {
  SCOPED_TRACE(what);
  for (unsigned input = 0; input < inputBits; ++input) {
    unsigned flips[32] = {};
    constexpr unsigned kTries = 4096;
    std::uint64_t key = 0x123456789abcdefULL;
    for (unsigned i = 0; i < kTries; ++i) {
      key = key * 6364136223846793005ULL + 1442695040888963407ULL;
      const std::uint64_t used = inputBits == 64 ? key : key >> (64 - inputBits);
      std::uint32_t changed = hashOf(used) ^ hashOf(used ^ 1ULL << input);
      for (; changed != 0; changed &= changed - 1) {
        ++flips[std::countr_zero(changed)];
      }
    }
    for (unsigned output = 0; output < 32; ++output) {
      EXPECT_NEAR(flips[output] / static_cast<double>(kTries), 0.5, 0.08)
          << "input bit " << input << ", output bit " << output;
    }
  }
}

const HashOf kSingle64 = [](std::uint64_t key) { return Brio::hashSingleAttr(0x1234567, key); };
const HashOf kSingle32 = [](std::uint64_t key) {
  return Brio::hashSingleAttr(0x1234567, static_cast<std::uint32_t>(key));
};
const HashOf kMix2 = [](std::uint64_t key) { return Brio::Hash::hashMix<2>(99, {5, key}); };
const HashOf kMix4 = [](std::uint64_t key) {
  return Brio::Hash::hashMix<4>(99, {key, 1, 2, key >> 3});
};
const HashOf kMix1 = [](std::uint64_t key) { return Brio::Hash::hashMix<1>(99, {key}); };

HashOf bytesWithKeyAt(std::size_t size, std::size_t offset) {
  return [=](std::uint64_t key) {
    std::vector<unsigned char> bytes(size);
    std::memcpy(bytes.data() + offset, &key, sizeof key);
    return Brio::Hash::hashBytes(7, bytes.data(), size);
  };
}

TEST(Hash, SpreadsTheKeysOfLifeOverTopBitsAndLowByte) {
  expectSpread("hashSingleAttr, 64 bits", kSingle64);
  expectSpread("hashMix<1>", kMix1);
  expectSpread("hashMix<2>", kMix2);
  expectSpread("hashMix<4>", kMix4);
  expectSpread("hashBytes, 8", bytesWithKeyAt(8, 0));
  expectSpread("hashBytes, 24", bytesWithKeyAt(24, 11));
  expectSpread("hashBytes, 544", bytesWithKeyAt(544, 340));
}

TEST(Hash, LetsEveryInputBitReachEveryOutputBit) {
  expectAvalanche("hashSingleAttr, 64 bits", 64, kSingle64);
  expectAvalanche("hashSingleAttr, 32 bits", 32, kSingle32);
  expectAvalanche("hashMix<1>", 64, kMix1);
  expectAvalanche("hashMix<2>", 64, kMix2);
  expectAvalanche("hashMix<4>", 64, kMix4);
  expectAvalanche("hashBytes, 16", 64, bytesWithKeyAt(16, 8));
  expectAvalanche("hashBytes, 40", 64, bytesWithKeyAt(40, 32));
  expectAvalanche("hashBytes, 544", 64, bytesWithKeyAt(544, 16));
}

TEST(Hash, DependsOnTheSeedAndOnTheLength) {
  const std::uint32_t key = 5;
  EXPECT_NE(Brio::hashSingleAttr(1, key), Brio::hashSingleAttr(2, key));
  const unsigned char zeros[64] = {};
  std::vector<std::uint32_t> seen;
  for (std::size_t size = 0; size <= sizeof zeros; ++size) {
    const std::uint32_t hash = Brio::Hash::hashBytes(1, zeros, size);
    for (const std::uint32_t other : seen) {
      EXPECT_NE(hash, other);
    }
    seen.push_back(hash);
  }
}

TEST(Hash, GivesAnEnumTheHashOfItsBytes) {
  enum class Unit : std::uint16_t { first = 1, second = 2 };
  EXPECT_NE(Brio::hashSingleAttr(1, Unit::first), Brio::hashSingleAttr(1, Unit::second));
  EXPECT_EQ(Brio::hashSingleAttr(1, Unit::second), Brio::hashSingleAttr(1, std::uint16_t{2}));
}

}  // namespace
