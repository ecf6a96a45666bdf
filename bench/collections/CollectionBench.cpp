// The keyed collection against absl::flat_hash_map and std::unordered_map: maps from a 4-byte and
// from a 544-byte key to 8 bytes, with 100 and with 65,536 members.
//
// Every peer does the same work on the same keys in the same order. Rounds go over all peers in
// turn and each time is the least of all rounds, so that a disturbance hits no peer alone. Ratios
// are those of one run. Peers come twice: with the collection's own hash function, and with the
// hash that they use when left alone.

#include <absl/container/flat_hash_map.h>
#include <absl/hash/hash.h>
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <compare>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "Brio/HashMap2018.h"

namespace {

using SmallKey = std::uint32_t;

struct LargeKey {
  std::array<std::uint64_t, 68> words{};

  [[nodiscard]] std::uint32_t hash(std::uint32_t seed) const noexcept {
    return Brio::Hash::hashBytes(seed, words.data(), sizeof words);
  }
  [[nodiscard]] bool isEq(const LargeKey& other) const noexcept {
    return std::memcmp(words.data(), other.words.data(), sizeof words) == 0;
  }
  friend bool operator==(const LargeKey& a, const LargeKey& b) noexcept { return a.isEq(b); }
  friend auto operator<=>(const LargeKey& a, const LargeKey& b) noexcept {
    return a.words <=> b.words;
  }
  template <class H>
  friend H AbslHashValue(H state, const LargeKey& key) {
    return H::combine_contiguous(std::move(state), key.words.data(), key.words.size());
  }
};
static_assert(sizeof(LargeKey) == 544);

constexpr std::uint32_t kSalt = 1653092364;

struct SameHash {
  template <class Key>
  std::size_t operator()(const Key& key) const noexcept {
    return Brio::HashHelper::keyHash(Brio::HashHelper::hashSeed32() ^ kSalt, key);
  }
};
struct OwnStdHash {
  std::size_t operator()(SmallKey key) const noexcept { return std::hash<SmallKey>{}(key); }
  std::size_t operator()(const LargeKey& key) const noexcept {
    return std::hash<std::string_view>{}(
        {reinterpret_cast<const char*>(key.words.data()), sizeof key.words});
  }
};

template <class Key>
struct HN_Bench : Brio::Hm2018NE<kSalt, Key, std::uint64_t, 1> {
  using Brio::Hm2018NE<kSalt, Key, std::uint64_t, 1>::Hm2018NE;
};

template <class Key>
struct Collection {
  Brio::HashMap2018<HN_Bench<Key>> map;

  const std::uint64_t* find(const Key& key) const {
    const auto* node = map.find(map.hashed(key));
    return node == nullptr ? nullptr : &node->value();
  }
  void insert(const Key& key, std::uint64_t value) {
    const auto arg = map.hashed(key);
    if (map.find(arg) == nullptr) {
      map.emplaceMember(arg, key, value);
    }
  }
  void erase(const Key& key) { map.del(map.hashed(key), nullptr); }
  std::uint64_t walk() const {
    std::uint64_t sum = 0;
    for (const auto& node : map) {
      sum += node.value();
    }
    return sum;
  }
};

template <class Map>
struct Peer {
  Map map;

