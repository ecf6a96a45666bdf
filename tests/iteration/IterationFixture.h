#pragma once

#include <gmock/gmock.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Brio/Log.h"
#include "FlipByte.h"
#include "Quilt/IterHint.h"
#include "TableTest.h"

namespace TestSupport {

// Walks over a table, step by step. Entries are told by the number of their key.
template <class T>
class IterationFixture : public TableTest<T> {
 public:
  using Fixture = TableTest<T>;
  using typename Fixture::Entry;
  using typename Fixture::Key;
  using typename Fixture::Table;
  using IteratorState = typename Table::IteratorState;
  using State = typename Table::Base::IteratorState::State;
  using Numbers = std::vector<std::uint64_t>;
  static constexpr std::uint64_t kNumbers = 400;
  // What stands for an entry that is none of the samples.
  static constexpr std::uint64_t kNone = kNumbers;

  // The bits of the state byte, by their values.
  static constexpr unsigned kValid = 1;
  static constexpr unsigned kInAddColl = 2;
  static constexpr unsigned kInTblCfg = 4;
  static constexpr unsigned kSkipTblCfg = 8;
  static constexpr unsigned kHasBookmark = 16;

 protected:
  static std::uint64_t numberOf(const Key& key) {
    static const auto numbers = [] {
      std::map<std::string, std::uint64_t> all;
      for (std::uint64_t i = 0; i < kNumbers; ++i) {
        all.emplace(fmt::format("{}", Fixture::key(i)), i);
      }
      return all;
    }();
    const auto found = numbers.find(fmt::format("{}", key));
    return found == numbers.end() ? kNone : found->second;
  }
  static std::uint64_t numberOf(const Entry& entry) { return numberOf(entry.logEntry.key); }
  static bool isDefault(const Entry& entry) { return entry.isEq(Entry()); }

  // A state at the beginning, or at a key, with nothing fetched.
  static Lumen::Ptr<IteratorState> begin(const Lumen::Ptr<Table>& table) {
    return Lumen::staticPtrCast<IteratorState>(table->initIterState());
  }
  static Lumen::Ptr<IteratorState> begin(const Lumen::Ptr<Table>& table, std::uint64_t number) {
    return Lumen::staticPtrCast<IteratorState>(table->initIterStateFromKey(Fixture::key(number)));
  }
  static unsigned bits(const Lumen::Ptr<IteratorState>& state) { return state->state().bits(); }
  // One step; the number of the entry that it shows.
  static std::optional<std::uint64_t> step(const Lumen::Ptr<IteratorState>& state) {
    const Entry entry = state->maybeUpdateCurrentEntry();
    EXPECT_EQ(state->state().valid(), !isDefault(entry));
    return state->state().valid() ? std::optional(numberOf(entry)) : std::nullopt;
  }
  // What is left of a walk.
  static Numbers rest(const Lumen::Ptr<IteratorState>& state) {
    Numbers numbers;
    while (const auto number = step(state)) {
      numbers.push_back(*number);
    }
    return numbers;
  }
  static Numbers shown(const Lumen::Ptr<Table>& table) { return rest(begin(table)); }
  static Numbers shownFrom(const Lumen::Ptr<Table>& table, std::uint64_t number) {
    return rest(begin(table, number));
  }

  // The writes in flight, in the order of their collection.
  static Numbers inFlight(const Lumen::Ptr<Table>& table) {
    Numbers numbers;
    for (const auto& node : table->transientAddEntry()) {
      numbers.push_back(numberOf(node.key()));
    }
    return numbers;
  }
  auto& records(Asic::UnitId unit = Fixture::unit0) {
    return this->log()->tableConfigQuilt(unit)->swTableEntries();
  }
  // The records of the configuration collection, deleted or not, in its order.
  Numbers recordsInOrder(Asic::UnitId unit = Fixture::unit0) {
    Numbers numbers;
    typename Fixture::Log::ConfigRecord record;
    Quilt::IterHint hint;
    for (bool more = records(unit).first(record, hint); more;
         more = records(unit).next(record.quiltKey(), record, hint)) {
      numbers.push_back(numberOf(record.quiltKey()));
    }
    return numbers;
  }
  // Those that follow the key, which need not be there.
  Numbers recordsAfter(std::uint64_t number) {
    Numbers numbers;
    typename Fixture::Log::ConfigRecord record;
    Quilt::IterHint hint;
    for (bool more = records().next(Fixture::key(number), record, hint); more;
         more = records().next(record.quiltKey(), record, hint)) {
      numbers.push_back(numberOf(record.quiltKey()));
    }
    return numbers;
  }
  Numbers recordsFrom(std::uint64_t number) {
    Numbers numbers = recordsAfter(number);
    numbers.insert(numbers.begin(), number);
    return numbers;
  }
  // Commits the numbers `from` to `to` - 1.
  void commitAll(const Lumen::Ptr<Table>& table, std::uint64_t from, std::uint64_t to,
                 std::uint64_t variant = 0) {
    for (std::uint64_t i = from; i < to; ++i) {
      this->write(table, i, variant);
    }
    this->pass();
  }
  // Makes the record of a key unreadable.
  void garble(std::uint64_t number) {
    bool found = false;
    const auto& record = records().find(Fixture::key(number), found);
    ASSERT_TRUE(found);
    flipByte(this->root_.path(), records(), &record.version);
  }
};

// Takes the log messages for its life.
class QuietLog {
 public:
  QuietLog() {
    previous_ = Brio::logSinkIs(
        [this](const Brio::LogRecord& record) { texts_.emplace_back(record.text); });
  }
  ~QuietLog() { Brio::logSinkIs(previous_); }
  QuietLog(const QuietLog&) = delete;
  QuietLog& operator=(const QuietLog&) = delete;

  [[nodiscard]] const std::vector<std::string>& texts() const noexcept { return texts_; }

 private:
  std::vector<std::string> texts_;
  Brio::LogSink previous_;
};

// What follows the first `count` of `numbers`.
inline std::vector<std::uint64_t> without(const std::vector<std::uint64_t>& numbers,
                                          std::size_t count) {
  return {numbers.begin() + static_cast<std::ptrdiff_t>(count), numbers.end()};
}
// `a`, then `b`.
inline std::vector<std::uint64_t> joined(std::vector<std::uint64_t> a,
                                         const std::vector<std::uint64_t>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

}  // namespace TestSupport
