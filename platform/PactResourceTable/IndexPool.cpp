#include "PactResourceTable/IndexPool.h"

#include <bit>

#include "Lumen/Assert.h"

namespace PactResourceTable {
namespace {

constexpr std::uint32_t kBits = 64;

}  // namespace

IndexPool::IndexPool(std::uint32_t limit)
    : limit_(limit), bits_((std::uint64_t{limit} + kBits - 1) / kBits) {
  if (limit % kBits != 0) {
    bits_.back() = ~std::uint64_t{0} << limit % kBits;
  }
}

std::uint32_t IndexPool::take() {
  if (taken_ == limit_) {
    return 0;
  }
  // From `next_` round to where it has begun: the first word counts twice, for its two ends.
  std::uint64_t mask = ~std::uint64_t{0} << next_ % kBits;
  for (std::size_t word = next_ / kBits;; word = (word + 1) % bits_.size()) {
    if (const std::uint64_t free = ~bits_[word] & mask; free != 0) {
      const auto at =
          static_cast<std::uint32_t>(word * kBits + static_cast<unsigned>(std::countr_zero(free)));
      bits_[word] |= std::uint64_t{1} << at % kBits;
      ++taken_;
      next_ = at + 1 == limit_ ? 0 : at + 1;
      return at + 1;
    }
    mask = ~std::uint64_t{0};
  }
}

bool IndexPool::takeThis(std::uint32_t index) {
  if (index == 0 || index > limit_ || isTaken(index)) {
    return false;
  }
  bits_[(index - 1) / kBits] |= std::uint64_t{1} << (index - 1) % kBits;
  ++taken_;
  return true;
}

void IndexPool::give(std::uint32_t index) {
  Lumen::assertThat(isTaken(index), "isTaken( index )");
  bits_[(index - 1) / kBits] &= ~(std::uint64_t{1} << (index - 1) % kBits);
  --taken_;
}

bool IndexPool::isTaken(std::uint32_t index) const {
  Lumen::assertThat(index >= 1 && index <= limit_, "index >= 1 && index <= limit_");
  return (bits_[(index - 1) / kBits] >> (index - 1) % kBits & 1) != 0;
}

}  // namespace PactResourceTable
