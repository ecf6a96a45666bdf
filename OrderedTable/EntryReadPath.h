#pragma once

#include "Lumen/Exception.h"
#include "Lumen/Trace.h"
#include "OrderedTable/OrderedSwTableAccessor.h"

namespace Asic {

template <class T>
template <class Entry, class Key>
Entry OrderedSwTableAccessor<T>::entryReadGeneric(const Key& key) const {
  LUMEN_TRACE(_defaultTraceHandle(), 8, "", "key: {}", key);
  if (const auto* node = t_->transientAddEntry()[key]) {
    return node->value()->entry();
  }
  if (t_->transientRemoveEntry()[key] != nullptr) {
    return Entry();
  }
  if (t_->entryLog()->entryHas(key, t_->unitId())) {
    return t_->entryFromConfig(key);
  }
  LUMEN_TRACE(_defaultTraceHandle(), 1, "", "Failed to find entry for key: {}", key);
  return Entry();
}

template <class T>
template <class Entry, class Key>
Entry OrderedSwTableAccessor<T>::entryFromConfig(const Key& key) const {
  return entryFromConfig(t_->entryLog()->configRecord(key, t_->unitId()), key);
}

template <class T>
template <class Record, class Key>
const auto& OrderedSwTableAccessor<T>::entryFromConfig(const Record& record, const Key& key) const {
  LUMEN_TRACE(_defaultTraceHandle(), 8, "", "key: {}", key);
  // A record that equals the default one counts as absent, and its entry is the default entry then.
  static const typename Record::Entry none;
  return record.isDeleted != 0 ? none : record.entry;
}

template <class T>
template <class EntryWrapper, class Key>
Lumen::Ptr<EntryWrapper> OrderedSwTableAccessor<T>::entryWrapperFromConfig(
    const Key& key, bool refreshRsrcPtrs, Lumen::Ptr<EntryHandle>& entryHandle) {
  return entryWrapperFromConfig<EntryWrapper>(t_->entryLog()->configRecord(key, t_->unitId()), key,
                                              refreshRsrcPtrs, entryHandle);
}

template <class T>
template <class EntryWrapper, class Record, class Key>
Lumen::Ptr<EntryWrapper> OrderedSwTableAccessor<T>::entryWrapperFromConfig(
    const Record& record, const Key& key, bool refreshRsrcPtrs,
    Lumen::Ptr<EntryHandle>& entryHandle) {
  LUMEN_TRACE(_defaultTraceHandle(), 8, "", "key: {}, refreshRsrcPtrs: {}", key, refreshRsrcPtrs);
  const auto& entry = OrderedSwTableAccessor<const T>(t_).entryFromConfig(record, key);
  if (!entryHandle) {
    entryHandle = Table::entryHandleFactory(EntryVersion(), key, t_);
  }
  const Lumen::Ptr<EntryWrapper> wrapper = Lumen::makeNode<EntryWrapper>(entry, entryHandle);
  wrapper->keyIs(key);
  t_->setRsrcPtrs(wrapper, refreshRsrcPtrs);
  wrapper->retrieveClientData();
  return wrapper;
}

}  // namespace Asic
