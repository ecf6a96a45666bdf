#pragma once

#include <concepts>
#include <cstdint>

#include "Asic/SwTableId.h"
#include "Brio/FixedString.h"

namespace KelpEmServer {

// The salts of a table's collections: arbitrary, fixed, and its own.
struct CollectionSalts {
  std::uint32_t transientAddEntry;
  std::uint32_t transientRemoveEntry;
  std::uint32_t transientVersionForKey;
  std::uint32_t markedKey;
  std::uint32_t tableConfigQuilt;
  std::uint32_t tableEntries;
};

// What the catalogue says of one table. Everything else is the same for all.
template <class T>
concept TableSpec = requires {
  { T::name.view() } -> std::convertible_to<std::string_view>;  // "Isem1Tag"
  { T::tableId } -> std::convertible_to<Asic::SwTableId>;
  { T::salts } -> std::convertible_to<CollectionSalts>;
  typename T::Entry;             // with Key, LogEntry and ResourceKeys
  typename T::ConfigQuilt;       // the configuration collection of a unit
  typename T::EntryLogQuilt;     // the change log
  typename T::WrapperResources;  // what an entry in flight holds of resources
  typename T::Linkages;          // who asks for them
};

// The table's name with something behind it, as a string of static storage.
template <TableSpec T, Brio::FixedString suffix>
inline constexpr auto kTableText = T::name + suffix;
// The same with something before it, too.
template <TableSpec T, Brio::FixedString prefix, Brio::FixedString suffix>
inline constexpr auto kTextOfTable = prefix + T::name + suffix;

}  // namespace KelpEmServer
