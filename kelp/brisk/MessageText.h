#pragma once

#include <string>

#include "BriskTrace/Reader.h"

// Messages of a trace file as lines, without their ends.

namespace Kelp {

// "2024-06-11T08:15:30.123456Z KelpSwTable::sweep: Swept 3 entries".
[[nodiscard]] std::string messageText(const BriskTrace::Message& message);
// All that the message has, as an object.
[[nodiscard]] std::string messageJson(const BriskTrace::Message& message);

}  // namespace Kelp
