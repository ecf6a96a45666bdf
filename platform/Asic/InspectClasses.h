#pragma once

#include <string_view>

#include "Brio/FixedString.h"
#include "Lumen/TypeData.h"

namespace Asic {

// The type module of the classes of this folder. InspectClasses.cpp lists them in the order of
// their indexes.
inline constexpr Brio::FixedString kInspectModule{
    "_AsicInspectClasses_d564a9c69c80efad_brioModule"};

// What a class with the given index in that module says of itself.
template <unsigned index, Brio::FixedString className, const Lumen::TypeData* base = nullptr>
inline constexpr Lumen::TypeData kInspectClass{kInspectModule.view(), index, className.view(),
                                               base};

}  // namespace Asic
