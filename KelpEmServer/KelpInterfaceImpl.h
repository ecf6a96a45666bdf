#pragma once

// The bodies of KelpInterface. Included by the unit of a table that instantiates it, and by nobody
// else.

#include <utility>

#include "Asic/Constants.h"
#include "Asic/SwTableInterfacesSingleton.h"
#include "Brio/InspectRegistry.h"
#include "Brio/SassertHelper.h"
#include "Brio/TraceHandle.h"
#include "BrioSharedMem/EntityManager.h"
#include "BriskTrace/Report.h"
#include "KelpEmServer/KelpInterface.h"
#include "Lumen/Assert.h"
#include "Lumen/Trace.h"

namespace KelpEmServer {

template <TableSpec T>
const Brio::TraceHandle& interfaceTraceHandle() {
  static const Brio::TraceHandle handle(kTableText<T, "KelpInterface">.c_str(), false);
  return handle;
}

template <TableSpec T>
Lumen::Ptr<KelpInterface<T>> KelpInterface<T>::getIntf(
    const Lumen::Ptr<Asic::OrderedTableInterface>& ordTblIntf) {
  const auto singleton = Asic::SwTableInterfacesSingleton::instance();
  if (const auto found = singleton->swTableIntf(kKey.c_str())) {
    return Lumen::staticPtrCast<KelpInterface>(found);
  }
  return Lumen::makeNode<KelpInterface>(ordTblIntf);
}

template <TableSpec T>
KelpInterface<T>::KelpInterface(const Lumen::Ptr<Asic::OrderedTableInterface>& orderedTableIntf)
    : Asic::TableInterfaceBase(orderedTableIntf),
      tableName_(kTableText<T, "Kelp">.view()),
      groupName_(kGroupName),
      agentName_(kAgentName),
      tableNamespace_(kTableNamespace) {
  handleInitialized();
}

template <TableSpec T>
KelpInterface<T>::~KelpInterface() {
  this->nodeFlagSet(Lumen::Node::kHasNotificationActive, false);
  Brio::InspectRoots::rootDel(kKey.c_str(), this);
  onDelete();
  entryLog_ = nullptr;
  swTableStatus_ = nullptr;
  swTableSet_ = nullptr;
}

template <TableSpec T>
Lumen::Ptr<Asic::GroupInterface> KelpInterface<T>::groupIntf() const {
  auto groupIntf = this->orderedTableIntf()->groupIntfColl()->groupIntf(
      Asic::Constants::canonicalizeGroupName(agentName_, groupName_));
  Lumen::assertThat(groupIntf != nullptr, "groupIntf");
  return groupIntf;
}

template <TableSpec T>
void KelpInterface<T>::handleInitialized() {
  // The numbers of attributes are known outside.
  static_assert(Brio::fieldId<KelpInterface>("tableName") == Lumen::FieldId{258} &&
                Brio::fieldId<KelpInterface>("tableId") == Lumen::FieldId{259} &&
                Brio::fieldId<KelpInterface>("groupName") == Lumen::FieldId{260} &&
                Brio::fieldId<KelpInterface>("agentName") == Lumen::FieldId{261} &&
                Brio::fieldId<KelpInterface>("tableNamespace") == Lumen::FieldId{262} &&
                Brio::fieldId<KelpInterface>("entryLog") == Lumen::FieldId{263} &&
                Brio::fieldId<KelpInterface>("swTableStatus") == Lumen::FieldId{264} &&
                Brio::fieldId<KelpInterface>("swTableSet") == Lumen::FieldId{265} &&
                Brio::fieldId<KelpInterface>("makeSwTable") == Lumen::FieldId{266} &&
                Brio::fieldId<KelpInterface>("getIntf") == Lumen::FieldId{267} &&
                Brio::fieldId<KelpInterface>("handleInitialized") == Lumen::FieldId{268} &&
                Brio::fieldId<KelpInterface>("onDelete") == Lumen::FieldId{269});
  const auto singleton = Asic::SwTableInterfacesSingleton::instance();
  if (singleton->swTableIntfHas(kKey.c_str())) {
    {
      Brio::SassertHelper sentence(kNotThere.c_str());
      sentence.stream() << "Interface already created";
    }
    Brio::sassertFailed(kNotThere.c_str());
  }
  const auto& agent = this->orderedTableIntf();
  agent->makeGroupIntf(groupName_, agentName_, tableId().agentAndGroupId());
  const auto group = groupIntf();
  LUMEN_TRACE(interfaceTraceHandle<T>(), 3, className(), " Creating entry log for {}", tableId());
  entryLogIs(tableId(), agent->entityManager(), group, agentName_);
  swTableStatusIs(tableId());
  if (const auto status = group->statusVersion(tableId())) {
    entryLog_->cleanupEntryLog(*status);
    LUMEN_TRACE(interfaceTraceHandle<T>(), 3, className(),
                " Cleaned entry log until table version: {}", *status);
    if (entryLog_->tableVersion() > *status) {
      LUMEN_TRACE(interfaceTraceHandle<T>(), 2, className(), " Turning ON pendingHwWrites");
      swTableStatus_->pendingHwWritesIs(true);
    }
  }
  LUMEN_TRACE(interfaceTraceHandle<T>(), 2, className(),
              " Entry log created for table id: {} at version: {}", tableId(),
              entryLog_->tableVersion());
  swTableSetIs(tableId(), swTableStatus_);
  group->swTableSetIs(swTableSet_);
  agent->swTableIntfIs(kKey.c_str(), this);
  singleton->swTableIntfIs(kKey.c_str(), Lumen::Ptr<Asic::TableInterfaceBase>(this));
  Brio::InspectRoots::rootIs(kKey.c_str(), this);
}

template <TableSpec T>
void KelpInterface<T>::onDelete() {
  LUMEN_TRACE(interfaceTraceHandle<T>(), 2, className(), " onDelete ");
  this->orderedTableIntf()->swTableIntfDel(kKey.c_str());
}

template <TableSpec T>
const Lumen::Ptr<KelpEntryLog<T>>& KelpInterface<T>::entryLogIs(
    Asic::SwTableId tableId, const Lumen::Ptr<Vault::EntityManager>& entityManager,
    const Lumen::Ptr<Asic::GroupInterface>& groupInterface, const Lumen::String& agentName) {
  const bool same =
      entryLog_ && entryLog_->tableId() == tableId && entryLog_->entityManager() == entityManager &&
      entryLog_->groupInterface() == groupInterface && entryLog_->agentName() == agentName;
  if (!same) {
    entryLog_ = Lumen::makeNode<KelpEntryLog<T>>(tableId, entityManager, groupInterface, agentName);
  }
  return entryLog_;
}

template <TableSpec T>
const Lumen::Ptr<Asic::OrderedSwTableStatus>& KelpInterface<T>::swTableStatusIs(
    Asic::SwTableId tableId) {
  if (!swTableStatus_ || swTableStatus_->tableId() != tableId) {
    swTableStatus_ = Lumen::makeNode<Asic::OrderedSwTableStatus>(tableId);
  }
  return swTableStatus_;
}

template <TableSpec T>
const Lumen::Ptr<Asic::OrderedSwTableSet>& KelpInterface<T>::swTableSetIs(
    Asic::SwTableId tableId, const Lumen::Ptr<Asic::OrderedSwTableStatus>& swTableStatus) {
  if (!swTableSet_ || swTableSet_->tableId() != tableId || swTableSet_->status() != swTableStatus) {
    swTableSet_ = Lumen::makeNode<Asic::OrderedSwTableSet>(tableId, swTableStatus);
  }
  return swTableSet_;
}

template <TableSpec T>
Lumen::Ptr<KelpEntryLog<T>> KelpInterface<T>::entryLogDel() {
  return std::move(entryLog_);
}

template <TableSpec T>
Lumen::Ptr<Asic::OrderedSwTableStatus> KelpInterface<T>::swTableStatusDel() {
  return std::move(swTableStatus_);
}

template <TableSpec T>
Lumen::Ptr<Asic::OrderedSwTableSet> KelpInterface<T>::swTableSetDel() {
  return std::move(swTableSet_);
}

template <TableSpec T>
Lumen::Ptr<KelpSwTable<T>> KelpInterface<T>::existingSwTable(
    Asic::UnitId unitId, const Lumen::Ptr<Helper>& swTableHelper, bool reset) {
  LUMEN_TRACE(interfaceTraceHandle<T>(), 3, className(), "swTable with unitId: {} exists", unitId);
  const auto existingTbl = Lumen::dynamicPtrCast<SwTable>(swTableSet_->swTable(unitId));
  Lumen::assertThat(existingTbl != nullptr, "existingTbl");
  if (swTableHelper) {
    LUMEN_TRACE(interfaceTraceHandle<T>(), 2, className(), "Update software table helper");
    existingTbl->swTableHelperIs(swTableHelper);
  }
  if (reset) {
    LUMEN_TRACE(interfaceTraceHandle<T>(), 2, className(), " Clearing entries for table id: {}",
                tableId());
    existingTbl->clearTable(false);
  }
  return existingTbl;
}

template <TableSpec T>
Lumen::Ptr<KelpSwTable<T>> KelpInterface<T>::makeSwTable(Asic::UnitId unitId,
                                                         const Lumen::Ptr<Helper>& swTableHelper,
                                                         bool reset) {
  LUMEN_TRACE(interfaceTraceHandle<T>(), 8, className(), "unitId: {}", unitId);
  const auto group = groupIntf();
  Lumen::assertThat(group->swTableSetHas(tableId()), "groupIntf->swTableSetHas( tableId() )");
  if (swTableSet_->swTableHas(unitId)) {
    return existingSwTable(unitId, swTableHelper, reset);
  }
  const Asic::LogVersion version = group->statusVersion(tableId()).value_or(Asic::LogVersion{});
  entryLog_->mountQuiltConfig(unitId, version);
  const Lumen::Ptr<const Asic::CanonicalTableName> name = Lumen::makeNode<Asic::CanonicalTableName>(
      Asic::OrderedTableType::orderedSwTable, groupName_, tableNamespace_, tableName_);
  const auto table = SwTable::KelpSwTableIs(name, tableId(), unitId, swTableSet_.get(), entryLog_,
                                            group->groupResolver());
  if (swTableHelper) {
    table->swTableHelperIs(swTableHelper);
  }
  table->statusIs(swTableStatus_);
  T::Linkages::forEachKind([&](auto tag) { link<typename decltype(tag)::Kind>(table); });
  if (reset) {
    static constexpr auto kText = Brio::FixedString(" Clearing entries for table: ") + T::name +
                                  Brio::FixedString("Kelp, unitId: {}");
    static BriskTrace::Site site;
    BriskTrace::report(site, className(), __func__, kText.view(), unitId.value);
    LUMEN_TRACE(interfaceTraceHandle<T>(), 2, className(), kText.c_str(), unitId);
    table->clearTable(false);
  } else {
    table->restoreEntries();
    static constexpr auto kText = Brio::FixedString(" Restored {} entries for table: ") + T::name +
                                  Brio::FixedString("Kelp, unitId: {}");
    static BriskTrace::Site site;
    const unsigned entrys = table->entrys();
    BriskTrace::report(site, className(), __func__, kText.view(), entrys, unitId.value);
    LUMEN_TRACE(interfaceTraceHandle<T>(), 2, className(), kText.c_str(), entrys, unitId);
  }
  // Until here nobody else could see the table.
  swTableSet_->swTableIs(table);
  table->tableStatusVersion(version);
  group->sweepableSwTableSetIs(table);
  if (!reset && !this->orderedTableIntf()->skipMarkOnRestore()) {
    table->mark();
  }
  return table;
}

// Makes the table a client of one of its resource tables.
template <TableSpec T>
template <class L>
void KelpInterface<T>::link(const Lumen::Ptr<SwTable>& table) {
  using ResourceTable = typename L::ResourceTable;
  const Lumen::Ptr<const Asic::CanonicalTableName> name = Lumen::makeNode<Asic::CanonicalTableName>(
      Asic::OrderedTableType::resourceTable, "", ResourceTable::Kind::tableNamespace,
      ResourceTable::Kind::tableName);
  const auto resTbl = this->orderedTableIntf()->resourceTable(name->name());
  Lumen::assertThat(resTbl != nullptr, "resTbl");
  const auto typedResourceTable = Lumen::dynamicPtrCast<ResourceTable>(resTbl);
  Lumen::assertThat(typedResourceTable != nullptr, "typedResourceTable");
  const auto client = typedResourceTable->makeClientInstance();
  static BriskTrace::Site site;
  const unsigned entrys = typedResourceTable->entrys();
  BriskTrace::report(site, className(), __func__, L::startedText, entrys);
  LUMEN_TRACE(interfaceTraceHandle<T>(), 2, className(), L::startedText, entrys);
  table->linkageIs(KelpResourceLinkage<T, L>::KelpResourceLinkageIs(table.get(), client));
}

template <TableSpec T>
void KelpInterface<T>::reconcile() {
  LUMEN_TRACE(interfaceTraceHandle<T>(), 8, className(), "");
  const auto& agent = this->orderedTableIntf();
  const auto manager = BrioSharedMem::EntityManager::getEntityManager(
      agent->entityManager()->name(), agent->entityManager()->localMode());
  const Lumen::String path = Asic::Constants::canonicalGroupTableConfigQuiltPathBase(
      Asic::Constants::canonicalizeGroupName(agentName_, groupName_), tableNamespace_, tableName_);
  const auto found = manager->findEntities(path, BrioSharedMem::BrioSharedMemType::quilt);
  LUMEN_TRACE(interfaceTraceHandle<T>(), 3, className(),
              " No. of config entities found: {}, in quilt path: {}", found->count(), path);
  for (const Lumen::String& name : found->paths()) {
    const auto unitId = Asic::Constants::getUnitIdFromConfigPath(name);
    // What lies deeper is no unit's collection, though its name may end like one.
    if (!unitId || name != Asic::Constants::configQuiltPath(path, *unitId) ||
        swTableSet_->swTableHas(*unitId)) {
      continue;
    }
    LUMEN_TRACE(interfaceTraceHandle<T>(), 3, className(), " Found inactive unit id: {} ", *unitId);
    (void)makeSwTable(*unitId, nullptr, true);
  }
}

}  // namespace KelpEmServer
