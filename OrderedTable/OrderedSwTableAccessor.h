#pragma once

#include <type_traits>

#include "Asic/DependencyEntryHandle.h"
#include "Asic/EntryVersion.h"
#include "Asic/LogVersion.h"
#include "Asic/NeededEntry.h"
#include "Asic/OrderedSwTable.h"
#include "Asic/ResolverEntry.h"
#include "Brio/TraceHandle.h"
#include "Lumen/Ptr.h"
#include "Lumen/String.h"

namespace Asic {

// The logic of every ordered software table: a value that holds a T* for one call. T is the table
// class, const for the reads. The table's members forward to it with their linkages, in the table's
// order; with an empty pack every step over the linkages vanishes.
//
// The members are defined by subject: EntryWritePath.h, EntryRemovePath.h, CommitPath.h,
// EntryReadPath.h and TableLifecycle.h.
template <class T>
class OrderedSwTableAccessor {
 public:
  using Table = std::remove_const_t<T>;
  using EntryHandle = typename Table::EntryHandle;
  using ResponseHandler = OrderedSwTable::ResponseHandler;

  explicit OrderedSwTableAccessor(T* table) noexcept : t_(table) {}

  // Accepts a write: gives the key its next version, holds the write as the key's newest operation
  // and queues it. Touches no shared memory.
  template <class ResolverEntryT, class EntryWrapper, class Key, class Entry, class... Args>
  Lumen::Ptr<const EntryHandle> entryWriteGeneric(
      const Key& key, const Entry& entry, const Lumen::Ptr<const DependencyEntryHandle>& dependency,
      const ResponseHandler& handler, Args... linkages);
  template <class EntryWrapper, class... Args>
  void setRsrcPtrs(const Lumen::Ptr<EntryWrapper>& wrapper, bool refresh, Args... linkages);

  // Accepts a remove of one key, or of all keys.
  template <class ResolverEntryT, class EntryWrapper, class Key>
  Lumen::Ptr<const EntryHandle> entryRemoveGeneric(
      const Key& key, const Lumen::Ptr<const DependencyEntryHandle>& dependency,
      const ResponseHandler& handler);
  template <class ResolverEntryT, class EntryWrapper>
  void entryRemoveAllGeneric(const Lumen::Ptr<const DependencyEntryHandle>& dependency,
                             const ResponseHandler& handler);

  // Whether a queued operation may go forward, and its going forward.
  template <class ResolverEntryT, class... Args>
  bool isResolverEntryResolved(const Lumen::Ptr<ResolverEntryT>& entry, Args... linkages);
  template <class ResolverEntryT, class EntryWrapper, class... Args>
  void commitEntry(const Lumen::Ptr<ResolverEntry>& entry, Args... linkages);
  // Whether every resource of the entry is settled, well or badly.
  template <class Wrapper>
  bool resAccessorCheckResolved(const Wrapper&) {
    return true;
  }
  template <class Wrapper, class First, class... Rest>
  bool resAccessorCheckResolved(const Wrapper& wrapper, First linkage, Rest... rest);
  // Whether every resource of the entry is there.
  template <class Wrapper>
  bool checkResolveSuccess(const Wrapper&) {
    return true;
  }
  template <class Wrapper, class First, class... Rest>
  bool checkResolveSuccess(const Wrapper& wrapper, First linkage, Rest... rest);
  // What the resources of the entry depend on, in one set: that of the first linkage, with those of
  // the others merged in. Null if the first gives none.
  template <class Wrapper>
  Lumen::Ptr<NeededEntry> getNeededEntrySet(const Wrapper& wrapper);
  template <class Wrapper, class First, class... Rest>
  Lumen::Ptr<NeededEntry> getNeededEntrySet(const Wrapper& wrapper, First linkage, Rest... rest);

  // The hardware side has taken in everything up to `version`.
  void tableStatusVersion(LogVersion version);

  // Reads: with what is in flight, or the committed entry alone. The default entry if there is
  // none.
  template <class Entry, class Key>
  Entry entryReadGeneric(const Key& key) const;
  template <class Entry, class Key>
  Entry entryFromConfig(const Key& key) const;
  // The same of a record that has been found: in it, or the default entry.
  template <class Record, class Key>
  const auto& entryFromConfig(const Record& record, const Key& key) const;
  // A wrapper around the committed entry. A null `entryHandle` is filled in.
  template <class EntryWrapper, class Key>
  Lumen::Ptr<EntryWrapper> entryWrapperFromConfig(const Key& key, bool refreshRsrcPtrs,
                                                  Lumen::Ptr<EntryHandle>& entryHandle);
  template <class EntryWrapper, class Record, class Key>
  Lumen::Ptr<EntryWrapper> entryWrapperFromConfig(const Record& record, const Key& key,
                                                  bool refreshRsrcPtrs,
                                                  Lumen::Ptr<EntryHandle>& entryHandle);

  // Rewrites the log record of a key if what its resources say has changed. Null if the log does
  // not hold the key.
  template <class Key, class EntryWrapper, class... Args>
  Lumen::Ptr<const OrderedSwTable::EntryHandle> updateEntry(const Key& key, Args... linkages);
  // Rebuilds the usage of resources from the committed entries that an earlier run has left.
  template <class EntryWrapper, class... Linkage>
  void restoreEntries(Linkage... linkages);
  // Deletes all committed entries of the unit with one table delete; nothing if there are none.
  template <class EntryWrapper, class... Args>
  void delAllEntries(bool releaseResources, const Lumen::Ptr<const NeededEntry>& neededEntry,
                     Lumen::Ptr<EntryHandle>& entryHandle, Args... linkages);
  // Removes every entry that was not written since mark(), and ends the marking state. Gives the
  // number of entries removed.
  unsigned sweep();

  // One handle per instantiation, named after the table class.
  static const Brio::TraceHandle& _defaultTraceHandle() {
    static const Brio::TraceHandle handle(Lumen::String(Table::className()), false);
    return handle;
  }

 private:
  // Gives the key its next version: one above the one in flight, {0, 0} for a key that is not in
  // flight.
  template <class Key>
  EntryVersion nextVersion(const Key& key);
  // Leaves the transient state if `version` is still the newest operation on the key.
  template <class Collection, class Delete, class Key>
  void dropTransientState(const Collection& collection, Delete del, const Key& key,
                          const EntryVersion& version);
  void endOfOperation();

  T* t_;
};

}  // namespace Asic
