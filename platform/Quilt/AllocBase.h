#pragma once

namespace Quilt {

// The default-constructed record of a type: what a lookup that finds nothing yields.
template <class T>
struct AllocBase {
  [[nodiscard]] static const T& defaultRecord() {
    static const T made{};
    return made;
  }
};

}  // namespace Quilt
