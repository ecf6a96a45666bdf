#pragma once

#include <string_view>

#include "Brio/FixedString.h"
#include "Lumen/TypeData.h"

namespace KelpTunnelNiLib {

struct EsemFodoEntry;
struct EsemFodoVdEntry;
struct Isem1TagEntry;
struct Isem2TagEntry;
struct IsemInnerEthEntry;
struct IsemMplsEntry;
struct IsemUntaggedEntry;
struct LemVpwsAcEntry;

// The type module of the classes of this folder. InspectClasses.cpp lists them in the order of
// their indexes: three for each table, then those of the resource tables.
inline constexpr Brio::FixedString kInspectModule{
    "_KelpTunnelNiLibInspectClasses_b78f08f2009a8809_brioModule"};

// A table, by its entry: the beginning of the names of its classes, the module and where in it they
// stand. Nothing of a table that is not listed; inspection sees what its classes inherit.
template <class Entry>
struct InspectTable {
  static constexpr std::string_view kModule{};
  static constexpr unsigned kFirstClass = 0;
  static constexpr Brio::FixedString kName{""};
};
inline constexpr unsigned kInspectClassesOfTable = 3;
inline constexpr unsigned kInspectTables = 8;

template <unsigned place, Brio::FixedString name>
struct InspectTableAt {
  static_assert(place < kInspectTables);
  static constexpr std::string_view kModule = kInspectModule.view();
  static constexpr unsigned kFirstClass = kInspectClassesOfTable * place;
  static constexpr auto kName = name;
};
template <>
struct InspectTable<EsemFodoEntry> : InspectTableAt<0, "EsemFodo"> {};
template <>
struct InspectTable<EsemFodoVdEntry> : InspectTableAt<1, "EsemFodoVd"> {};
template <>
struct InspectTable<Isem1TagEntry> : InspectTableAt<2, "Isem1Tag"> {};
template <>
struct InspectTable<Isem2TagEntry> : InspectTableAt<3, "Isem2Tag"> {};
template <>
struct InspectTable<IsemInnerEthEntry> : InspectTableAt<4, "IsemInnerEth"> {};
template <>
struct InspectTable<IsemMplsEntry> : InspectTableAt<5, "IsemMpls"> {};
template <>
struct InspectTable<IsemUntaggedEntry> : InspectTableAt<6, "IsemUntagged"> {};
template <>
struct InspectTable<LemVpwsAcEntry> : InspectTableAt<7, "LemVpwsAc"> {};

// The name of one of a table's classes, by its end.
template <class Entry, Brio::FixedString suffix>
inline constexpr auto kInspectTableText = InspectTable<Entry>::kName + suffix;

// What such a class says of itself; `place` is its place among those of the table.
template <class Entry, unsigned place, Brio::FixedString suffix,
          const Lumen::TypeData* base = nullptr>
inline constexpr Lumen::TypeData kInspectTableClass{InspectTable<Entry>::kModule,
                                                    InspectTable<Entry>::kFirstClass + place,
                                                    kInspectTableText<Entry, suffix>.view(), base};

// The same for the other classes; `place` is the one behind all tables.
template <unsigned place, Brio::FixedString className, const Lumen::TypeData* base = nullptr>
inline constexpr Lumen::TypeData kInspectClass{
    kInspectModule.view(), kInspectTables* kInspectClassesOfTable + place, className.view(), base};

}  // namespace KelpTunnelNiLib
