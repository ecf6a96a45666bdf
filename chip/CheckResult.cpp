#include "chip/CheckResult.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <utility>

namespace Chip {

bool TableCheck::same() const noexcept {
  return reached == published &&
         std::all_of(units.begin(), units.end(), [](const UnitCheck& unit) { return unit.same(); });
}

void TableCheck::example(std::string text) {
  if (examples.size() < kMostExamples) {
    examples.push_back(std::move(text));
  }
}

bool CheckResult::same() const noexcept {
  return std::any_of(tables.begin(), tables.end(),
                     [](const TableCheck& table) { return table.open; }) &&
         std::all_of(tables.begin(), tables.end(),
                     [](const TableCheck& table) { return table.same(); });
}

std::string CheckResult::text() const {
  std::string out;
  const auto line = [&](auto&&... values) {
    fmt::format_to(std::back_inserter(out),
                   "{:<14} {:>5} {:>11} {:>9} {:>9} {:>9} {:>9} {:>9}  {}\n", values...);
  };
  line("table", "unit", "collection", "on chip", "equal", "different", "missing", "surplus", "");
  std::uint64_t equal = 0;
  std::uint64_t off = 0;
  for (const TableCheck& table : tables) {
    for (const UnitCheck& unit : table.units) {
      line(table.table, unit.unit.value, unit.inCollection, unit.onChip, unit.equal, unit.different,
           unit.missing, unit.surplus, unit.readable ? "" : "collection damaged");
      equal += unit.equal;
      off += unit.different + unit.missing + unit.surplus;
    }
  }
  for (const TableCheck& table : tables) {
    if (table.reached != table.published) {
      fmt::format_to(std::back_inserter(out), "{}: version {} is published, {} is reached\n",
                     table.table, table.published, table.reached);
    }
    for (const std::string& example : table.examples) {
      fmt::format_to(std::back_inserter(out), "{}: {}\n", table.table, example);
    }
  }
  if (std::none_of(tables.begin(), tables.end(),
                   [](const TableCheck& table) { return table.open; })) {
    return out + "check: THERE IS NO LOG OF ANY TABLE, and nothing to compare\n";
  }
  fmt::format_to(std::back_inserter(out), "check: {}, {} entries are equal, {} are not\n",
                 same() ? "the chip equals the configuration collections"
                        : "THE CHIP DIFFERS FROM THE CONFIGURATION COLLECTIONS",
                 equal, off);
  return out;
}

}  // namespace Chip
