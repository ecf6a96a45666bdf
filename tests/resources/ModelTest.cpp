#include <algorithm>
#include <cstdlib>
#include <limits>
#include <map>
#include <random>
#include <set>
#include <tuple>
#include <utility>
#include <vector>

#include "ResourceFixture.h"

// Random operations on a resource table and on a model of who uses which index, compared after
// every step. KELP_RESOURCE_SEED=N repeats the run of a seed, KELP_RESOURCE_STEPS=N makes runs
// longer.

namespace {

using ResourceTest::AllResourceTables;
using ResourceTest::ResourceFixture;
using ResourceTest::ResourceTableName;
using State = Asic::EntryState;

std::uint64_t fromEnvironment(const char* name, std::uint64_t otherwise) {
  const char* text = std::getenv(name);
  return text == nullptr ? otherwise : std::strtoull(text, nullptr, 10);
}

template <class T>
class ResourceModel : public ResourceFixture<T> {
 protected:
  using Fixture = ResourceFixture<T>;
  using typename Fixture::Handle;
  using typename Fixture::Stage;

  static constexpr std::uint32_t kKeys = 9;
  static constexpr std::uint32_t kIndexes = 6;  // fewer than keys
  static constexpr std::uint64_t kOpen = std::numeric_limits<std::uint64_t>::max();

  // What one client has of one key. A client that holds a resource keeps its handle.
  struct Use {
    Handle handle;
    bool holds = false;
  };
  using IndexAndClient = std::pair<std::uint32_t, std::size_t>;

  // `orders`: keys are refused and prepared now and then.
  void run(bool orders) {
    const std::uint64_t seed = fromEnvironment("KELP_RESOURCE_SEED", std::random_device()());
    const std::uint64_t steps = fromEnvironment("KELP_RESOURCE_STEPS", 4000);
    random_.seed(seed);
    orders_ = orders;
    this->restart(kIndexes);
    for (std::uint64_t i = 0; i < steps && !this->HasFailure(); ++i) {
      SCOPED_TRACE(testing::Message() << "seed " << seed << ", step " << i);
      const bool worked = step();
      compare();
      if (worked && !orders) {
        expectNobodyWaitsForAFreeIndex();
      }
    }
    SCOPED_TRACE(testing::Message() << "seed " << seed << ", the end");
    if (!this->HasFailure()) {
      end();
    }
  }

 private:
  std::uint32_t pick(std::uint32_t below) { return static_cast<std::uint32_t>(random_() % below); }
  // 0: none.
  [[nodiscard]] std::uint32_t indexOf(std::uint32_t number) const {
    const auto had = index_.find(number);
    return had == index_.end() ? 0 : had->second;
  }
  Use& use(std::size_t client, std::uint32_t number) { return uses_[client][number - 1]; }

  // True if the table has been told to work.
  bool step() {
    const std::size_t client = pick(this->kClients);
    const std::uint32_t number = 1 + pick(kKeys);
    Use& one = use(client, number);
    switch (pick(orders_ ? 18 : 14)) {
      case 0:
      case 1:
      case 2:
        one.handle = this->request(client, number);
        break;
      case 3:
      case 4:
      case 5:
        if (one.handle && one.handle->entryState() == State::entryStateSuccess) {
          acknowledge(client, number);
        }
        break;
      case 6:
      case 7:
        if (one.handle) {
          letGo(client, number);
        }
        break;
      case 8:
        if (one.handle && !one.holds) {
          one.handle = nullptr;
        }
        break;
      case 9:
      case 10:
      case 11:
        // Anything that was published may be what has been taken in.
        reported_[client] += random_() % (this->published(client) - reported_[client] + 1);
        this->report(client, reported_[client]);
        takeReports();
        return true;
      case 12:
        change(1);
        break;
      case 13:
        if (pick(8) == 0) {
          anotherRun();
        }
        break;
      case 14:
        refused_.insert(number);
        this->table_->refusedIs(this->key(number), true);
        break;
      case 15:
        refused_.erase(number);
        this->table_->refusedIs(this->key(number), false);
        break;
      case 16:
        prepared_.insert(number);
        this->table_->prepareIs(this->key(number),
                                pick(2) == 0 ? Stage::preparing : Stage::confirming);
        break;
      default:
        prepared_.erase(number);
        this->table_->prepareIs(this->key(number), Stage::none);
    }
    return false;
  }

