#pragma once

#include <array>
#include <cstdint>

#include "BrioSharedMem/EntityManager.h"
#include "common/Tables.h"
#include "soak/Oracle.h"
#include "soak/Programs.h"
#include "soak/Tally.h"

namespace Soak {

using Versions = std::array<std::uint64_t, Common::kTables>;  // by table number

// Compares everything, while nothing is under way: the configuration collections and the chip's
// model with what the oracle says they have to hold, the chip with the collections by its own
// check; the logs must have forgotten all, and stand at `highest` or above, the versions that were
// answered. What differs goes to the tally's `wrong`.
void check(Oracle& oracle, const BrioSharedMem::EntityManager& memory, Programs& programs,
           const Versions& highest, Tally& tally);

}  // namespace Soak
