#pragma once

#include <cstdio>
#include <cstdlib>

namespace Fuzz {

// Ends the process, as a crash does, unless it holds.
inline void want(bool holds, const char* what) {
  if (!holds) {
    std::fprintf(stderr, "does not hold: %s\n", what);
    std::abort();
  }
}

}  // namespace Fuzz
