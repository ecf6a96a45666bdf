#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/Json.h"

// The parameters of the reports, by name. Each function throws Common::InputError, which names the
// parameter and says what to write.

namespace Agent {

// `params` is null or an object that has only `known` members.
void checkParams(const Common::Json& params, const std::vector<std::string_view>& known);
// Each gives nothing if the parameter is left out.
[[nodiscard]] std::optional<std::uint64_t> readParam(const Common::Json& params,
                                                     std::string_view name, std::uint64_t most);
// The number of the table that `table` names.
[[nodiscard]] std::optional<std::size_t> readTable(const Common::Json& params);
[[nodiscard]] std::optional<std::uint16_t> readUnit(const Common::Json& params);
[[nodiscard]] std::optional<std::string> readText(const Common::Json& params,
                                                  std::string_view name);

}  // namespace Agent
