#pragma once

#include "Asic/Constants.h"
#include "KelpEmServer/TableCatalogue.h"
#include "Lumen/String.h"

namespace KelpEmServer {

// Where a table's collections lie in the shared store.
template <TableSpec T>
struct KelpConstants {
  // The change log of the table.
  [[nodiscard]] static Lumen::String tableEntryLogQuiltPath() {
    return Asic::Constants::canonicalGroupTableEntryLogQuiltPath(
        Asic::Constants::canonicalizeGroupName(kAgentName, kGroupName), kTableNamespace,
        kTableText<T, "Kelp">.c_str());
  }
  // The path below which the configuration collections of all units lie.
  [[nodiscard]] static Lumen::String configQuiltPathBase() {
    return Asic::Constants::canonicalGroupTableConfigQuiltPathBase(
        Asic::Constants::canonicalizeGroupName(kAgentName, kGroupName), kTableNamespace,
        kTableText<T, "Kelp">.c_str());
  }
  // The configuration collection of one unit.
  [[nodiscard]] static Lumen::String configQuiltPath(Asic::UnitId unitId) {
    return Asic::Constants::configQuiltPath(configQuiltPathBase(), unitId);
  }
};

}  // namespace KelpEmServer
