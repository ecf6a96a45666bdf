#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "Brio/InspectValue.h"
#include "common/Json.h"

// Values of inspection as JSON text, both ways.

namespace Agent {

// Gives the path by which a client comes back to an object, which is not null.
using PathOfObject = std::function<std::string(const Brio::InspectValue::NodePtr& object)>;

// Adds a value; objects as {"ref": PATH}, nothing, null and what is no number as null. Throws what
// `pathOf` throws.
void appendInspectValue(std::string& out, const Brio::InspectValue& value,
                        const PathOfObject& pathOf);

// PATH, if the JSON is {"ref": PATH}; else null.
[[nodiscard]] const std::string* refOf(const Common::Json& json);

// The value that JSON says. Throws InspectionError, which names `name`, for a number that is
// negative, and for an object: no value has one in it.
[[nodiscard]] Brio::InspectValue toInspectValue(const Common::Json& json, std::string_view name);

}  // namespace Agent
