#pragma once

#include <string_view>
#include <vector>

#include "Brio/InspectValue.h"

namespace Brio {

// One step of a path: a name, and the keys in brackets behind it.
struct InspectStep {
  std::string_view name;
  std::vector<InspectValue> keys;
};

// The steps of a path; throws InspectSyntaxError that names the place in it.
[[nodiscard]] std::vector<InspectStep> inspectSteps(std::string_view path);
// A value as a path writes it: a number (also 0x1f), true, false, null, "text" (with \" and \\ in
// it), bare text, [value,...], {name=value,...}; without the braces, too. Throws
// InspectSyntaxError.
[[nodiscard]] InspectValue inspectParse(std::string_view text);

}  // namespace Brio
