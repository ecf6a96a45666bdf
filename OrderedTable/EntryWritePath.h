#pragma once

#include <utility>

#include "Asic/EntryFlags.h"
#include "Asic/GroupResolver.h"
#include "Asic/OrderedSwTableSet.h"
#include "Lumen/Assert.h"
#include "Lumen/Trace.h"
#include "OrderedTable/OrderedSwTableAccessor.h"

namespace Asic {

template <class T>
template <class Key>
EntryVersion OrderedSwTableAccessor<T>::nextVersion(const Key& key) {
  bool found = true;
  const EntryVersion version =
      t_->transientVersionForKeyUpdate(key, [&](const EntryVersion* currEntryVersion) {
        if (currEntryVersion == nullptr) {
          found = false;
          return EntryVersion();
        }
        Lumen::assertThat(currEntryVersion->valid(), "currEntryVersion.valid()");
        return currEntryVersion->next();
      });
  if (!found) {
    LUMEN_TRACE(_defaultTraceHandle(), 8, "", " Key: {} not found in entry version collection",
                key);
  }
  return version;
}

template <class T>
template <class ResolverEntryT, class EntryWrapper, class Key, class Entry, class... Args>
Lumen::Ptr<const typename OrderedSwTableAccessor<T>::EntryHandle>
OrderedSwTableAccessor<T>::entryWriteGeneric(
    const Key& key, const Entry& entry, const Lumen::Ptr<const DependencyEntryHandle>& dependency,
    const ResponseHandler& handler, Args... linkages) {
  LUMEN_TRACE(_defaultTraceHandle(), 8, "", "key: {}", key);
  const EntryVersion version = nextVersion(key);
  if (t_->inMarkingState()) {
    t_->markedKeyIs(key);
  }
  const Lumen::Ptr<EntryHandle> handle = Table::entryHandleFactory(version, key, t_);
  handle->responseHandlerIs(handler);
  handle->entryStateIs(EntryState::entryStateUnresolved);
  const Lumen::Ptr<EntryWrapper> wrapper = Lumen::makeNode<EntryWrapper>(entry, handle);
  wrapper->keyIs(key);
  t_->transientRemoveEntryDel(key);
  t_->transientAddEntryIs(wrapper);
  (linkages->resolveEntry(wrapper), ...);
  const EntryFlags flags =
      t_->inMarkingState() ? EntryFlags::suppressIdenticalWrites : EntryFlags::none;
  const Lumen::Ptr<ResolverEntry> resolverEntry(new ResolverEntryT(dependency, flags, t_, wrapper));
  t_->groupResolver()->resolverQueueEnq(resolverEntry);
  t_->groupResolver()->updateGenId();
  LUMEN_TRACE(_defaultTraceHandle(), 2, "", "Done processing write for key: {} ", key);
  t_->stats()->entryWriteCntInc(1);
  t_->groupResolver()->maybeUpdateSuspend();
  t_->swTableSet()->maybeUpdatePendingHwWrites();
  return handle;
}

template <class T>
template <class EntryWrapper, class... Args>
void OrderedSwTableAccessor<T>::setRsrcPtrs(const Lumen::Ptr<EntryWrapper>& wrapper, bool refresh,
                                            Args... linkages) {
  LUMEN_TRACE(_defaultTraceHandle(), 8, "", "key: {}, refresh: {}", wrapper->key(), refresh);
  if (refresh) {
    (linkages->resolveEntry(wrapper), ...);
  } else {
    (linkages->setResourceHandle(wrapper), ...);
  }
}

}  // namespace Asic