  void acknowledge(std::size_t client, std::uint32_t number) {
    Use& one = use(client, number);
    const bool entry = pick(4) != 0;
    one.holds = true;
    if (entry) {
      said(client, number, this->ack(client, one.handle));
    } else {
      this->clients_[client]->ackUpdate(one.handle, one.handle->updateVersion(), nullptr);
      said(client, number, 0);
    }
  }
  // With an entry, without one, or with one that has its version only later, or never.
  void letGo(std::size_t client, std::uint32_t number) {
    Use& one = use(client, number);
    const bool held = std::exchange(one.holds, false);
    const std::uint32_t index = indexOf(number);
    std::uint64_t version = 0;
    const std::uint32_t kind = pick(4);
    if (kind == 0) {
      this->clients_[client]->release(one.handle, nullptr);
    } else if (kind == 1) {
      const auto entry = this->unlogged(client);
      this->clients_[client]->release(one.handle, entry);
      EXPECT_TRUE(!held || index == 0 || this->released(client, index) == this->kNotYet);
      if (pick(2) == 0 || releases_.contains({index, client})) {
        version = this->logged(client)->entryTableVersion().version.value;
        entry->versionIs(version);
      } else {
        entry->entryStateIs(State::entryStateFailed);
      }
    } else {
      version = this->release(client, one.handle);
    }
    if (held) {
      if (index != 0 && version != 0) {
        std::uint64_t& until = releases_[{index, client}];
        until = std::max(until, version);
      }
      said(client, number, version);
    }
    if (kind == 1) {
      this->table_->work();
      takeReports();
    }
    if (pick(2) == 0) {
      one.handle = nullptr;
    }
  }
  // The client has said from when on it does without the old indexes of the key.
  void said(std::size_t client, std::uint32_t number, std::uint64_t version) {
    std::erase_if(replaced_, [&](const auto& one) {
      const auto& [of, index, who] = one.first;
      if (of != number || who != client) {
        return false;
      }
      releases_[{index, client}] = std::max(version, one.second);
      return true;
    });
  }
  void takeReports() {
    std::erase_if(releases_,
                  [&](const auto& one) { return one.second <= reported_[one.first.second]; });
  }
  // Indexes that can't be given out.
  [[nodiscard]] std::set<std::uint32_t> busy() const {
    std::set<std::uint32_t> all;
    for (const auto& [number, index] : index_) {
      all.insert(index);
    }
    for (const auto& [of, until] : releases_) {
      all.insert(of.first);
    }
    return all;
  }

  void change(std::uint32_t number) {
    const auto had = index_.find(number);
    const bool can = had != index_.end() && !refused_.contains(number) && busy().size() < kIndexes;
    ASSERT_EQ(this->table_->change(this->key(number)), can);
    if (!can) {
      return;
    }
    for (std::size_t client = 0; client < this->kClients; ++client) {
      if (use(client, number).holds) {
        releases_[{had->second, client}] = kOpen;
        replaced_[{number, had->second, client}] = this->published(client);
      }
    }
    ASSERT_NE(this->record(number)->index, had->second);
    index_.erase(had);
  }

  // The agent dies, and another one replays some of what was wanted.
  void anotherRun() {
    this->restart();
    refused_.clear();
    prepared_.clear();
    replaced_.clear();
    for (std::uint32_t number = 1; number <= kKeys; ++number) {
      for (std::size_t client = 0; client < this->kClients; ++client) {
        Use& one = use(client, number);
        one.handle = nullptr;
        bool acked = false;
        if (pick(4) != 0) {
          one.handle = this->request(client, number);
          if (const auto had = index_.find(number); had != index_.end()) {
            ASSERT_EQ(one.handle->entryState(), State::entryStateSuccess);
            ASSERT_EQ(this->index(one.handle), had->second);
          }
          takeNewIndexes();
          acked = one.handle->entryState() == State::entryStateSuccess && pick(4) != 0;
        }
        if (acked) {
          this->ack(client, one.handle);
        } else if (one.holds) {
          leftBehind_.push_back({indexOf(number), client});
        }
        one.holds = acked;
      }
    }
    for (const auto& [index, client] : std::exchange(leftBehind_, {})) {
      if (const std::uint64_t last = this->published(client); last != 0) {
        std::uint64_t& until = releases_[{index, client}];
        until = std::max(until, last);
      }
    }
    for (auto& [of, until] : releases_) {
      if (until == kOpen) {
        until = this->published(of.second);
      }
    }
    this->table_->replayComplete();
    takeReports();
  }

