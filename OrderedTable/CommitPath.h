#pragma once

#include "Asic/EntryFlags.h"
#include "Asic/GroupResolver.h"
#include "Asic/OrderedSwTableSet.h"
#include "Brio/System.h"
#include "Lumen/Assert.h"
#include "Lumen/Trace.h"
#include "OrderedTable/OrderedSwTableAccessor.h"
#include "OrderedTable/RunOnAllResourceLinkages.h"

namespace Asic {

template <class T>
template <class ResolverEntryT, class... Args>
bool OrderedSwTableAccessor<T>::isResolverEntryResolved(const Lumen::Ptr<ResolverEntryT>& entry,
                                                        Args... linkages) {
  const auto& wrapper = entry->swTableEntry();
  const auto& key = wrapper->key();
  const bool isEntryDeleted = entry->isEntryDeleted();
  if (!t_->entryLog()->hasRoomInLog()) {
    LUMEN_TRACE(_defaultTraceHandle(), 1, "", "key: {}, isEntryDeleted: {} : no space in entryLog!",
                key, isEntryDeleted);
    return false;
  }
  if (const auto& dependency = entry->dependency()) {
    if (dependency->entryState() == EntryState::entryStateUnresolved) {
      LUMEN_TRACE(_defaultTraceHandle(), 3, "", "key: {} dependant entry not yet resolved", key);
      return false;
    }
    LUMEN_TRACE(_defaultTraceHandle(), 3, "", "key: {} dependant entry is resolved", key);
  }
  if (!isEntryDeleted) {
    t_->setRsrcPtrs(wrapper, true);
    if (!resAccessorCheckResolved(wrapper, linkages...)) {
      return false;
    }
  }
  LUMEN_TRACE(_defaultTraceHandle(), 3, "",
              "key: {}, isEntryDeleted: {}, isTableDeleted: {}, resolved: true", key,
              isEntryDeleted, entry->isTableDeleted());
  return true;
}

// One linkage after the other, and not in a lambda: a trace tells the function that it comes from.
template <class T>
template <class Wrapper, class First, class... Rest>
bool OrderedSwTableAccessor<T>::resAccessorCheckResolved(const Wrapper& wrapper, First linkage,
                                                         Rest... rest) {
  if (linkage->entryResolutionState(wrapper) == EntryState::entryStateUnresolved) {
    LUMEN_TRACE(_defaultTraceHandle(), 3, "",
                "SwTable key: {}, resourceKey: {} is still unresolved!", wrapper->key(),
                linkage->resourceKey(wrapper));
    return false;
  }
  return resAccessorCheckResolved(wrapper, rest...);
}

template <class T>
template <class Wrapper, class First, class... Rest>
bool OrderedSwTableAccessor<T>::checkResolveSuccess(const Wrapper& wrapper, First linkage,
                                                    Rest... rest) {
  if (linkage->entryResolutionState(wrapper) != EntryState::entryStateSuccess) {
    LUMEN_TRACE(_defaultTraceHandle(), 3, "",
                "SwTable key: {}, resourceKey: {} has failed resolution!", wrapper->key(),
                linkage->resourceKey(wrapper));
    return false;
  }
  return checkResolveSuccess(wrapper, rest...);
}

template <class T>
template <class Wrapper>
Lumen::Ptr<NeededEntry> OrderedSwTableAccessor<T>::getNeededEntrySet(const Wrapper& wrapper) {
  LUMEN_TRACE(_defaultTraceHandle(), 8, "", "key: {}", wrapper->key());
  return Lumen::makeNode<NeededEntry>();
}

template <class T>
template <class Wrapper, class First, class... Rest>
Lumen::Ptr<NeededEntry> OrderedSwTableAccessor<T>::getNeededEntrySet(const Wrapper& wrapper,
                                                                     First linkage, Rest... rest) {
  LUMEN_TRACE(_defaultTraceHandle(), 8, "", "key: {}", wrapper->key());
  const Lumen::Ptr<NeededEntry> needed = linkage->getNeededEntrySet(wrapper);
  if (needed) {
    if constexpr (sizeof...(rest) != 0) {
      needed->merge(getNeededEntrySet(wrapper, rest...));
    } else {
      // The set of no linkage is empty: only its trace is left of it.
      LUMEN_TRACE(_defaultTraceHandle(), 8, "", "key: {}", wrapper->key());
    }
  }
  return needed;
}

template <class T>
template <class Collection, class Delete, class Key>
void OrderedSwTableAccessor<T>::dropTransientState(const Collection& collection, Delete del,
                                                   const Key& key, const EntryVersion& version) {
  const auto* node = collection[key];
  if (node == nullptr || !node->value()->entryHandle()->version().isEq(version)) {
    return;
  }
  (t_->*del)(key);
  t_->transientVersionForKeyDel(key);
}

template <class T>
void OrderedSwTableAccessor<T>::endOfOperation() {
  t_->groupResolver()->maybeUpdateSuspend();
  t_->swTableSet()->maybeUpdatePendingHwWrites();
  t_->stats()->lastCommitTimeIs(Brio::System::currentTimeUtc());
  t_->stats()->commitCntInc(1);
}

template <class T>
template <class ResolverEntryT, class EntryWrapper, class... Args>
void OrderedSwTableAccessor<T>::commitEntry(const Lumen::Ptr<ResolverEntry>& entry,
                                            Args... linkages) {
  const Lumen::Ptr<ResolverEntryT> resolverEntry = Lumen::staticPtrCast<ResolverEntryT>(entry);
  const Lumen::Ptr<const DependencyEntryHandle> dependency = resolverEntry->dependency();
  const Lumen::Ptr<EntryWrapper> wrapper = resolverEntry->swTableEntry();
  const auto& key = wrapper->key();
  const bool isEntryDelete = resolverEntry->isEntryDeleted();
  const bool isTableDelete = resolverEntry->isTableDeleted();
  LUMEN_TRACE(_defaultTraceHandle(), 8, "", "Entry: {}, isEntryDeleted: {}, isTableDeleted: {}",
              key, isEntryDelete, isTableDelete);
  Lumen::assertThat(!(isEntryDelete && isTableDelete), "!( isEntryDelete && isTableDelete )");
  Lumen::Ptr<EntryHandle> entryHandle = Lumen::staticPtrCast<EntryHandle>(wrapper->entryHandle());
  Lumen::assertThat(entryHandle != nullptr, "entryHandle != NULL");
  const EntryVersion entryConfVersion = entryHandle->version();
  Lumen::assertThat(isTableDelete || entryConfVersion.valid(), "entryConfVersion.valid()");

  // A response handler may end the agent: both stay until the operation has.
  const Lumen::Ptr<Table> table(t_);
  const Lumen::Ptr<OrderedSwTableSet> swTableSet(t_->swTableSet());

  const auto end = [&](EntryState state) {
    entryHandle->entryStateIs(state);
    const ResponseHandler handler = entryHandle->responseHandler();
    if (handler) {
      handler(entryHandle);
    }
  };
  [[maybe_unused]] const auto updateUsage = [](auto linkage, const auto& of, const auto& oldEntry) {
    linkage->updateLocalUsage(of->swTableEntry(), oldEntry, of->isEntryDeleted());
  };
  const auto neededWithDependency = [&](const Lumen::Ptr<NeededEntry>& needed) {
    if (dependency) {
      needed->add(dependency->entryTableVersion());
    }
    return needed;
  };

  if (dependency && isFailed(dependency->entryState())) {
    // The transient state stays as it is, until a further operation on the key supersedes it.
    if (isTableDelete) {
      LUMEN_TRACE(_defaultTraceHandle(), 1, "", "Failed dependent entry for remove all");
      LUMEN_TRACE(_defaultTraceHandle(), 1, "", "Failed to commit entry remove all operation");
    } else {
      LUMEN_TRACE(_defaultTraceHandle(), 1, "", "Failed dependent entry for key: {}", key);
      LUMEN_TRACE(_defaultTraceHandle(), 1, "", "Failed to commit entry key: {}", key);
    }
    end(EntryState::entryStateFailed);
    endOfOperation();
    return;
  }

  if (isTableDelete) {
    const MajorVersion currRemoveAllVersion = t_->transientRemoveAllVersion();
    Lumen::assertThat(currRemoveAllVersion.valid(), "currRemoveAllVersion.valid()");
    LUMEN_TRACE(_defaultTraceHandle(), 8, "", "Committing table delete for version: {}",
                currRemoveAllVersion);
    const Lumen::Ptr<NeededEntry> neededEntry =
        neededWithDependency(t_->getNeededEntrySet(wrapper));
    delAllEntries<EntryWrapper>(true, neededEntry, entryHandle, linkages...);
    t_->transientRemoveAllVersionIs(MajorVersion{
        currRemoveAllVersion.value == 0 ? MajorVersion::kInvalid : currRemoveAllVersion.value - 1});
    endOfOperation();
    return;
  }

  if (isEntryDelete) {
    const auto oldEntry = t_->entryFromConfig(key);
    const Lumen::Ptr<NeededEntry> neededEntry =
        neededWithDependency(Lumen::makeNode<NeededEntry>());
    dropTransientState(t_->transientRemoveEntry(), &Table::transientRemoveEntryDel, key,
                       entryConfVersion);
    wrapper->finalizeOnSuccess(table, true);
    const LogVersion version = t_->entryLog()->entryDel(key, neededEntry, t_->unitId());
    entryHandle->logVersionIs(version);
    if (version.value != 0) {
      entryHandle->entryStateIs(EntryState::entryStateInLog);
      t_->entryHandleInLogEnq(entryHandle);
    } else {
      end(EntryState::entryStateSuccess);
    }
    runOnAllResourceLinkages(updateUsage, resolverEntry, oldEntry, linkages...);
    endOfOperation();
    return;
  }

  const bool resolved = checkResolveSuccess(wrapper, linkages...);
  bool commit = t_->entryLog()->hasRoomFor(key, t_->unitId());
  if (commit && resolved) {
    wrapper->finalizeOnSuccess(table, false);
  } else if (commit) {
    t_->stats()->resolveFailCntInc(1);
    commit = wrapper->finalizeOnFailure(table, false);
  }
  dropTransientState(t_->transientAddEntry(), &Table::transientAddEntryDel, key, entryConfVersion);
  if (!commit) {
    LUMEN_TRACE(_defaultTraceHandle(), 1, "", "Failed to commit entry key: {}", key);
    end(EntryState::entryStateFailed);
    endOfOperation();
    return;
  }
  const Lumen::Ptr<NeededEntry> neededEntry = t_->getNeededEntrySet(wrapper);
  const auto oldEntry = t_->entryFromConfig(key);
  neededWithDependency(neededEntry);
  const LogVersion version = t_->entryLog()->entryIs(
      wrapper->logEntry(), wrapper->rsrcKeys(), neededEntry, t_->unitId(), t_->stats(),
      has(resolverEntry->flags(), EntryFlags::suppressIdenticalWrites));
  entryHandle->logVersionIs(version);
  if (version > t_->entryLog()->lastCleanedVersion()) {
    entryHandle->entryStateIs(EntryState::entryStateInLog);
    t_->entryHandleInLogEnq(entryHandle);
  } else {
    end(EntryState::entryStateSuccess);
  }
  runOnAllResourceLinkages(updateUsage, resolverEntry, oldEntry, linkages...);
  endOfOperation();
}

template <class T>
void OrderedSwTableAccessor<T>::tableStatusVersion(LogVersion version) {
  LUMEN_TRACE(_defaultTraceHandle(), 8, "", "tableVersion: {}", version);
  t_->entryLog()->cleanupEntryLog(version);
  t_->groupResolver()->updateGenId();
  // The queue is read anew at each turn: a handler may write.
  while (const Lumen::Ptr<EntryHandle> handle = t_->entryHandleInLogFront()) {
    if (handle->logVersion() > version) {
      break;
    }
    t_->entryHandleInLogDeq();
    LUMEN_TRACE(_defaultTraceHandle(), 3, "", "Processing version: {}, key: {}",
                handle->logVersion(), handle->key());
    handle->entryStateIs(EntryState::entryStateSuccess);
    const ResponseHandler handler = handle->responseHandler();
    if (handler) {
      handler(handle);
    }
  }
  t_->swTableSet()->maybeUpdatePendingHwWrites();
}

}  // namespace Asic