  template <class Key>
  const std::uint64_t* find(const Key& key) const {
    const auto found = map.find(key);
    return found == map.end() ? nullptr : &found->second;
  }
  template <class Key>
  void insert(const Key& key, std::uint64_t value) {
    map.try_emplace(key, value);
  }
  template <class Key>
  void erase(const Key& key) {
    map.erase(key);
  }
  std::uint64_t walk() const {
    std::uint64_t sum = 0;
    for (const auto& [key, value] : map) {
      sum += value;
    }
    return sum;
  }
};

template <class Key>
struct Workload {
  std::vector<Key> members;
  std::vector<Key> others;
  std::vector<std::uint32_t> order;    // of lookups
  std::vector<std::uint32_t> shuffle;  // of erasures
};

SmallKey makeKey(std::uint64_t random, SmallKey*) { return static_cast<SmallKey>(random); }
LargeKey makeKey(std::uint64_t random, LargeKey*) {
  // As such a key is in life: alike in all but a few places.
  LargeKey key;
  key.words[3] = random;
  key.words[40] = random >> 7;
  return key;
}

template <class Key>
Workload<Key> makeWorkload(unsigned members) {
  std::mt19937_64 random(members);
  Workload<Key> load;
  // Odd multiples are all different in their low 32 bits; members are even, others are odd.
  const std::uint64_t step = random() | 1;
  for (unsigned i = 0; i < members; ++i) {
    load.members.push_back(makeKey(2 * i * step, static_cast<Key*>(nullptr)));
    load.others.push_back(makeKey((2 * i + 1) * step, static_cast<Key*>(nullptr)));
  }
  load.order.resize(std::max(members, 8192U));
  for (auto& index : load.order) {
    index = static_cast<std::uint32_t>(random() % members);
  }
  load.shuffle.resize(members);
  std::iota(load.shuffle.begin(), load.shuffle.end(), 0U);
  std::shuffle(load.shuffle.begin(), load.shuffle.end(), random);
  return load;
}

constexpr unsigned kOperations = 6;
constexpr std::array<const char*, kOperations> kNames = {"hit",    "miss", "insert",
                                                         "delete", "walk", "churn"};
using Times = std::array<double, kOperations>;

std::uint64_t sink = 0;

template <class Work>
double nanoseconds(Work&& work, std::size_t operations) {
  const auto begin = std::chrono::steady_clock::now();
  work();
  const auto end = std::chrono::steady_clock::now();
  return std::chrono::duration<double, std::nano>(end - begin).count() /
         static_cast<double>(operations);
}

// One round of one peer, into the least times so far.
template <class Map, class Key>
void round(const Workload<Key>& load, Times& least) {
  const std::size_t members = load.members.size();
  const std::size_t copies = std::max<std::size_t>(1, 6400 / members);
  std::vector<std::unique_ptr<Map>> maps;
  for (std::size_t i = 0; i < copies; ++i) {
    maps.push_back(std::make_unique<Map>());
  }
  Times times{};
  times[2] = nanoseconds(
      [&] {
        for (auto& map : maps) {
          for (std::size_t i = 0; i < members; ++i) {
            map->insert(load.members[i], i);
          }
        }
      },
      copies * members);
  const Map& first = *maps[0];
  const auto lookups = [&](const std::vector<Key>& keys) {
    return nanoseconds(
        [&] {
          for (const std::uint32_t index : load.order) {
            const std::uint64_t* value = first.find(keys[index]);
            sink += value == nullptr ? 1 : *value;
          }
        },
        load.order.size());
  };
  lookups(load.members);  // warms what the inserts have left behind
  times[0] = lookups(load.members);
  times[1] = lookups(load.others);
  times[4] = nanoseconds(
      [&] {
        for (auto& map : maps) {
          sink += map->walk();
        }
      },
      copies * members);
  times[5] = nanoseconds(
      [&] {
        for (auto& map : maps) {
          for (const std::uint32_t index : load.shuffle) {
            map->erase(load.members[index]);
            map->insert(load.members[index], index);
          }
        }
      },
      copies * members);
  times[3] = nanoseconds(
      [&] {
        for (auto& map : maps) {
          for (const std::uint32_t index : load.shuffle) {
            map->erase(load.members[index]);
          }
        }
      },
      copies * members);
  for (unsigned i = 0; i < kOperations; ++i) {
    least[i] = least[i] == 0 ? times[i] : std::min(least[i], times[i]);
  }
}

template <class Key>
void compare(const char* keyName, unsigned members, unsigned rounds) {
  const Workload<Key> load = makeWorkload<Key>(members);
  Times ours{}, abslSame{}, abslOwn{}, stdSame{}, stdOwn{};
  for (unsigned i = 0; i < rounds; ++i) {
    round<Collection<Key>>(load, ours);
    round<Peer<absl::flat_hash_map<Key, std::uint64_t, SameHash>>>(load, abslSame);
    round<Peer<absl::flat_hash_map<Key, std::uint64_t>>>(load, abslOwn);
    round<Peer<std::unordered_map<Key, std::uint64_t, SameHash>>>(load, stdSame);
    round<Peer<std::unordered_map<Key, std::uint64_t, OwnStdHash>>>(load, stdOwn);
  }
  Collection<Key> full;
  for (const Key& key : load.members) {
    full.insert(key, 0);
  }
  const double perMember = sizeof(HN_Bench<Key>) + sizeof(std::uint32_t);
  const double bytes = full.map.slotCount() * perMember +
                       full.map.generic().directorySize() * sizeof(Brio::HashMap2018DirectoryEntry);
  fmt::print("{} keys, {} members; {:.2f} times the bytes of nodes and hashes\n", keyName, members,
             bytes / (perMember * members));
  fmt::print("{:8} {:>9} | {:>9} {:>9} {:>9} {:>9} | ratio to {:>6} {:>6} {:>6} {:>6}\n", "",
             "ours ns", "absl", "absl own", "std", "std own", "absl", "a.own", "std", "s.own");
  for (unsigned i = 0; i < kOperations; ++i) {
    fmt::print(
        "{:8} {:9.2f} | {:9.2f} {:9.2f} {:9.2f} {:9.2f} |          {:6.2f} {:6.2f} {:6.2f} "
        "{:6.2f}\n",
        kNames[i], ours[i], abslSame[i], abslOwn[i], stdSame[i], stdOwn[i], ours[i] / abslSame[i],
        ours[i] / abslOwn[i], ours[i] / stdSame[i], ours[i] / stdOwn[i]);
  }
  fmt::print("\n");
}

}  // namespace

// collection_bench [ROUNDS]
int main(int argc, char** argv) {
  const unsigned rounds = argc > 1 ? static_cast<unsigned>(std::atoi(argv[1])) : 25;
  compare<SmallKey>("4-byte", 100, 8 * rounds);
  compare<SmallKey>("4-byte", 65536, rounds);
  compare<LargeKey>("544-byte", 100, 2 * rounds);
  compare<LargeKey>("544-byte", 65536, std::max(3U, rounds / 4));
  return sink == 42 ? 1 : 0;
}