  // Which indexes keys have got that had none.
  void takeNewIndexes() {
    for (std::uint32_t number = 1; number <= kKeys; ++number) {
      const auto record = this->record(number);
      if (!record || record->index == 0 || index_.contains(number)) {
        continue;
      }
      EXPECT_FALSE(busy().contains(record->index))
          << "index " << record->index << " was given to key " << number << " too early";
      EXPECT_LE(record->index, kIndexes);
      index_[number] = record->index;
    }
  }
  [[nodiscard]] bool isWanted(std::uint32_t number) {
    for (std::size_t client = 0; client < this->kClients; ++client) {
      if (use(client, number).handle || use(client, number).holds) {
        return true;
      }
    }
    return false;
  }

  void compare() {
    // What nobody wants and the chip does not use is gone.
    std::erase_if(index_, [&](const auto& one) {
      const auto waiting = releases_.lower_bound({one.second, 0});
      const bool used = waiting != releases_.end() && waiting->first.first == one.second;
      return !used && !isWanted(one.first);
    });
    takeNewIndexes();
    unsigned known = 0;
    for (std::uint32_t number = 1; number <= kKeys; ++number) {
      const std::uint32_t index = indexOf(number);
      const auto record = this->record(number);
      EXPECT_EQ(record ? record->index : 0, index) << "key " << number;
      known += index != 0 || isWanted(number) ? 1 : 0;
      compareHandles(number, index);
    }
    EXPECT_EQ(this->table_->entrys(), known);
    EXPECT_EQ(this->table_->indexesTaken(), busy().size());
    EXPECT_EQ(this->table_->releases(), releases_.size());
    for (const auto& [of, until] : releases_) {
      EXPECT_EQ(this->released(of.second, of.first), until) << "index " << of.first;
    }
  }
  void compareHandles(std::uint32_t number, std::uint32_t index) {
    const Handle* first = nullptr;
    for (std::size_t client = 0; client < this->kClients; ++client) {
      const Use& one = use(client, number);
      EXPECT_EQ(this->acked(client, number).has_value(), one.holds);
      if (!one.handle) {
        continue;
      }
      EXPECT_EQ(this->index(one.handle), index) << "key " << number;
      const auto state = static_cast<unsigned>(one.handle->entryState());
      if (refused_.contains(number)) {
        EXPECT_EQ(state, 3U);
      } else if (index != 0) {
        EXPECT_EQ(state, 4U);
      } else if (prepared_.contains(number)) {
        EXPECT_LE(state, 1U);
      } else {
        EXPECT_EQ(state, 5U);
      }
      if (first != nullptr) {
        EXPECT_EQ((*first)->updateVersion(), one.handle->updateVersion());
        EXPECT_EQ((*first)->entryState(), one.handle->entryState());
      }
      first = &one.handle;
    }
  }

  void expectNobodyWaitsForAFreeIndex() {
    if (busy().size() == kIndexes) {
      return;
    }
    for (std::uint32_t number = 1; number <= kKeys; ++number) {
      EXPECT_TRUE(indexOf(number) != 0 || !isWanted(number)) << "key " << number;
    }
  }

  void end() {
    for (std::uint32_t number = 1; number <= kKeys; ++number) {
      for (std::size_t client = 0; client < this->kClients; ++client) {
        if (Use& one = use(client, number); one.handle) {
          this->release(client, one.handle);
          one.handle = nullptr;
        }
      }
    }
    this->reportAll();
    this->expectEmpty();
  }

  std::mt19937_64 random_;
  bool orders_ = false;
  std::array<std::array<Use, kKeys>, Fixture::kClients> uses_;
  std::map<std::uint32_t, std::uint32_t> index_;      // by key
  std::map<IndexAndClient, std::uint64_t> releases_;  // up to which version they wait
  // Key, index, client; and what the client had published then.
  std::map<std::tuple<std::uint32_t, std::uint32_t, std::size_t>, std::uint64_t> replaced_;
  std::vector<IndexAndClient> leftBehind_;
  std::array<std::uint64_t, Fixture::kClients> reported_{};
  std::set<std::uint32_t> refused_;
  std::set<std::uint32_t> prepared_;
};
TYPED_TEST_SUITE(ResourceModel, AllResourceTables, ResourceTableName);

TYPED_TEST(ResourceModel, NoIndexIsGivenTwiceNorBeforeItsReleaseIsReported) { this->run(false); }

TYPED_TEST(ResourceModel, AlsoWhileKeysAreRefusedAndPrepared) { this->run(true); }

}  // namespace
