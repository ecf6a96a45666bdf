#include "Asic/Constants.h"

#include <fmt/format.h>

#include <charconv>

namespace Asic {
namespace {

Lumen::String groupPath(const Lumen::String& canonicalGroupName) {
  return "orderedTable/" + canonicalGroupName;
}

Lumen::String tablePath(const Lumen::String& canonicalGroupName,
                        const Lumen::String& tableNamespace, const Lumen::String& tableName) {
  return groupPath(canonicalGroupName) + "/tables/" + tableNamespace + "/" + tableName;
}

}  // namespace

Lumen::String Constants::canonicalizeGroupName(const Lumen::String& agentName,
                                               const Lumen::String& groupName) {
  return agentName + "/" + groupName;
}

Lumen::String Constants::groupStatusPath(const Lumen::String& canonicalGroupName) {
  return groupPath(canonicalGroupName) + "/status";
}

Lumen::String Constants::groupNeededPath(const Lumen::String& canonicalGroupName,
                                         SwTableId tableId) {
  return fmt::format("{}/needed/{:04x}", groupPath(canonicalGroupName), tableId.tblId());
}

Lumen::String Constants::canonicalGroupTableEntryLogQuiltPath(
    const Lumen::String& canonicalGroupName, const Lumen::String& tableNamespace,
    const Lumen::String& tableName) {
  return tablePath(canonicalGroupName, tableNamespace, tableName) + "/log";
}

Lumen::String Constants::canonicalGroupTableConfigQuiltPathBase(
    const Lumen::String& canonicalGroupName, const Lumen::String& tableNamespace,
    const Lumen::String& tableName) {
  return tablePath(canonicalGroupName, tableNamespace, tableName) + "/config";
}

Lumen::String Constants::configQuiltPath(const Lumen::String& pathBase, UnitId unitId) {
  return fmt::format("{}/{}", pathBase, unitId);
}

std::optional<UnitId> Constants::getUnitIdFromConfigPath(std::string_view path) {
  const auto slash = path.rfind('/');
  if (slash == std::string_view::npos) {
    return std::nullopt;
  }
  const std::string_view last = path.substr(slash + 1);
  UnitId unitId;
  const auto [end, error] = std::from_chars(last.data(), last.data() + last.size(), unitId.value);
  const bool leadingZero = last.size() > 1 && last[0] == '0';
  if (error != std::errc() || end != last.data() + last.size() || leadingZero) {
    return std::nullopt;
  }
  return unitId;
}

}  // namespace Asic
