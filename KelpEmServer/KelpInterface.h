#pragma once

#include "Asic/GroupInterface.h"
#include "Asic/OrderedSwTableSet.h"
#include "Asic/OrderedSwTableStatus.h"
#include "Asic/OrderedTableInterface.h"
#include "Asic/TableInterfaceBase.h"
#include "Brio/Attributes.h"
#include "KelpEmServer/KelpEntryLog.h"
#include "KelpEmServer/KelpSwTable.h"
#include "KelpEmServer/TypeModule.h"
#include "Lumen/Ptr.h"
#include "PoolSlab/Slabbed.h"

namespace KelpEmServer {

// The one object per table and process through which an agent gets at a table. It joins the table's
// group, owns the table's entry log, status and set, and hands out one software table per chip
// unit.
template <TableSpec T>
class KELP_EM_EXPORT KelpInterface final : public Asic::TableInterfaceBase,
                                           public PoolSlab::Slabbed<KelpInterface<T>> {
 public:
  using SwTable = KelpSwTable<T>;
  using Helper = KelpSwTableHelperBase<T>;

  static constexpr const char* className() { return kTableText<T, "KelpInterface">.c_str(); }
  static constexpr auto attributes() {
    return Brio::attributeList(
        258, Brio::stored("tableName", &KelpInterface::tableName_),
        Brio::view("tableId", &KelpInterface::tableId),
        Brio::stored("groupName", &KelpInterface::groupName_),
        Brio::stored("agentName", &KelpInterface::agentName_),
        Brio::stored("tableNamespace", &KelpInterface::tableNamespace_),
        Brio::stored("entryLog", &KelpInterface::entryLog_).writtenBy(&KelpInterface::entryLogIs),
        Brio::stored("swTableStatus", &KelpInterface::swTableStatus_)
            .writtenBy(&KelpInterface::swTableStatusIs),
        Brio::stored("swTableSet", &KelpInterface::swTableSet_)
            .writtenBy(&KelpInterface::swTableSetIs),
        Brio::operation("makeSwTable", &KelpInterface::makeSwTable).takesNull(),
        Brio::operation("getIntf", &KelpInterface::getIntf),
        Brio::operation("handleInitialized", &KelpInterface::handleInitialized).notServed(),
        Brio::operation("onDelete", &KelpInterface::onDelete).notServed());
  }

  // The interface of the table in this process, made at the first call: mounts the change log,
  // cleans it up to what the hardware side had taken in, and turns the pending flag on if the log
  // holds more. Throws BrioSharedMem::StoreError if the change log can't be mounted.
  [[nodiscard]] static Lumen::Ptr<KelpInterface> getIntf(
      const Lumen::Ptr<Asic::OrderedTableInterface>& ordTblIntf);

  // Asserts "Interface already created" if the process has one of this table. Use getIntf().
  explicit KelpInterface(const Lumen::Ptr<Asic::OrderedTableInterface>& orderedTableIntf);
  ~KelpInterface() override;

  // It has no factory: getIntf() makes the one of the process.
  static constexpr const Lumen::TypeData& classData() {
    return kTypeData<T, "KelpInterface", 0, "KelpInterface",
                     &Asic::TableInterfaceBase::classData()>;
  }
  [[nodiscard]] const Lumen::TypeData& typeData() const override { return classData(); }
  // Clears the units that hold a configuration collection and for which no table was made in this
  // run.
  void reconcile() override;

  // The software table of a unit. One that exists is given back, with the helper replaced if one is
  // given; a new one takes over the entries of an earlier run, and begins to mark, unless the agent
  // has set skipMarkOnRestore. With `reset` nothing of the unit's earlier content survives. Throws
  // BrioSharedMem::StoreError if the unit's collection can't be mounted.
  [[nodiscard]] Lumen::Ptr<SwTable> makeSwTable(Asic::UnitId unitId,
                                                const Lumen::Ptr<Helper>& swTableHelper,
                                                bool reset);

  [[nodiscard]] const Lumen::String& tableName() const noexcept { return tableName_; }
  [[nodiscard]] Asic::SwTableId tableId() const noexcept { return T::tableId; }
  [[nodiscard]] const Lumen::String& groupName() const noexcept { return groupName_; }
  [[nodiscard]] const Lumen::String& agentName() const noexcept { return agentName_; }
  [[nodiscard]] const Lumen::String& tableNamespace() const noexcept { return tableNamespace_; }
  [[nodiscard]] const Lumen::Ptr<KelpEntryLog<T>>& entryLog() const noexcept { return entryLog_; }
  [[nodiscard]] const Lumen::Ptr<Asic::OrderedSwTableStatus>& swTableStatus() const noexcept {
    return swTableStatus_;
  }
  [[nodiscard]] const Lumen::Ptr<Asic::OrderedSwTableSet>& swTableSet() const noexcept {
    return swTableSet_;
  }

  // Each gives back what is there if it was made with equal arguments, and else puts a new one in
  // its place.
  const Lumen::Ptr<KelpEntryLog<T>>& entryLogIs(
      Asic::SwTableId tableId, const Lumen::Ptr<Vault::EntityManager>& entityManager,
      const Lumen::Ptr<Asic::GroupInterface>& groupInterface, const Lumen::String& agentName);
  const Lumen::Ptr<Asic::OrderedSwTableStatus>& swTableStatusIs(Asic::SwTableId tableId);
  const Lumen::Ptr<Asic::OrderedSwTableSet>& swTableSetIs(
      Asic::SwTableId tableId, const Lumen::Ptr<Asic::OrderedSwTableStatus>& swTableStatus);
  // Each takes its pointer out of the object and gives it to the caller.
  [[nodiscard]] Lumen::Ptr<KelpEntryLog<T>> entryLogDel();
  [[nodiscard]] Lumen::Ptr<Asic::OrderedSwTableStatus> swTableStatusDel();
  [[nodiscard]] Lumen::Ptr<Asic::OrderedSwTableSet> swTableSetDel();

 private:
  // The key of the table among the interfaces of a process.
  static constexpr auto kKey =
      Brio::FixedString("KelpEmServer::") + T::name + Brio::FixedString("KelpInterface");
  static constexpr auto kNotThere =
      Brio::FixedString("!singleton->swTableIntfHas( \"") + kKey + Brio::FixedString("\" )");

  void handleInitialized();
  void onDelete();
  template <class L>
  void link(const Lumen::Ptr<SwTable>& table);
  [[nodiscard]] Lumen::Ptr<Asic::GroupInterface> groupIntf() const;
  [[nodiscard]] Lumen::Ptr<SwTable> existingSwTable(Asic::UnitId unitId,
                                                    const Lumen::Ptr<Helper>& swTableHelper,
                                                    bool reset);

  Lumen::String tableName_;
  Lumen::String groupName_;
  Lumen::String agentName_;
  Lumen::String tableNamespace_;
  Lumen::Ptr<KelpEntryLog<T>> entryLog_;
  Lumen::Ptr<Asic::OrderedSwTableStatus> swTableStatus_;
  Lumen::Ptr<Asic::OrderedSwTableSet> swTableSet_;
};

}  // namespace KelpEmServer
