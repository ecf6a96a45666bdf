#pragma once

#include "Brio/FixedString.h"
#include "Lumen/TypeData.h"

namespace KelpQos {

// The type module of the classes of this folder. InspectClasses.cpp lists them in the order of
// their indexes.
inline constexpr Brio::FixedString kInspectModule{
    "_KelpQosInspectClasses_d0055ad54cc08f2e_brioModule"};

// What a class with the given index in that module says of itself.
template <unsigned index, Brio::FixedString className, const Lumen::TypeData* base = nullptr>
inline constexpr Lumen::TypeData kInspectClass{kInspectModule.view(), index, className.view(),
                                               base};

}  // namespace KelpQos
