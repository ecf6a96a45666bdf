#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "BrioSharedMem/EntityManager.h"
#include "Lumen/Ptr.h"
#include "common/Intent.h"

namespace Demo {

// What is compared, and the first differences in words.
struct Comparison {
  std::uint64_t equal = 0;
  std::uint64_t different = 0;
  std::uint64_t missing = 0;  // expected only
  std::uint64_t surplus = 0;  // there only
  std::vector<std::string> examples;

  static constexpr std::size_t kMostExamples = 10;

  [[nodiscard]] bool same() const noexcept {
    return different == 0 && missing == 0 && surplus == 0;
  }
  void example(std::string text);
};

// What the tables have to hold after some intents: the last word on every key. It knows nothing of
// the agent, its library or its store.
class Expected {
 public:
  Expected();
  ~Expected();
  Expected(const Expected&) = delete;
  Expected& operator=(const Expected&) = delete;

  // Intents in the order in which they were asked for.
  void apply(const Common::Intent& intent);

  [[nodiscard]] std::uint64_t entries() const;
  // Compares with the entries on the chip, as kelp-chip writes them: keys, and what the entries
  // hold besides what resources resolve to. Throws std::runtime_error for a file that is none of
  // its.
  [[nodiscard]] Comparison compareChip(const std::string& modelFile) const;
  // Compares with the live records of the configuration collections: keys, payload and resource
  // keys.
  [[nodiscard]] Comparison compareCollections(const BrioSharedMem::EntityManager& memory) const;

 private:
  class TableState;
  template <class T>
  class TableStateOf;

  std::vector<std::unique_ptr<TableState>> tables_;  // by table number
};

}  // namespace Demo
