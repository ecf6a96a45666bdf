#pragma once

#include <optional>
#include <string_view>

#include "Lumen/String.h"

// How entity paths become file names. The parts between '/' become folders and the last one the
// file. Letters, digits, '_', '-' and ':' stand for themselves; every other byte is a '%' and two
// upper-case hexadecimal digits, and an empty part is a lone '%'. So no two paths have one name, no
// part is "." or "..", and no part has a '.', which parts the name from its suffix.

namespace BrioSharedMem {

// Asserts nothing; any text has a name. The empty path's is "%".
[[nodiscard]] Lumen::String encodedPath(std::string_view path);

// The same for one part, in which a '/' is a byte like others.
[[nodiscard]] Lumen::String encodedPart(std::string_view part);

// The path that has this name, or none if no path has.
[[nodiscard]] std::optional<Lumen::String> decodedPath(std::string_view name);

}  // namespace BrioSharedMem
