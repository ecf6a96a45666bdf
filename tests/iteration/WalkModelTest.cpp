#include <cstdlib>
#include <random>
#include <set>

#include "IterationFixture.h"

// Random changes between the steps of random walks, against a list of what was ever there.
// KELP_WALK_SEED=N repeats the run of a seed, KELP_WALK_STEPS=N makes runs longer.

namespace {

std::uint64_t setting(const char* name, std::uint64_t otherwise) {
  const char* text = std::getenv(name);
  return text == nullptr ? otherwise : std::strtoull(text, nullptr, 10);
}

template <class T>
class WalkModel : public TestSupport::IterationFixture<T> {
 public:
  using Fixture = TestSupport::IterationFixture<T>;
  using typename Fixture::Entry;
  using typename Fixture::Table;
  static constexpr std::uint64_t kKeys = 60;
  static constexpr std::uint64_t kVariants = 4;

 protected:
  std::uint64_t random(std::uint64_t below) { return random_() % below; }

  // A change of any kind. Notes each key and variant that was ever accepted.
  void change(const Lumen::Ptr<Table>& table) {
    const std::uint64_t number = random(kKeys);
    switch (random(16)) {
      case 0:
      case 1:
        this->pass();
        touched_.insert(inFlight_.begin(), inFlight_.end());
        inFlight_.clear();
        break;
      case 2:
        this->report(this->tableVersion());
        break;
      case 3:
        if (random(8) == 0) {
          table->entryRemoveAll(nullptr);
          for (std::uint64_t i = 0; i < kKeys; ++i) {
            touched_.insert(i);
          }
        }
        break;
      case 4:
      case 5:
      case 6:
      case 7:
        touch(number);
        this->remove(table, number);
        break;
      default: {
        const std::uint64_t variant = random(kVariants);
        touch(number);
        written_.insert({number, variant});
        this->write(table, number, variant);
      }
    }
  }
  void touch(std::uint64_t number) {
    touched_.insert(number);
    inFlight_.insert(number);
  }

  // True if the entry is one that was written once, whole.
  bool everWritten(const Entry& entry) {
    const std::uint64_t number = this->numberOf(entry);
    for (std::uint64_t variant = 0; variant < kVariants; ++variant) {
      if (written_.contains({number, variant}) &&
          TestSupport::isAsked(entry, this->entry(number, variant))) {
        return true;
      }
    }
    return false;
  }

  // On a table that does not change, each key of the reader's view comes once.
  void compareWithReads(const Lumen::Ptr<Table>& table) {
    std::map<std::uint64_t, int> times;
    for (const auto& entry : table->entries()) {
      ++times[this->numberOf(entry)];
      ASSERT_TRUE(entry.isEq(table->entryRead(entry.logEntry.key)));
    }
    for (std::uint64_t i = 0; i < this->kNumbers; ++i) {
      ASSERT_EQ(times[i], table->entryHas(this->key(i)) ? 1 : 0) << "key " << i;
    }
  }

  // One walk with changes between its steps.
  void walk(const Lumen::Ptr<Table>& table) {
    touched_ = inFlight_;
    std::map<std::uint64_t, int> times;
    auto state = random(3) == 0 ? this->begin(table, random(kKeys)) : this->begin(table);
    const std::uint64_t mostChanges = random(4);
    // A walk that is not disturbed any more has an end; one that is, may go on for long.
    for (std::uint64_t step = 0;; ++step) {
      ASSERT_LT(step, 1000U + 2 * kKeys) << "the walk has no end";
      for (std::uint64_t i = step < 1000 && mostChanges != 0 ? random(mostChanges + 1) : 0; i > 0;
           --i) {
        change(table);
      }
      const Entry entry = state->maybeUpdateCurrentEntry();
      ASSERT_FALSE(state->state().inAddColl() && state->state().inTblCfg());
      if (!state->state().valid()) {
        ASSERT_TRUE(this->isDefault(entry));
        break;
      }
      ASSERT_TRUE(everWritten(entry)) << fmt::format("{}", entry.logEntry.key);
      ++times[this->numberOf(entry)];
      ++shown_;
    }
    ASSERT_TRUE(this->isDefault(state->maybeUpdateCurrentEntry()));
    for (const auto& [number, count] : times) {
      ASSERT_TRUE(count == 1 || touched_.contains(number))
          << "key " << number << " was left alone and shown " << count << " times";
    }
  }

  std::mt19937_64 random_;
  std::set<std::pair<std::uint64_t, std::uint64_t>> written_;
  std::set<std::uint64_t> touched_;   // in this walk
  std::set<std::uint64_t> inFlight_;  // what the next commit moves
  std::uint64_t shown_ = 0;
};
TYPED_TEST_SUITE(WalkModel, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(WalkModel, NoWalkShowsWhatWasNeverThereOrTouchesWhatIsGone) {
  const std::uint64_t seed = setting("KELP_WALK_SEED", 0x5eed0 + TypeParam::tableId.tblId());
  SCOPED_TRACE(fmt::format("KELP_WALK_SEED={}", seed));
  this->random_.seed(seed);
  const auto table = this->table();
  const std::uint64_t walks = setting("KELP_WALK_STEPS", 250);
  for (std::uint64_t i = 0; i < walks; ++i) {
    SCOPED_TRACE(fmt::format("walk {}", i));
    this->walk(table);
    this->compareWithReads(table);
    if (this->HasFatalFailure()) {
      return;
    }
  }
  EXPECT_GT(this->shown_, walks) << "the walks had something to show";
}

}  // namespace
