#include "Asic/DependencyEntryHandle.h"

namespace Asic {

DependencyEntryHandle::~DependencyEntryHandle() = default;

void DependencyEntryHandle::handleEntryState() {}

Index DependencyEntryHandle::hwIndexForDependentField() const { return {}; }

void DependencyEntryHandle::handleIndexSuggestions(const std::set<Index>&) const {}

void DependencyEntryHandle::entryStateIs(EntryState state) {
  if (state == entryState_) {
    return;
  }
  const EntryState old = entryState_;
  entryState_ = state;
  if (Lumen::Publisher* changes = publisher()) {
    changes->publishChange(kEntryStateField, nullptr, &old);
  }
  handleEntryState();
}

}  // namespace Asic
