#pragma once

#include <string>

namespace Lumen {

using String = std::string;

}  // namespace Lumen
