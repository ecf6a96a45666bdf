#pragma once

#include <type_traits>

#include "Lumen/Assert.h"
#include "Lumen/Exception.h"
#include "Lumen/Trace.h"
#include "OrderedTable/OrderedSwTableAccessor.h"

namespace Asic {

template <class T>
template <class Key, class EntryWrapper, class... Args>
Lumen::Ptr<const OrderedSwTable::EntryHandle> OrderedSwTableAccessor<T>::updateEntry(
    const Key& key, Args... linkages) {
  const auto& entryLog = t_->entryLog();
  const typename std::remove_reference_t<decltype(*entryLog)>::ConfigRecord* record = nullptr;
  if (!entryLog->entryHas(key, t_->unitId(), record)) {
    LUMEN_TRACE(_defaultTraceHandle(), 3, "", " key: {} entry does not exist ", key);
    return nullptr;
  }
  Lumen::Ptr<EntryHandle> handle;
  const Lumen::Ptr<EntryWrapper> wrapper =
      entryWrapperFromConfig<EntryWrapper>(*record, key, false, handle);
  const auto logged = wrapper->logEntry();
  wrapper->setResolvedFields();
  const bool resolved = checkResolveSuccess(wrapper, linkages...);
  const Lumen::Ptr<Table> table(t_);
  const bool commitToLog = t_->swTableHelper()->finalizeOnResourceUpdate(wrapper, table, !resolved);
  if (!resolved) {
    LUMEN_TRACE(_defaultTraceHandle(), 3, "", " key: {}, some resource had failed", key);
    t_->stats()->updateWithFailedResourceCntInc(1);
  }
  if (!wrapper->logEntry().isEq(logged) && commitToLog) {
    const Lumen::Ptr<NeededEntry> neededEntry = t_->getNeededEntrySet(wrapper);
    const LogVersion version = entryLog->entryIs(wrapper->logEntry(), wrapper->rsrcKeys(),
                                                 neededEntry, t_->unitId(), t_->stats(), false);
    handle->logVersionIs(version);
    handle->entryStateIs(EntryState::entryStateInLog);
    t_->stats()->updateCntInc(1);
    LUMEN_TRACE(_defaultTraceHandle(), 3, "", " key: {}, neededEntry: {}, entryLogVersion: {} ",
                key, neededEntry, version);
  } else {
    LUMEN_TRACE(_defaultTraceHandle(), 3, "",
                " key: {}, commitToLog: {}, no change in logEntry or don't commit to log", key,
                commitToLog);
    handle->logVersionIs(entryLog->entryLogVersion(key, t_->unitId()));
    handle->entryStateIs(EntryState::entryStateInLog);
  }
  return handle;
}

template <class T>
template <class EntryWrapper, class... Linkage>
void OrderedSwTableAccessor<T>::restoreEntries(Linkage... linkages) {
  LUMEN_TRACE(_defaultTraceHandle(), 8, "", "");
  const auto configQuilt = t_->entryLog()->tableConfigQuilt(t_->unitId());
  if (!configQuilt) {
    return;
  }
  t_->entryLog()->forEachRecord(*configQuilt, [&](const auto& record) {
    if (record.isDeleted != 0) {
      return;
    }
    Lumen::Ptr<EntryHandle> handle;
    const Lumen::Ptr<EntryWrapper> wrapper =
        entryWrapperFromConfig<EntryWrapper>(record, record.quiltKey(), true, handle);
    (linkages->restoreEntry(wrapper), ...);
  });
  (linkages->handleResourceChangeAtInit(), ...);
}

template <class T>
template <class EntryWrapper, class... Args>
void OrderedSwTableAccessor<T>::delAllEntries(bool releaseResources,
                                              const Lumen::Ptr<const NeededEntry>& neededEntry,
                                              Lumen::Ptr<EntryHandle>& entryHandle,
                                              Args... linkages) {
  LUMEN_TRACE(_defaultTraceHandle(), 8, "", " releaseResources: {}, neededEntry:{} ",
              releaseResources, neededEntry);
  const auto configQuilt = t_->entryLog()->tableConfigQuilt(t_->unitId());
  if (!configQuilt || configQuilt->swTableEntries().size() == 0) {
    return;
  }
  if constexpr (sizeof...(Args) != 0) {
    if (releaseResources) {
      t_->entryLog()->forEachRecord(*configQuilt, [&](const auto& record) {
        if (record.isDeleted != 0) {
          return;
        }
        const Lumen::Ptr<EntryWrapper> wrapper =
            entryWrapperFromConfig<EntryWrapper>(record, record.quiltKey(), false, entryHandle);
        const auto& oldEntry = wrapper->entry();
        (linkages->updateLocalUsage(wrapper, oldEntry, true), ...);
      });
    }
  }
  const LogVersion version = t_->entryLog()->tableDel(neededEntry, t_->unitId());
  if (entryHandle) {
    entryHandle->logVersionIs(version);
    entryHandle->entryStateIs(EntryState::entryStateInLog);
  }
  t_->stats()->tableClearCntInc(1);
}

template <class T>
unsigned OrderedSwTableAccessor<T>::sweep() {
  LUMEN_TRACE(_defaultTraceHandle(), 8, "", "");
  unsigned count = 0;
  if (!t_->inMarkingState()) {
    return count;
  }
  const typename Table::Entry defaultEntry;
  const auto iter = t_->initIterState();
  auto entry = iter->maybeUpdateCurrentEntry();
  while (!entry.isEq(defaultEntry)) {
    Lumen::assertThat(iter && iter->state().valid(), "iter_");
    if (t_->markedKey()[entry.logEntry.key] == nullptr) {
      (void)t_->entryRemove(entry.logEntry.key, nullptr);
      ++count;
    }
    Lumen::assertThat(iter && iter->state().valid(), "iter_");
    entry = iter->maybeUpdateCurrentEntry();
  }
  t_->inMarkingStateIs(false);
  t_->markedKeyDelAll();
  return count;
}

}  // namespace Asic
