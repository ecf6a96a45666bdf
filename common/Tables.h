#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>
#include <vector>

#include "Asic/SwTableId.h"
#include "KelpEmServer/TableCatalogue.h"

// The tables of the catalogue by name, and keys and entries of any of them. A value carries its
// table: std::visit gives `auto& one`, with `typename std::decay_t<decltype(one)>::Table`.

namespace Common {

template <KelpEmServer::TableSpec T>
struct KeyOf {
  using Table = T;
  typename T::Entry::Key key{};

  friend bool operator==(const KeyOf&, const KeyOf&) = default;
};
template <KelpEmServer::TableSpec T>
struct EntryOf {
  using Table = T;
  typename T::Entry entry;  // its key is entry.logEntry.key
};

namespace Impl {

template <KelpEmServer::TableSpec... Tables>
std::variant<KeyOf<Tables>...> anyKey(KelpEmServer::TableList<Tables...>);
template <KelpEmServer::TableSpec... Tables>
std::variant<EntryOf<Tables>...> anyEntry(KelpEmServer::TableList<Tables...>);

}  // namespace Impl

// The index of the variant is the table's number: its position in KelpEmServer::AllTables.
using AnyKey = decltype(Impl::anyKey(KelpEmServer::AllTables()));
using AnyEntry = decltype(Impl::anyEntry(KelpEmServer::AllTables()));

inline constexpr std::size_t kTables = KelpEmServer::AllTables::size();

// The number of T.
template <KelpEmServer::TableSpec T>
[[nodiscard]] constexpr std::size_t tableNumber() {
  std::size_t number = 0;
  std::size_t at = 0;
  KelpEmServer::AllTables::forEach([&](auto tag) {
    number = std::is_same_v<typename decltype(tag)::Table, T> ? at : number;
    ++at;
  });
  return number;
}

// All names, by number.
[[nodiscard]] const std::vector<std::string_view>& tableNames();
// The number of the table of this name, such as "Isem1Tag".
[[nodiscard]] std::optional<std::size_t> findTable(std::string_view name);
// Both assert that there is such a table.
[[nodiscard]] std::string_view tableName(std::size_t number);
[[nodiscard]] Asic::SwTableId tableId(std::size_t number);

// Calls `visit` with the TypeTag of the table of this number. Asserts that there is one.
template <class Visit>
void withTable(std::size_t number, Visit&& visit) {
  std::size_t at = 0;
  KelpEmServer::AllTables::forEach([&](auto tag) {
    if (at++ == number) {
      visit(tag);
    }
  });
}

}  // namespace Common
