#pragma once

#include <string_view>

namespace Lumen {

// Names the class of a node: the type module that describes it and the class's index in that
// module. A class without a module has an empty one.
struct TypeData {
  std::string_view module;
  unsigned classIndex = 0;
  std::string_view className;
  const TypeData* base = nullptr;  // the next class above it that has a module
};

}  // namespace Lumen
