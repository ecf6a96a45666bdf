#pragma once

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

#include "common/Json.h"

namespace Agent {

// The params of a request, by name. What does not fit throws InspectionError with the code of
// JSON-RPC, and names the param.
class InspectionParams {
 public:
  // `json` is an object or null, and must outlive this; `known` are the names that it may have.
  InspectionParams(const Common::Json& json, std::initializer_list<std::string_view> known);

  [[nodiscard]] bool has(std::string_view name) const;
  // Of any type.
  [[nodiscard]] const Common::Json& value(std::string_view name) const;
  [[nodiscard]] const std::string& text(std::string_view name) const;
  [[nodiscard]] std::uint64_t number(std::string_view name, std::uint64_t least,
                                     std::uint64_t most) const;
  // `otherwise` if it is left out.
  [[nodiscard]] std::uint64_t number(std::string_view name, std::uint64_t least, std::uint64_t most,
                                     std::uint64_t otherwise) const;
  [[nodiscard]] const Common::Json& list(std::string_view name) const;

 private:
  [[nodiscard]] const Common::Json& required(std::string_view name, std::string_view what) const;

  const Common::Json& json_;
};

}  // namespace Agent
