#pragma once

#include <string_view>

namespace Lumen {

// Names the class of a node: the type module that describes it and the class's index in that
// module.
struct TypeData {
  std::string_view module;
  unsigned classIndex = 0;
  std::string_view className;
};

}  // namespace Lumen
