#pragma once

// The bodies of KelpSwTable and of the objects in which an operation travels. Included by the unit
// of a table that instantiates them, and by nobody else.

#include <fmt/format.h>

#include "Brio/MutatorException.h"
#include "BriskTrace/Report.h"
#include "KelpEmServer/KelpEntryLogImpl.h"
#include "KelpEmServer/KelpSwTable.h"
#include "Lumen/Exception.h"
#include "Lumen/Trace.h"
#include "OrderedTable/CommitPath.h"
#include "OrderedTable/EntryReadPath.h"
#include "OrderedTable/EntryRemovePath.h"
#include "OrderedTable/EntryWritePath.h"
#include "OrderedTable/IterStateAccessor.h"
#include "OrderedTable/TableLifecycle.h"

namespace KelpEmServer {

// The handle of the unit, which all its classes share.
template <TableSpec T>
const Brio::TraceHandle& swTableTraceHandle() {
  static const Brio::TraceHandle handle(kTableText<T, "KelpSwTable">.c_str(), false);
  return handle;
}

template <TableSpec T>
using SwTableAccessor = Asic::OrderedSwTableAccessor<KelpSwTable<T>>;
template <TableSpec T>
using SwTableReader = Asic::OrderedSwTableAccessor<const KelpSwTable<T>>;

// The numbers of attributes are known outside.
template <class Class>
constexpr bool isAttribute(std::uint16_t number, std::string_view name) {
  return Class::attributes().idOf(name) == number;
}

// --- the entry wrapper

template <TableSpec T>
void KelpEntryWrapper<T>::retrieveClientData() {
  static_assert(isAttribute<KelpEntryWrapper>(130, "entry") &&
                isAttribute<KelpEntryWrapper>(131, "entryHandle") &&
                isAttribute<KelpEntryWrapper>(132, "key") &&
                isAttribute<KelpEntryWrapper>(133, "logEntry") &&
                isAttribute<KelpEntryWrapper>(134, "rsrcKeys"));
  constexpr auto kFirst =
      std::tuple_size_v<decltype(T::WrapperResources::template attributes<KelpEntryWrapper>())> +
      135;
  static_assert(kFirst == 135 || kFirst == 139 || kFirst == 142);
  static_assert(isAttribute<KelpEntryWrapper>(kFirst, "setResolvedFields") &&
                isAttribute<KelpEntryWrapper>(kFirst + 1, "retrieveClientData") &&
                isAttribute<KelpEntryWrapper>(kFirst + 2, "finalizeOnSuccess") &&
                isAttribute<KelpEntryWrapper>(kFirst + 3, "finalizeOnFailure"));
  T::WrapperResources::retrieveClientData(entry_, [](unsigned clientData) {
    LUMEN_TRACE(swTableTraceHandle<T>(), 3, className(), " Setting clientData to: {} ", clientData);
  });
}

template <TableSpec T>
void KelpEntryWrapper<T>::finalizeOnSuccess(const Lumen::Ptr<KelpSwTable<T>>& table,
                                            bool isDeleted) {
  LUMEN_TRACE(swTableTraceHandle<T>(), 8, className(), " key: {} isDeleted: {}", key(), isDeleted);
  if (!isDeleted) {
    setResolvedFields();
  }
  table->swTableHelper()->finalizeOnSuccess(Lumen::Ptr<KelpEntryWrapper>(this), isDeleted, table);
}

template <TableSpec T>
bool KelpEntryWrapper<T>::finalizeOnFailure(const Lumen::Ptr<KelpSwTable<T>>& table,
                                            bool isDeleted) {
  LUMEN_TRACE(swTableTraceHandle<T>(), 8, className(), " key: {} isDeleted: {}", key(), isDeleted);
  const bool result = table->swTableHelper()->finalizeOnFailure(Lumen::Ptr<KelpEntryWrapper>(this),
                                                                isDeleted, table);
  LUMEN_TRACE(swTableTraceHandle<T>(), 3, className(), " retVal: {}", result);
  return result;
}

// --- the resolver entry

template <TableSpec T>
KelpResolverEntry<T>::KelpResolverEntry(
    const Lumen::Ptr<const Asic::DependencyEntryHandle>& dependency, Asic::EntryFlags flags,
    KelpSwTable<T>* swTable, const Lumen::Ptr<KelpEntryWrapper<T>>& swTableEntry)
    : Asic::ResolverEntry(dependency, flags, swTable->resolverQueue(), swTableEntry.get(),
                          swTableEntry->entryHandle().get()),
      swTable_(swTable),
      swTableEntry_(swTableEntry) {}

template <TableSpec T>
bool KelpResolverEntry<T>::isResolved() {
  static_assert(isAttribute<KelpResolverEntry>(258, "swTable") &&
                isAttribute<KelpResolverEntry>(259, "swTableEntry"));
  return swTable_->isResolverEntryResolved(Lumen::Ptr<KelpResolverEntry>(this));
}

template <TableSpec T>
void KelpResolverEntry<T>::commitEntry(const Lumen::Ptr<Asic::ResolverEntry>& self) {
  swTable_->commitEntry(self);
}

// --- the iterator state

template <TableSpec T>
typename T::Entry KelpSwTableIteratorState<T>::maybeUpdateCurrentEntry() {
  static_assert(isAttribute<KelpSwTableIteratorState>(386, "bookmarkKey"));
  return Asic::IterStateAccessor<KelpSwTableIteratorState, KelpSwTable<T>>(this)
      .template maybeUpdateCurrentEntry<Entry>();
}

template <TableSpec T>
const KelpSwTable<T>* KelpSwTableIteratorState<T>::table() const noexcept {
  return static_cast<const KelpSwTable<T>*>(this->swTable());
}

// --- the table: life

template <TableSpec T>
KelpSwTable<T>::KelpSwTable(const Lumen::Ptr<const Asic::CanonicalTableName>& canonicalName,
                            Asic::SwTableId tableId, Asic::UnitId unitId,
                            Asic::OrderedSwTableSet* swTableSet,
                            const Lumen::Ptr<KelpEntryLog<T>>& entryLog,
                            const Lumen::Ptr<Asic::GroupResolver>& groupResolver)
    : Base(canonicalName, tableId, unitId, swTableSet),
      entryLog_(entryLog),
      groupResolver_(groupResolver) {
  handleInitialized();
}

template <TableSpec T>
KelpSwTable<T>::~KelpSwTable() {
  // What is queued points back to this table.
  this->resolverQueue().clear();
}

template <TableSpec T>
void KelpSwTable<T>::handleInitialized() {
  static_assert(
      isAttribute<KelpSwTable>(898, "swTableHelper") &&
      isAttribute<KelpSwTable>(899, "transientAddEntry") &&
      isAttribute<KelpSwTable>(900, "transientRemoveEntry") &&
      isAttribute<KelpSwTable>(901, "transientVersionForKey") &&
      isAttribute<KelpSwTable>(902, "transientRemoveAllVersion") &&
      isAttribute<KelpSwTable>(903, "getTableEntries_py") &&
      isAttribute<KelpSwTable>(904, "entryLog") && isAttribute<KelpSwTable>(905, "groupResolver") &&
      isAttribute<KelpSwTable>(907, "entryHandleInLog") &&
      isAttribute<KelpSwTable>(908, "commitEntry") &&
      isAttribute<KelpSwTable>(909, "updateEntry") &&
      isAttribute<KelpSwTable>(910, "getNeededEntrySet") &&
      isAttribute<KelpSwTable>(911, "isResolverEntryResolved") &&
      isAttribute<KelpSwTable>(912, "setRsrcPtrs") &&
      isAttribute<KelpSwTable>(913, "entryFromConfig") &&
      isAttribute<KelpSwTable>(914, "restoreEntries") &&
      isAttribute<KelpSwTable>(915, "clearTable") && isAttribute<KelpSwTable>(916, "markedKey") &&
      isAttribute<KelpSwTable>(917, "inMarkingState"));
  constexpr auto kAfterLinkages =
      918 + std::tuple_size_v<decltype(T::Linkages::template attributes<KelpSwTable>())>;
  static_assert(kAfterLinkages >= 918 && kAfterLinkages <= 920 &&
                isAttribute<KelpSwTable>(kAfterLinkages, "handleInitialized"));
  LUMEN_TRACE(swTableTraceHandle<T>(), 8, className(),
              "doesMarkSweep: True hwErrorHandling: False");
  swTableHelperIs(Lumen::makeNode<Helper>());
  this->statsIs();
  this->resolverQueue().fetchAheadIs(&KelpSwTable::fetchAhead, this);
}

template <TableSpec T>
void KelpSwTable<T>::fetchAhead(const void* table, const void* operation, bool near) {
  const auto& self = *static_cast<const KelpSwTable*>(table);
  const Key& key = static_cast<const Wrapper*>(operation)->key();
  if (!near) {
    self.transientAddEntry_.fetchAhead(self.transientAddEntry_.hashed(key));
    self.transientVersionForKey_.fetchAhead(self.transientVersionForKey_.hashed(key));
  }
  self.entryLog_->fetchAhead(key, self.unitId(), near);
}

// --- the table: operations

template <TableSpec T>
Lumen::Ptr<const typename KelpSwTable<T>::Base::EntryHandle> KelpSwTable<T>::entryWrite(
    const Key& key, const Entry& entry,
    const Lumen::Ptr<const Asic::DependencyEntryHandle>& dependency) {
  LUMEN_TRACE(swTableTraceHandle<T>(), 8, className(), " key: {}", key);
  return entryWriteWithResponseHandler(key, entry, dependency, ResponseHandler());
}

template <TableSpec T>
Lumen::Ptr<const typename KelpSwTable<T>::Base::EntryHandle>
KelpSwTable<T>::entryWriteWithResponseHandler(
    const Key& key, const Entry& entry,
    const Lumen::Ptr<const Asic::DependencyEntryHandle>& dependency,
    const ResponseHandler& handler) {
  LUMEN_TRACE(swTableTraceHandle<T>(), 8, className(), " key: {}", key);
  return this->withLinkages([&](auto*... linkages) {
    return SwTableAccessor<T>(this).template entryWriteGeneric<Resolver, Wrapper>(
        key, entry, dependency, handler, linkages...);
  });
}

template <TableSpec T>
Lumen::Ptr<const typename KelpSwTable<T>::Base::EntryHandle> KelpSwTable<T>::entryRemove(
    const Key& key, const Lumen::Ptr<const Asic::DependencyEntryHandle>& dependency) {
  LUMEN_TRACE(swTableTraceHandle<T>(), 8, className(), " key: {}", key);
  return entryRemoveWithResponseHandler(key, dependency, ResponseHandler());
}

template <TableSpec T>
Lumen::Ptr<const typename KelpSwTable<T>::Base::EntryHandle>
KelpSwTable<T>::entryRemoveWithResponseHandler(
    const Key& key, const Lumen::Ptr<const Asic::DependencyEntryHandle>& dependency,
    const ResponseHandler& handler) {
  LUMEN_TRACE(swTableTraceHandle<T>(), 8, className(), " key: {}", key);
  return SwTableAccessor<T>(this).template entryRemoveGeneric<Resolver, Wrapper>(key, dependency,
                                                                                 handler);
}

template <TableSpec T>
void KelpSwTable<T>::entryRemoveAll(
    const Lumen::Ptr<const Asic::DependencyEntryHandle>& dependency) {
  LUMEN_TRACE(swTableTraceHandle<T>(), 8, className(), "");
  entryRemoveAllWithResponseHandler(dependency, ResponseHandler());
}

template <TableSpec T>
void KelpSwTable<T>::entryRemoveAllWithResponseHandler(
    const Lumen::Ptr<const Asic::DependencyEntryHandle>& dependency,
    const ResponseHandler& handler) {
  LUMEN_TRACE(swTableTraceHandle<T>(), 8, className(), "");
  SwTableAccessor<T>(this).template entryRemoveAllGeneric<Resolver, Wrapper>(dependency, handler);
}

template <TableSpec T>
void KelpSwTable<T>::tableStatusVersion(Asic::LogVersion version) {
  SwTableAccessor<T>(this).tableStatusVersion(version);
}

template <TableSpec T>
bool KelpSwTable<T>::hasPendingHwWrites() const {
  LUMEN_TRACE(swTableTraceHandle<T>(), 8, className(), "");
  const bool pending = !transientAddEntry_.empty() || !transientRemoveEntry_.empty() ||
                       transientRemoveAllVersion_.valid() ||
                       entryLog_->lastCleanedVersion() != entryLog_->tableVersion();
  LUMEN_TRACE(swTableTraceHandle<T>(), 3, className(),
              " pendingHwWrites for swTable: tableId: {}, unitId{} is {}", this->tableId(),
              this->unitId(), pending);
  return pending;
}

template <TableSpec T>
void KelpSwTable<T>::mark() {
  LUMEN_TRACE(swTableTraceHandle<T>(), 8, className(), "");
  inMarkingStateIs(true);
}

template <TableSpec T>
void KelpSwTable<T>::sweep() {
  const unsigned count = SwTableAccessor<T>(this).sweep();
  static BriskTrace::Site site;
  BriskTrace::report(site, className(), __func__, "Swept {} entries", count);
  LUMEN_TRACE(swTableTraceHandle<T>(), 6, className(), "Swept {} entries", count);
}

template <TableSpec T>
bool KelpSwTable<T>::isResolverEntryResolved(const Lumen::Ptr<Resolver>& entry) {
  return this->withLinkages([&](auto*... linkages) {
    return SwTableAccessor<T>(this).isResolverEntryResolved(entry, linkages...);
  });
}

template <TableSpec T>
void KelpSwTable<T>::checkResolverEntry(const Lumen::Ptr<Asic::ResolverEntry>& entry) const {
  const auto own = Lumen::dynamicPtrCast<Resolver>(entry);
  if (!own || own->swTable() != this) {
    throw Lumen::Exception(
        fmt::format("no operation of {}: take one from its resolver queue", className()));
  }
}

template <TableSpec T>
void KelpSwTable<T>::commitEntry(const Lumen::Ptr<Asic::ResolverEntry>& entry) {
  this->withLinkages([&](auto*... linkages) {
    SwTableAccessor<T>(this).template commitEntry<Resolver, Wrapper>(entry, linkages...);
  });
}

template <TableSpec T>
Lumen::Ptr<Asic::NeededEntry> KelpSwTable<T>::getNeededEntrySet(
    const Lumen::Ptr<const Wrapper>& wrapper) {
  return this->withLinkages([&](auto*... linkages) {
    return SwTableAccessor<T>(this).getNeededEntrySet(wrapper, linkages...);
  });
}

template <TableSpec T>
void KelpSwTable<T>::setRsrcPtrs(const Lumen::Ptr<Wrapper>& wrapper, bool refresh) {
  this->withLinkages([&](auto*... linkages) {
    SwTableAccessor<T>(this).setRsrcPtrs(wrapper, refresh, linkages...);
  });
}

template <TableSpec T>
Lumen::Ptr<const Asic::OrderedSwTable::EntryHandle> KelpSwTable<T>::updateEntry(const Key& key) {
  return this->withLinkages([&](auto*... linkages) {
    return SwTableAccessor<T>(this).template updateEntry<Key, Wrapper>(key, linkages...);
  });
}

template <TableSpec T>
void KelpSwTable<T>::restoreEntries() {
  this->withLinkages([&](auto*... linkages) {
    if constexpr (sizeof...(linkages) != 0) {
      SwTableAccessor<T>(this).template restoreEntries<Wrapper>(linkages...);
    }
  });
}

template <TableSpec T>
void KelpSwTable<T>::clearTable(bool releaseResources) {
  LUMEN_TRACE(swTableTraceHandle<T>(), 8, className(), "");
  Lumen::Ptr<EntryHandle> handle;
  this->withLinkages([&](auto*... linkages) {
    SwTableAccessor<T>(this).template delAllEntries<Wrapper>(releaseResources, nullptr, handle,
                                                             linkages...);
  });
}

// --- the table: reads

template <TableSpec T>
typename T::Entry KelpSwTable<T>::entryRead(const Key& key) const {
  LUMEN_TRACE(swTableTraceHandle<T>(), 8, className(), " key: {}", key);
  return SwTableReader<T>(this).template entryReadGeneric<Entry>(key);
}

template <TableSpec T>
typename T::Entry KelpSwTable<T>::entry(const Key& key) const {
  return KelpSwTable::entryRead(key);
}

template <TableSpec T>
bool KelpSwTable<T>::entryHas(const Key& key) const {
  LUMEN_TRACE(swTableTraceHandle<T>(), 8, className(), "key: {}", key);
  if (transientAddEntry_[key] != nullptr) {
    return true;
  }
  if (transientRemoveEntry_[key] != nullptr || transientRemoveAllVersion_.valid()) {
    return false;
  }
  return entryLog_->entryHas(key, this->unitId());
}

template <TableSpec T>
unsigned KelpSwTable<T>::entrys() const {
  if (transientRemoveAllVersion_.valid()) {
    return transientAddEntry_.size();
  }
  unsigned added = transientAddEntry_.size();
  unsigned removed = transientRemoveEntry_.size();
  const unsigned logged = entryLog_->entrys(this->unitId());
  for (const auto& node : transientAddEntry_) {
    if (entryLog_->entryHas(node.key(), this->unitId())) {
      --added;
    }
  }
  for (const auto& node : transientRemoveEntry_) {
    if (!entryLog_->entryHas(node.key(), this->unitId())) {
      --removed;
    }
  }
  return added + logged - removed;
}

template <TableSpec T>
typename T::Entry KelpSwTable<T>::entryFromConfig(const Key& key) const {
  return SwTableReader<T>(this).template entryFromConfig<Entry>(key);
}

template <TableSpec T>
typename KelpSwTable<T>::EntryIteratorConst KelpSwTable<T>::entryIteratorConst(
    const Key& key) const {
  auto state = initIterStateFromKey(key);
  const Entry first = state->maybeUpdateCurrentEntry();
  return EntryIteratorConst(this, std::move(state), first);
}

template <TableSpec T>
typename KelpSwTable<T>::EntryIteratorConst KelpSwTable<T>::entryIteratorConst() const {
  auto state = initIterState();
  const Entry first = state->maybeUpdateCurrentEntry();
  return EntryIteratorConst(this, std::move(state), first);
}

template <TableSpec T>
Lumen::Ptr<typename KelpSwTable<T>::Base::IteratorState> KelpSwTable<T>::initIterState() const {
  using State = typename Base::IteratorState::State;
  auto state = Lumen::makeNode<IteratorState>();
  state->swTableIs(this);
  state->state().set(State::kSkipTblCfg, transientRemoveAllVersion_.valid());
  state->state().set(State::kInAddColl, true);
  return state;
}

template <TableSpec T>
Lumen::Ptr<typename KelpSwTable<T>::Base::IteratorState> KelpSwTable<T>::initIterStateFromKey(
    const Key& key) const {
  using State = typename Base::IteratorState::State;
  LUMEN_TRACE(swTableTraceHandle<T>(), 8, className(), " key: {}", key);
  auto state = Lumen::makeNode<IteratorState>();
  state->swTableIs(this);
  state->state().set(State::kSkipTblCfg, transientRemoveAllVersion_.valid());
  state->state().set(State::kHasBookmark, true);
  state->bookmarkKeyIs(key);
  if (transientAddEntry_[key] != nullptr) {
    state->state().set(State::kInAddColl, true);
  } else if (!state->state().skipTblCfg() && entryLog_->entryHas(key, this->unitId())) {
    state->state().set(State::kInTblCfg, true);
  }
  return state;
}

}  // namespace KelpEmServer
