#pragma once

#include "OrderedTable/EntryWritePath.h"

namespace Asic {

template <class T>
template <class ResolverEntryT, class EntryWrapper, class Key>
Lumen::Ptr<const typename OrderedSwTableAccessor<T>::EntryHandle>
OrderedSwTableAccessor<T>::entryRemoveGeneric(
    const Key& key, const Lumen::Ptr<const DependencyEntryHandle>& dependency,
    const ResponseHandler& handler) {
  LUMEN_TRACE(_defaultTraceHandle(), 8, "", " Key: {} ", key);
  const EntryVersion version = nextVersion(key);
  const Lumen::Ptr<EntryHandle> handle = Table::entryHandleFactory(version, key, t_);
  handle->responseHandlerIs(handler);
  handle->entryStateIs(EntryState::entryStateUnresolved);
  const Lumen::Ptr<EntryWrapper> wrapper =
      Lumen::makeNode<EntryWrapper>(typename Table::Entry(), handle);
  wrapper->keyIs(key);
  const Lumen::Ptr<ResolverEntry> resolverEntry(
      new ResolverEntryT(dependency, EntryFlags::entryDeleted, t_, wrapper));
  t_->transientAddEntryDel(key);
  t_->transientRemoveEntryIs(wrapper);
  t_->groupResolver()->resolverQueueEnq(resolverEntry);
  t_->groupResolver()->updateGenId();
  LUMEN_TRACE(_defaultTraceHandle(), 2, "", " Done processing remove for key: {} ", key);
  t_->stats()->entryRemoveCntInc(1);
  t_->groupResolver()->maybeUpdateSuspend();
  t_->swTableSet()->maybeUpdatePendingHwWrites();
  return handle;
}

template <class T>
template <class ResolverEntryT, class EntryWrapper>
void OrderedSwTableAccessor<T>::entryRemoveAllGeneric(
    const Lumen::Ptr<const DependencyEntryHandle>& dependency, const ResponseHandler& handler) {
  LUMEN_TRACE(_defaultTraceHandle(), 8, "", "");
  const Lumen::Ptr<EntryHandle> handle =
      Table::entryHandleFactory(EntryVersion(), typename Table::Key(), t_);
  handle->responseHandlerIs(handler);
  handle->entryStateIs(EntryState::entryStateUnresolved);
  const Lumen::Ptr<EntryWrapper> wrapper =
      Lumen::makeNode<EntryWrapper>(typename Table::Entry(), handle);
  wrapper->keyIs(typename Table::Key());
  const Lumen::Ptr<ResolverEntry> resolverEntry(
      new ResolverEntryT(dependency, EntryFlags::tableDeleted, t_, wrapper));
  // The versions stay, so that a later write of such a key goes on counting.
  t_->transientAddEntryDelAll();
  t_->transientRemoveEntryDelAll();
  const MajorVersion version = t_->transientRemoveAllVersion();
  if (version.valid()) {
    LUMEN_TRACE(_defaultTraceHandle(), 8, "", "Found valid table remove all version: {}", version);
    t_->transientRemoveAllVersionIs(MajorVersion{version.value + 1});
  } else {
    LUMEN_TRACE(_defaultTraceHandle(), 8, "", "No remove all operation currently enqueued");
    t_->transientRemoveAllVersionIs(MajorVersion{0});
  }
  t_->groupResolver()->resolverQueueEnq(resolverEntry);
  t_->groupResolver()->updateGenId();
  LUMEN_TRACE(_defaultTraceHandle(), 2, "", "Done processing remove all ");
  t_->groupResolver()->maybeUpdateSuspend();
  t_->swTableSet()->maybeUpdatePendingHwWrites();
}

}  // namespace Asic
