#pragma once

#include <set>

#include "Asic/EntryState.h"
#include "Asic/Index.h"
#include "Asic/InspectClasses.h"
#include "Asic/LogVersion.h"
#include "Brio/Attributes.h"
#include "Lumen/Node.h"
#include "Lumen/Publisher.h"

namespace Asic {

// An entry as another entry that depends on it sees it: its state, and the version of its log
// record.
class DependencyEntryHandle : public Lumen::Node {
 public:
  // What a change of the state publishes.
  static constexpr Lumen::FieldId kEntryStateField{130};

  static constexpr const char* className() { return "DependencyEntryHandle"; }
  static constexpr auto attributes() {
    return Brio::attributeList(130,
                               Brio::stored("entryState", &DependencyEntryHandle::entryState_));
  }
  static constexpr const Lumen::TypeData& classData() {
    return kInspectClass<3, "DependencyEntryHandle">;
  }

  ~DependencyEntryHandle() override;

  // Runs after every change of the state.
  virtual void handleEntryState();
  // The hardware index that an entry depending on this one may use; none unless a class gives one.
  [[nodiscard]] virtual Index hwIndexForDependentField() const;
  // Indexes that a dependant would like this entry to have; ignored unless a class takes them.
  virtual void handleIndexSuggestions(const std::set<Index>& suggestions) const;
  // Table and version of the log record; version 0 before the entry is in the log.
  [[nodiscard]] virtual TableVersion entryTableVersion() const = 0;

  [[nodiscard]] EntryState entryState() const noexcept { return entryState_; }
  // Sets the state, publishes the change and calls handleEntryState(). An equal state does nothing.
  void entryStateIs(EntryState state);

 private:
  EntryState entryState_ = EntryState::entryStateUnresolved;
};

}  // namespace Asic
