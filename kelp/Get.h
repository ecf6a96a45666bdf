#pragma once

#include <string>

#include "kelp/Live.h"

namespace Kelp {

// Shows the value at a place, or all that an object or a collection holds.
void showPlace(Live& live, const std::string& path);

}  // namespace Kelp
