#pragma once

#include "Brio/FixedString.h"
#include "Lumen/TypeData.h"

namespace PactResourceTable {

// The type module of the classes of this folder. InspectClasses.cpp lists them in the order of
// their indexes.
inline constexpr Brio::FixedString kInspectModule{
    "_PactResourceTableInspectClasses_a1755594c27e1bab_brioModule"};

// What a class with the given index in that module says of itself.
template <unsigned index, Brio::FixedString className, const Lumen::TypeData* base = nullptr>
inline constexpr Lumen::TypeData kInspectClass{kInspectModule.view(), index, className.view(),
                                               base};

}  // namespace PactResourceTable
