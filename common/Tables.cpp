#include "common/Tables.h"

#include "Lumen/Assert.h"

namespace Common {

const std::vector<std::string_view>& tableNames() {
  static const std::vector<std::string_view> names = [] {
    std::vector<std::string_view> all;
    KelpEmServer::AllTables::forEach(
        [&](auto tag) { all.push_back(decltype(tag)::Table::name.view()); });
    return all;
  }();
  return names;
}

std::optional<std::size_t> findTable(std::string_view name) {
  for (std::size_t i = 0; i < kTables; ++i) {
    if (tableNames()[i] == name) {
      return i;
    }
  }
  return std::nullopt;
}

std::string_view tableName(std::size_t number) {
  Lumen::assertThat(number < kTables, "number < kTables");
  return tableNames()[number];
}

Asic::SwTableId tableId(std::size_t number) {
  Lumen::assertThat(number < kTables, "number < kTables");
  Asic::SwTableId id;
  withTable(number, [&](auto tag) { id = decltype(tag)::Table::tableId; });
  return id;
}

}  // namespace Common
