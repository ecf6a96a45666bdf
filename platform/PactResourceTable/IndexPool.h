#pragma once

#include <cstdint>
#include <vector>

namespace PactResourceTable {

// Which of the numbers 1 to `limit` are given out. 0 stands for none.
class IndexPool {
 public:
  explicit IndexPool(std::uint32_t limit);

  // A number that is free, which is taken then; 0 if there is none. Numbers that have been given
  // back are taken again as late as possible.
  [[nodiscard]] std::uint32_t take();
  // Takes this one; false if it is taken, or there is no such number.
  bool takeThis(std::uint32_t index);
  // Gives a number back that is taken.
  void give(std::uint32_t index);

  [[nodiscard]] bool isTaken(std::uint32_t index) const;
  [[nodiscard]] std::uint32_t taken() const noexcept { return taken_; }
  [[nodiscard]] std::uint32_t limit() const noexcept { return limit_; }

 private:
  std::uint32_t limit_;
  std::uint32_t taken_ = 0;
  std::uint32_t next_ = 0;           // where the search begins, counted from 0
  std::vector<std::uint64_t> bits_;  // set: taken, or beyond the limit
};

}  // namespace PactResourceTable
