#pragma once

#include "Asic/GroupInterface.h"
#include "Asic/InspectClasses.h"
#include "Asic/LogVersion.h"
#include "BrioQuilt/CollectionControl.h"
#include "Lumen/Node.h"
#include "Lumen/String.h"
#include "Vault/EntityManager.h"

namespace Asic {

// What every table's entry log has: its identity, and the versions that order its changes.
class EntryLogBase : public Lumen::Node {
 public:
  static constexpr const char* className() { return "EntryLogBase"; }
  static constexpr auto attributes() {
    return Brio::attributeList(
        130, Brio::stored("tableId", &EntryLogBase::tableId_),
        Brio::stored("agentName", &EntryLogBase::agentName_),
        Brio::stored("tableVersion", &EntryLogBase::tableVersion_),
        Brio::stored("lastCleanedVersion", &EntryLogBase::lastCleanedVersion_));
  }
  static constexpr const Lumen::TypeData& classData() { return kInspectClass<9, "EntryLogBase">; }

  ~EntryLogBase() override;

  [[nodiscard]] SwTableId tableId() const noexcept { return tableId_; }
  [[nodiscard]] const Lumen::Ptr<Vault::EntityManager>& entityManager() const noexcept {
    return entityManager_;
  }
  [[nodiscard]] const Lumen::Ptr<GroupInterface>& groupInterface() const noexcept {
    return groupInterface_;
  }
  [[nodiscard]] const Lumen::String& agentName() const noexcept { return agentName_; }
  // The last version issued for this table; 0 before the first.
  [[nodiscard]] LogVersion tableVersion() const noexcept { return tableVersion_; }
  // The version that the last cleanup reached; 0 until the first cleanup of this run.
  [[nodiscard]] LogVersion lastCleanedVersion() const noexcept { return lastCleanedVersion_; }

 protected:
  EntryLogBase(SwTableId tableId, const Lumen::Ptr<Vault::EntityManager>& entityManager,
               const Lumen::Ptr<GroupInterface>& groupInterface, Lumen::String agentName);

  // Issues the next version: announces it in the header of the change log, so that the next mount
  // can finish what a dying process began, and returns it.
  LogVersion tableVersionInc(LogVersion step);
  void tableVersionIs(LogVersion version) noexcept { tableVersion_ = version; }
  void lastCleanedVersionIs(LogVersion version) noexcept { lastCleanedVersion_ = version; }
  // The control block of the mounted change log; never null once a log is made.
  [[nodiscard]] const Lumen::Ptr<BrioQuilt::CollectionControl>& changeLogControl() const noexcept {
    return changeLogControl_;
  }
  void changeLogControlIs(const Lumen::Ptr<BrioQuilt::CollectionControl>& control);

 private:
  SwTableId tableId_;
  Lumen::Ptr<Vault::EntityManager> entityManager_;
  Lumen::Ptr<GroupInterface> groupInterface_;
  Lumen::String agentName_;
  LogVersion tableVersion_;
  LogVersion lastCleanedVersion_;
  Lumen::Ptr<BrioQuilt::CollectionControl> changeLogControl_;
};

}  // namespace Asic
