#pragma once

#include <cstddef>
#include <iterator>
#include <ranges>
#include <utility>

namespace KelpTunnelNiLib {

// The reader's view of a table as a range:
//
//   for (const auto& entry : table.entries()) ...
//
// Each begin() starts a walk of its own, with the guarantees of SwTableBase's iterator, on which it
// stands: on a table that does not change, every key of the reader's view comes once, in no order
// that a caller may count on; a table that changes meanwhile, in whatever way, makes a walk show
// more or less, but never harms it. The walk's state is all that is allocated, once per begin().
// The table must outlive the walk; the range itself need not.
template <class SwTable>
class EntryRange {
 public:
  // For one pass, and moved only: copies of a position would share one walk. The reference that it
  // yields is good until the next step. A step or a dereference at the end asserts "iter_".
  class Iterator {
   public:
    using Entry = typename SwTable::Entry;
    using iterator_concept = std::input_iterator_tag;
    using value_type = Entry;
    using difference_type = std::ptrdiff_t;

    explicit Iterator(typename SwTable::EntryIteratorConst at) : at_(std::move(at)) {}
    Iterator(Iterator&&) noexcept = default;
    Iterator& operator=(Iterator&&) noexcept = default;
    Iterator(const Iterator&) = delete;
    Iterator& operator=(const Iterator&) = delete;
    ~Iterator() = default;

    const Entry& operator*() const noexcept { return *at_; }
    const Entry* operator->() const noexcept { return &*at_; }
    Iterator& operator++() {
      ++at_;
      return *this;
    }
    void operator++(int) { ++at_; }
    friend bool operator==(const Iterator& at, std::default_sentinel_t) noexcept { return !at.at_; }

   private:
    typename SwTable::EntryIteratorConst at_;
  };

  explicit EntryRange(const SwTable& swTable) noexcept : swTable_(&swTable) {}

  // At the first entry, which it fetches.
  [[nodiscard]] Iterator begin() const { return Iterator(swTable_->entryIteratorConst()); }
  [[nodiscard]] std::default_sentinel_t end() const noexcept { return {}; }

 private:
  const SwTable* swTable_;
};

}  // namespace KelpTunnelNiLib

template <class SwTable>
inline constexpr bool std::ranges::enable_borrowed_range<KelpTunnelNiLib::EntryRange<SwTable>> =
    true;
