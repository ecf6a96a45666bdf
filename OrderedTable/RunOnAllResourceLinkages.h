#pragma once

namespace Asic {

// Calls `run(linkage, entry, oldEntry)` for each linkage, in order.
template <class Run, class ResolverEntry, class Entry, class... Args>
void runOnAllResourceLinkages(Run&& run, const ResolverEntry& entry, const Entry& oldEntry,
                              Args... linkages) {
  (run(linkages, entry, oldEntry), ...);
}

}  // namespace Asic
