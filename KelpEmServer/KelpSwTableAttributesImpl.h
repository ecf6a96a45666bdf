#pragma once

// The writers of KelpSwTable's attributes. All follow one rule: an unchanged value publishes
// nothing, any other change publishes the attribute's number with the key and the old value.

#include "Brio/MutatorException.h"
#include "KelpEmServer/KelpSwTable.h"

namespace KelpEmServer {

template <TableSpec T>
void KelpSwTable<T>::swTableHelperIs(const Lumen::Ptr<Helper>& helper) {
  Brio::attributeIs(this->changes(), Brio::fieldId<KelpSwTable>("swTableHelper"), swTableHelper_,
                    helper);
}

template <TableSpec T>
template <class Collection>
void KelpSwTable<T>::transientEntryIs(Collection& collection, Lumen::FieldId field,
                                      const Lumen::Ptr<Wrapper>& wrapper) {
  if (!wrapper) {
    Brio::throwMutatorArgNullPointerException("value", field);
  }
  const Key& key = wrapper->key();
  const auto hashed = collection.hashed(key);
  Lumen::Ptr<Wrapper> old;
  if (auto* node = collection.find(hashed)) {
    old = node->value();
    if (old == wrapper) {
      return;
    }
    node->valueIs(wrapper);
  } else {
    collection.newMember(hashed, typename Collection::Node(wrapper));
  }
  this->changes().publishChangeRecursive(field, &key, &old);
}

template <TableSpec T>
template <class Collection>
Lumen::Ptr<KelpEntryWrapper<T>> KelpSwTable<T>::transientEntryDel(Collection& collection,
                                                                  Lumen::FieldId field,
                                                                  const Key& key) {
  if (collection.empty()) {
    return nullptr;
  }
  typename Collection::Node node{Lumen::Ptr<Wrapper>()};
  if (!collection.del(collection.hashed(key), &node)) {
    return nullptr;
  }
  const Lumen::Ptr<Wrapper> old = std::move(node.value());
  this->changes().publishChangeRecursive(field, &key, &old);
  return old;
}

// Empties a collection: at once when nobody listens, else member by member, so that each is told.
template <TableSpec T>
template <class Collection, class Delete>
void KelpSwTable<T>::delAll(Collection& collection, Delete del) {
  if (!this->changes().hasSubscribers()) {
    collection.delAll();
    return;
  }
  for (auto iter = collection.iterator(); iter; iter.advance()) {
    const Key key = iter.currNodeMaybeStale()->key();
    (this->*del)(key);
  }
}

template <TableSpec T>
Lumen::Ptr<KelpEntryWrapper<T>> KelpSwTable<T>::transientAddEntry(const Key& key) const {
  const auto* node = transientAddEntry_[key];
  return node == nullptr ? nullptr : node->value();
}

template <TableSpec T>
void KelpSwTable<T>::transientAddEntryIs(const Lumen::Ptr<Wrapper>& wrapper) {
  transientEntryIs(transientAddEntry_, Brio::fieldId<KelpSwTable>("transientAddEntry"), wrapper);
}

template <TableSpec T>
Lumen::Ptr<KelpEntryWrapper<T>> KelpSwTable<T>::transientAddEntryDel(const Key& key) {
  return transientEntryDel(transientAddEntry_, Brio::fieldId<KelpSwTable>("transientAddEntry"),
                           key);
}

template <TableSpec T>
void KelpSwTable<T>::transientAddEntryDelAll() {
  delAll(transientAddEntry_, &KelpSwTable::transientAddEntryDel);
}

template <TableSpec T>
Lumen::Ptr<KelpEntryWrapper<T>> KelpSwTable<T>::transientRemoveEntry(const Key& key) const {
  const auto* node = transientRemoveEntry_[key];
  return node == nullptr ? nullptr : node->value();
}

template <TableSpec T>
void KelpSwTable<T>::transientRemoveEntryIs(const Lumen::Ptr<Wrapper>& wrapper) {
  transientEntryIs(transientRemoveEntry_, Brio::fieldId<KelpSwTable>("transientRemoveEntry"),
                   wrapper);
}

template <TableSpec T>
Lumen::Ptr<KelpEntryWrapper<T>> KelpSwTable<T>::transientRemoveEntryDel(const Key& key) {
  return transientEntryDel(transientRemoveEntry_,
                           Brio::fieldId<KelpSwTable>("transientRemoveEntry"), key);
}

template <TableSpec T>
void KelpSwTable<T>::transientRemoveEntryDelAll() {
  delAll(transientRemoveEntry_, &KelpSwTable::transientRemoveEntryDel);
}

template <TableSpec T>
Asic::EntryVersion KelpSwTable<T>::transientVersionForKey(const Key& key) const {
  const auto* node = transientVersionForKey_[key];
  return node == nullptr ? Asic::EntryVersion::invalid() : node->value();
}

template <TableSpec T>
template <class Next>
Asic::EntryVersion KelpSwTable<T>::transientVersionForKeyUpdate(const Key& key, Next next) {
  const auto hashed = transientVersionForKey_.hashed(key);
  auto* node = transientVersionForKey_.find(hashed);
  const Asic::EntryVersion version = next(node == nullptr ? nullptr : &node->value());
  Asic::EntryVersion old = Asic::EntryVersion::invalid();
  if (node == nullptr) {
    transientVersionForKey_.newMember(hashed, HN_TransientVersionForKey(key, version));
  } else {
    old = node->value();
    if (old.isEq(version)) {
      return version;
    }
    node->value() = version;
  }
  this->changes().publishChangeRecursive(Brio::fieldId<KelpSwTable>("transientVersionForKey"), &key,
                                         &old);
  return version;
}

template <TableSpec T>
void KelpSwTable<T>::transientVersionForKeyIs(const Key& key, const Asic::EntryVersion& version) {
  transientVersionForKeyUpdate(key, [&](const Asic::EntryVersion*) { return version; });
}

template <TableSpec T>
Asic::EntryVersion KelpSwTable<T>::transientVersionForKeyDel(const Key& key) {
  HN_TransientVersionForKey node(Key{}, Asic::EntryVersion::invalid());
  if (!transientVersionForKey_.del(transientVersionForKey_.hashed(key), &node)) {
    return Asic::EntryVersion::invalid();
  }
  const Asic::EntryVersion old = node.value();
  this->changes().publishChangeRecursive(Brio::fieldId<KelpSwTable>("transientVersionForKey"), &key,
                                         &old);
  return old;
}

template <TableSpec T>
void KelpSwTable<T>::transientVersionForKeyDelAll() {
  delAll(transientVersionForKey_, &KelpSwTable::transientVersionForKeyDel);
}

template <TableSpec T>
void KelpSwTable<T>::transientRemoveAllVersionIs(Asic::MajorVersion version) {
  Brio::attributeIs(this->changes(), Brio::fieldId<KelpSwTable>("transientRemoveAllVersion"),
                    transientRemoveAllVersion_, version);
}

template <TableSpec T>
Lumen::Ptr<typename KelpSwTable<T>::EntryHandle> KelpSwTable<T>::entryHandleInLog(
    unsigned index) const {
  const auto* handle = entryHandleInLog_.at(index);
  return handle == nullptr ? nullptr : *handle;
}

template <TableSpec T>
bool KelpSwTable<T>::entryHandleInLogHas(unsigned index) const {
  return entryHandleInLog_.has(index);
}

template <TableSpec T>
Lumen::Ptr<typename KelpSwTable<T>::EntryHandle> KelpSwTable<T>::entryHandleInLogFront() const {
  const auto* handle = entryHandleInLog_.front();
  return handle == nullptr ? nullptr : *handle;
}

template <TableSpec T>
Lumen::Ptr<typename KelpSwTable<T>::EntryHandle> KelpSwTable<T>::entryHandleInLogBack() const {
  const auto* handle = entryHandleInLog_.back();
  return handle == nullptr ? nullptr : *handle;
}

template <TableSpec T>
void KelpSwTable<T>::entryHandleInLogEnq(const Lumen::Ptr<EntryHandle>& handle) {
  const unsigned index = entryHandleInLog_.enq(handle);
  this->changes().publishChange(Brio::fieldId<KelpSwTable>("entryHandleInLog"), &index);
}

template <TableSpec T>
Lumen::Ptr<typename KelpSwTable<T>::EntryHandle> KelpSwTable<T>::entryHandleInLogDeq() {
  Lumen::Ptr<EntryHandle> handle;
  unsigned index = 0;
  if (entryHandleInLog_.deq(handle, index)) {
    this->changes().publishChange(Brio::fieldId<KelpSwTable>("entryHandleInLog"), &index, &handle);
  }
  return handle;
}

template <TableSpec T>
void KelpSwTable<T>::entryHandleInLogDelAll() {
  if (!this->changes().hasSubscribers()) {
    entryHandleInLog_.doClear(true);
    return;
  }
  while (!entryHandleInLog_.empty()) {
    entryHandleInLogDeq();
  }
}

template <TableSpec T>
const typename KelpSwTable<T>::HN_MarkedKey* KelpSwTable<T>::markedKeyIs(const Key& key) {
  const auto hashed = markedKey_.hashed(key);
  if (const auto* node = markedKey_.find(hashed)) {
    return node;
  }
  const HN_MarkedKey& node = markedKey_.newMember(hashed, HN_MarkedKey(key));
  if (!this->changes().hasSubscribers()) {
    return &node;
  }
  this->changes().publishChangeRecursive(Brio::fieldId<KelpSwTable>("markedKey"), &key);
  // A subscriber may have changed the set.
  return markedKey_.find(hashed);
}

template <TableSpec T>
bool KelpSwTable<T>::markedKeyDel(const Key& key) {
  if (!markedKey_.del(key)) {
    return false;
  }
  this->changes().publishChangeRecursive(Brio::fieldId<KelpSwTable>("markedKey"), &key);
  return true;
}

template <TableSpec T>
void KelpSwTable<T>::markedKeyDelAll() {
  delAll(markedKey_, &KelpSwTable::markedKeyDel);
}

template <TableSpec T>
typename T::Entry KelpSwTable<T>::SwTableEntries_py::tableEntries(const Key& key) const {
  const auto* node = tableEntries_[key];
  return node == nullptr ? Entry{} : node->value();
}

template <TableSpec T>
void KelpSwTable<T>::SwTableEntries_py::tableEntriesIs(const Entry& entry) {
  static_assert(Brio::fieldId<SwTableEntries_py>("tableEntries") == Lumen::FieldId{130});
  const auto hashed = tableEntries_.hashed(entry.logEntry.key);
  if (auto* node = tableEntries_.find(hashed)) {
    node->valueIs(entry);
  } else {
    tableEntries_.newMember(hashed, HN_TableEntries(entry));
  }
}

template <TableSpec T>
typename T::Entry KelpSwTable<T>::SwTableEntries_py::tableEntriesDel(const Key& key) {
  HN_TableEntries node{Entry{}};
  return tableEntries_.del(tableEntries_.hashed(key), &node) ? node.value() : Entry{};
}

template <TableSpec T>
Lumen::Ptr<typename KelpSwTable<T>::SwTableEntries_py> KelpSwTable<T>::getTableEntries_py() const {
  auto copy = Lumen::makeNode<SwTableEntries_py>();
  const auto state = initIterState();
  for (Entry entry = state->maybeUpdateCurrentEntry(); state->state().valid();
       entry = state->maybeUpdateCurrentEntry()) {
    copy->tableEntriesIs(entry);
  }
  return copy;
}

template <TableSpec T>
void KelpSwTable<T>::inMarkingStateIs(bool marking) {
  Brio::attributeIs(this->changes(), Brio::fieldId<KelpSwTable>("inMarkingState"), inMarkingState_,
                    marking);
}

}  // namespace KelpEmServer
