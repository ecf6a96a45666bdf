#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "Asic/UnitId.h"

namespace Chip {

// How the model of one unit of a table compares with the unit's configuration collection: live
// records there, entries here, by key and then by the part of the entry that goes to the log.
struct UnitCheck {
  Asic::UnitId unit;
  std::uint64_t inCollection = 0;
  std::uint64_t onChip = 0;
  std::uint64_t equal = 0;
  std::uint64_t different = 0;  // the same key with another content
  std::uint64_t missing = 0;    // in the collection only
  std::uint64_t surplus = 0;    // on the chip only
  bool readable = true;         // the collection could be read to its end

  [[nodiscard]] bool same() const noexcept {
    return readable && different == 0 && missing == 0 && surplus == 0;
  }
};

struct TableCheck {
  static constexpr std::size_t kMostExamples = 10;

  std::string_view table;
  bool open = false;  // there is a log
  std::uint64_t published = 0;
  std::uint64_t reached = 0;
  std::vector<UnitCheck> units;
  std::vector<std::string> examples;  // the first differences, in words

  [[nodiscard]] bool same() const noexcept;
  void example(std::string text);
};

// Of all tables.
struct CheckResult {
  std::vector<TableCheck> tables;

  // The model has everything that is published, and nothing else; and there is anything to compare,
  // so that a wrong name of the system is no success.
  [[nodiscard]] bool same() const noexcept;
  // A table with a line for each table and unit, then where they differ, then the verdict.
  [[nodiscard]] std::string text() const;
};

}  // namespace Chip
