#pragma once

namespace Asic {

// Calls `run(linkage)` for each linkage, in order.
template <class Run, class... Args>
void runOnAllResourceLinkages(Run&& run, Args... linkages) {
  (run(linkages), ...);
}

}  // namespace Asic
