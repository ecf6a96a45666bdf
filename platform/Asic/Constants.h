#pragma once

#include <optional>
#include <string_view>

#include "Asic/SwTableId.h"
#include "Asic/UnitId.h"
#include "Lumen/String.h"

namespace Asic {

// Where the collections of a group lie in the shared store. All are pure functions of their
// arguments. Below orderedTable/AGENT/GROUP:
//
//   status                          what the hardware side has taken in
//   needed/TABLE                    dependencies of log records, by table number
//   tables/NAMESPACE/NAME/log       change log
//   tables/NAMESPACE/NAME/config/U  configuration collection of unit U
class Constants {
 public:
  // AGENT/GROUP: the key of a group among those of the process, and its place in the store.
  [[nodiscard]] static Lumen::String canonicalizeGroupName(const Lumen::String& agentName,
                                                           const Lumen::String& groupName);
  [[nodiscard]] static Lumen::String groupStatusPath(const Lumen::String& canonicalGroupName);
  [[nodiscard]] static Lumen::String groupNeededPath(const Lumen::String& canonicalGroupName,
                                                     SwTableId tableId);
  [[nodiscard]] static Lumen::String canonicalGroupTableEntryLogQuiltPath(
      const Lumen::String& canonicalGroupName, const Lumen::String& tableNamespace,
      const Lumen::String& tableName);
  // The path below which the configuration collections of all units of a table lie.
  [[nodiscard]] static Lumen::String canonicalGroupTableConfigQuiltPathBase(
      const Lumen::String& canonicalGroupName, const Lumen::String& tableNamespace,
      const Lumen::String& tableName);
  [[nodiscard]] static Lumen::String configQuiltPath(const Lumen::String& pathBase, UnitId unitId);
  // The unit of a configuration path: its last component, which must be a decimal unit number
  // without leading zeros. Anything else is no unit.
  [[nodiscard]] static std::optional<UnitId> getUnitIdFromConfigPath(std::string_view path);
};

}  // namespace Asic
