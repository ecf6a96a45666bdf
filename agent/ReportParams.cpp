#include "agent/ReportParams.h"

#include "common/Intent.h"
#include "common/Tables.h"

namespace Agent {
namespace {

const Common::Json* find(const Common::Json& params, std::string_view name) {
  if (!params.is_object()) {
    return nullptr;
  }
  const auto found = params.find(name);
  return found == params.end() ? nullptr : &*found;
}

}  // namespace

void checkParams(const Common::Json& params, const std::vector<std::string_view>& known) {
  if (!params.is_null()) {
    Common::checkObject(params, Common::Place{"params"});
    Common::checkNames(params, known, Common::Place{"params"});
  }
}

std::optional<std::uint64_t> readParam(const Common::Json& params, std::string_view name,
                                       std::uint64_t most) {
  const Common::Json* const value = find(params, name);
  return value == nullptr ? std::nullopt
                          : std::optional(Common::readNumber(*value, Common::Place{name}, most));
}

std::optional<std::size_t> readTable(const Common::Json& params) {
  const auto name = readText(params, "table");
  if (!name) {
    return std::nullopt;
  }
  const auto table = Common::findTable(*name);
  if (!table) {
    Common::failValue(Common::Place{"table"}, params.at("table"),
                      "write " + Common::choiceText(Common::tableNames()));
  }
  return table;
}

std::optional<std::uint16_t> readUnit(const Common::Json& params) {
  const auto unit = readParam(params, "unit", Common::kMostUnits - 1);
  return unit ? std::optional(static_cast<std::uint16_t>(*unit)) : std::nullopt;
}

std::optional<std::string> readText(const Common::Json& params, std::string_view name) {
  const Common::Json* const value = find(params, name);
  return value == nullptr
             ? std::nullopt
             : std::optional(Common::readString(*value, Common::Place{name}, "a string"));
}

}  // namespace Agent
