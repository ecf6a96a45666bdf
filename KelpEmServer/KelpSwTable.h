#pragma once

#include <cstdint>
#include <tuple>

#include "Asic/EntryVersion.h"
#include "Asic/GroupResolver.h"
#include "Asic/NeededEntry.h"
#include "Asic/OrderedSwTableSet.h"
#include "Brio/Attributes.h"
#include "Brio/HashMap2018.h"
#include "KelpEmServer/Forward.h"
#include "KelpEmServer/KelpEntryLog.h"
#include "KelpEmServer/KelpEntryWrapper.h"
#include "KelpEmServer/KelpResolverEntry.h"
#include "KelpEmServer/KelpSwTableHelperBase.h"
#include "KelpEmServer/KelpSwTableIteratorState.h"
#include "KelpEmServer/TypeModule.h"
#include "KelpTunnelNiLib/SwTableBase.h"
#include "Lumen/RQueue.h"
#include "PoolSlab/Slabbed.h"

namespace KelpEmServer {

// The object that feature code holds for one table on one chip unit. It keeps no committed entries,
// which live in the entry log; it holds what is in flight.
//
// Invariants among the collections:
//  1. A key stands in at most one of transientAddEntry and transientRemoveEntry.
//  2. Every key of either stands in transientVersionForKey, with the version of the handle of the
//     wrapper.
//  3. The converse does not hold: a remove-all empties the two and leaves the versions, so that the
//     next write of such a key goes on counting.
//  4. An entry stays in transient state after its commit failed on a dependency.
//  5. entryHandleInLog holds handles in commit order; their log versions ascend, but for that of a
//     suppressed write, which enters with the version that its record already had.
//  6. groupResolver and entryLog are set for the table's whole life.
//
// Everything runs on the agent's one thread.
template <TableSpec T>
class KELP_EM_EXPORT KelpSwTable final : public KelpTunnelNiLib::SwTableBase<typename T::Entry>,
                                         public PoolSlab::Slabbed<KelpSwTable<T>>,
                                         public T::Linkages::template Of<T> {
 public:
  using Traits = T;
  using Base = KelpTunnelNiLib::SwTableBase<typename T::Entry>;
  using Entry = typename T::Entry;
  using Key = typename Entry::Key;
  using LogEntry = typename Entry::LogEntry;
  using ConfigRecord = typename KelpEntryLog<T>::ConfigRecord;
  using Wrapper = KelpEntryWrapper<T>;
  using Resolver = KelpResolverEntry<T>;
  using Helper = KelpSwTableHelperBase<T>;
  using IteratorState = KelpSwTableIteratorState<T>;
  using ResponseHandler = Asic::OrderedSwTable::ResponseHandler;
  using EntryIteratorConst = typename Base::EntryIteratorConst;

  // What a caller gets back for one write or remove.
  class KELP_EM_EXPORT EntryHandle final : public Base::EntryHandle,
                                           public PoolSlab::Slabbed<EntryHandle> {
   public:
    static constexpr const char* className() {
      return kTableText<T, "KelpSwTable::EntryHandle">.c_str();
    }

    static constexpr auto attributes() { return Brio::attributeList(0); }
    static constexpr auto factory() { return &KelpSwTable::EntryHandleIs; }

    EntryHandle(const Asic::EntryVersion& version, const Key& key, Base* table)
        : Base::EntryHandle(version, key, table) {}
    ~EntryHandle() override = default;

    static constexpr const Lumen::TypeData& classData() {
      return kTypeData<T, "KelpSwTable", 1, "KelpSwTable::EntryHandle",
                       &Base::EntryHandle::classData()>;
    }
    [[nodiscard]] const Lumen::TypeData& typeData() const override { return classData(); }
  };

  struct TransientAddEntryKeyFunktor {
    const Key& operator()(const Lumen::Ptr<Wrapper>& wrapper) const noexcept {
      static const Key defaultKey{};
      return wrapper ? wrapper->key() : defaultKey;
    }
  };
  struct TransientRemoveEntryKeyFunktor : TransientAddEntryKeyFunktor {};

  struct HN_TransientAddEntry : Brio::Hm2018NI<T::salts.transientAddEntry, Key, Lumen::Ptr<Wrapper>,
                                               TransientAddEntryKeyFunktor, 1> {
    static constexpr const char* className() {
      return kTableText<T, "KelpSwTable::HN_TransientAddEntry">.c_str();
    }
    using Brio::Hm2018NI<T::salts.transientAddEntry, Key, Lumen::Ptr<Wrapper>,
                         TransientAddEntryKeyFunktor, 1>::Hm2018NI;
  };
  struct HN_TransientRemoveEntry
      : Brio::Hm2018NI<T::salts.transientRemoveEntry, Key, Lumen::Ptr<Wrapper>,
                       TransientRemoveEntryKeyFunktor, 1> {
    static constexpr const char* className() {
      return kTableText<T, "KelpSwTable::HN_TransientRemoveEntry">.c_str();
    }
    using Brio::Hm2018NI<T::salts.transientRemoveEntry, Key, Lumen::Ptr<Wrapper>,
                         TransientRemoveEntryKeyFunktor, 1>::Hm2018NI;
  };
  struct HN_TransientVersionForKey
      : Brio::Hm2018NE<T::salts.transientVersionForKey, Key, Asic::EntryVersion, 1> {
    static constexpr const char* className() {
      return kTableText<T, "KelpSwTable::HN_TransientVersionForKey">.c_str();
    }
    using Brio::Hm2018NE<T::salts.transientVersionForKey, Key, Asic::EntryVersion, 1>::Hm2018NE;
  };
  struct HN_MarkedKey : Brio::Hm2018NE<T::salts.markedKey, Key, void, 1> {
    static constexpr const char* className() {
      return kTableText<T, "KelpSwTable::HN_MarkedKey">.c_str();
    }
    using Brio::Hm2018NE<T::salts.markedKey, Key, void, 1>::Hm2018NE;
  };
  struct QE_EntryHandleInLog {
    static constexpr const char* className() {
      return kTableText<T, "KelpSwTable::QE_EntryHandleInLog">.c_str();
    }
  };

  // The reader's view of a table as it was at one moment. Made by getTableEntries_py(), to be read
  // from outside.
  class KELP_EM_EXPORT SwTableEntries_py final : public Lumen::Node,
                                                 public PoolSlab::Slabbed<SwTableEntries_py> {
   public:
    struct TableEntriesKeyFunktor {
      const Key& operator()(const Entry& entry) const noexcept { return entry.logEntry.key; }
    };
    struct HN_TableEntries
        : Brio::Hm2018NI<T::salts.tableEntries, Key, Entry, TableEntriesKeyFunktor, 1> {
      static constexpr const char* className() {
        return kTableText<T, "KelpSwTable::SwTableEntries_py::HN_TableEntries">.c_str();
      }
      using Brio::Hm2018NI<T::salts.tableEntries, Key, Entry, TableEntriesKeyFunktor, 1>::Hm2018NI;
    };

    static constexpr const char* className() {
      return kTableText<T, "KelpSwTable::SwTableEntries_py">.c_str();
    }
    static constexpr auto attributes() {
      return Brio::attributeList(130,
                                 Brio::collection("tableEntries", &SwTableEntries_py::tableEntries_)
                                     .writtenBy(&SwTableEntries_py::tableEntriesIs)
                                     .deletedBy(&SwTableEntries_py::tableEntriesDel));
    }

    SwTableEntries_py() = default;
    ~SwTableEntries_py() override = default;

    static constexpr const Lumen::TypeData& classData() {
      return kTypeData<T, "KelpSwTable", 3, "KelpSwTable::SwTableEntries_py">;
    }
    static constexpr auto factory() { return &Lumen::makeNode<SwTableEntries_py>; }
    [[nodiscard]] const Lumen::TypeData& typeData() const override { return classData(); }

    [[nodiscard]] const auto& tableEntries() const noexcept { return tableEntries_; }
    // The default entry if the key is absent.
    [[nodiscard]] Entry tableEntries(const Key& key) const;
    // Adds, or overwrites the entry of the same key.
    void tableEntriesIs(const Entry& entry);
    // Gives back what was removed, or the default entry.
    Entry tableEntriesDel(const Key& key);
    void tableEntriesDelAll() { tableEntries_.delAll(); }

   private:
    Brio::HashMap2018<HN_TableEntries> tableEntries_;
  };

  static constexpr const char* className() { return kTableText<T, "KelpSwTable">.c_str(); }
  static constexpr auto attributes() {
    return Brio::attributeGroups(
        898,
        std::tuple{
            Brio::stored("swTableHelper", &KelpSwTable::swTableHelper_)
                .writtenBy(&KelpSwTable::swTableHelperIs),
            Brio::collection("transientAddEntry", &KelpSwTable::transientAddEntry_)
                .writtenBy(&KelpSwTable::transientAddEntryIs)
                .deletedBy(&KelpSwTable::transientAddEntryDel),
            Brio::collection("transientRemoveEntry", &KelpSwTable::transientRemoveEntry_)
                .writtenBy(&KelpSwTable::transientRemoveEntryIs)
                .deletedBy(&KelpSwTable::transientRemoveEntryDel),
            Brio::collection("transientVersionForKey", &KelpSwTable::transientVersionForKey_)
                .writtenBy(&KelpSwTable::transientVersionForKeyIs)
                .deletedBy(&KelpSwTable::transientVersionForKeyDel),
            Brio::stored("transientRemoveAllVersion", &KelpSwTable::transientRemoveAllVersion_)
                .writtenBy(&KelpSwTable::transientRemoveAllVersionIs),
            Brio::operation("getTableEntries_py", &KelpSwTable::getTableEntries_py),
            Brio::stored("entryLog", &KelpSwTable::entryLog_),
            Brio::stored("groupResolver", &KelpSwTable::groupResolver_),
            Brio::retired(),
            Brio::queue("entryHandleInLog", &KelpSwTable::entryHandleInLog_),
            Brio::operation("commitEntry", &KelpSwTable::commitEntry)
                .checkedBy(&KelpSwTable::checkResolverEntry),
            Brio::operation("updateEntry", &KelpSwTable::updateEntry),
            Brio::operation("getNeededEntrySet", &KelpSwTable::getNeededEntrySet),
            Brio::operation("isResolverEntryResolved", &KelpSwTable::isResolverEntryResolved),
            Brio::operation("setRsrcPtrs", &KelpSwTable::setRsrcPtrs),
            Brio::operation("entryFromConfig", &KelpSwTable::entryFromConfig),
            Brio::operation("restoreEntries", &KelpSwTable::restoreEntries),
            Brio::operation("clearTable", &KelpSwTable::clearTable),
            Brio::collection("markedKey", &KelpSwTable::markedKey_)
                .writtenBy(&KelpSwTable::markKey)
                .deletedBy(&KelpSwTable::markedKeyDel),
            Brio::stored("inMarkingState", &KelpSwTable::inMarkingState_)
                .writtenBy(&KelpSwTable::inMarkingStateIs)},
        T::Linkages::template attributes<KelpSwTable>(),
        std::tuple{
            Brio::operation("handleInitialized", &KelpSwTable::handleInitialized).notServed()});
  }

  KelpSwTable(const Lumen::Ptr<const Asic::CanonicalTableName>& canonicalName,
              Asic::SwTableId tableId, Asic::UnitId unitId, Asic::OrderedSwTableSet* swTableSet,
              const Lumen::Ptr<KelpEntryLog<T>>& entryLog,
              const Lumen::Ptr<Asic::GroupResolver>& groupResolver);
  // Clears without notifications. No record of shared memory and no resource is given up.
  ~KelpSwTable() override;
  [[nodiscard]] static Lumen::Ptr<KelpSwTable> KelpSwTableIs(
      const Lumen::Ptr<const Asic::CanonicalTableName>& canonicalName, Asic::SwTableId tableId,
      Asic::UnitId unitId, Asic::OrderedSwTableSet* swTableSet,
      const Lumen::Ptr<KelpEntryLog<T>>& entryLog,
      const Lumen::Ptr<Asic::GroupResolver>& groupResolver) {
    return Lumen::makeNode<KelpSwTable>(canonicalName, tableId, unitId, swTableSet, entryLog,
                                        groupResolver);
  }
  [[nodiscard]] static Lumen::Ptr<EntryHandle> entryHandleFactory(const Asic::EntryVersion& version,
                                                                  const Key& key, Base* table) {
    return Lumen::makeNode<EntryHandle>(version, key, table);
  }
  [[nodiscard]] static Lumen::Ptr<EntryHandle> EntryHandleIs(const Asic::EntryVersion& version,
                                                             const Key& key, Base* table) {
    return entryHandleFactory(version, key, table);
  }
  static constexpr auto factory() { return &KelpSwTable::KelpSwTableIs; }

  static constexpr const Lumen::TypeData& classData() {
    return kTypeData<T, "KelpSwTable", 0, "KelpSwTable", &Base::classData()>;
  }
  [[nodiscard]] const Lumen::TypeData& typeData() const override { return classData(); }
  void doCreateHwTable() override {}

  // The contract of the framework and of feature code; told at the base classes.
  void tableStatusVersion(Asic::LogVersion version) override;
  [[nodiscard]] bool hasPendingHwWrites() const override;
  void mark() override;
  void sweep() override;
  Lumen::Ptr<const typename Base::EntryHandle> entryWrite(
      const Key& key, const Entry& entry,
      const Lumen::Ptr<const Asic::DependencyEntryHandle>& dependency) override;
  Lumen::Ptr<const typename Base::EntryHandle> entryWriteWithResponseHandler(
      const Key& key, const Entry& entry,
      const Lumen::Ptr<const Asic::DependencyEntryHandle>& dependency,
      const ResponseHandler& handler) override;
  Lumen::Ptr<const typename Base::EntryHandle> entryRemove(
      const Key& key, const Lumen::Ptr<const Asic::DependencyEntryHandle>& dependency) override;
  Lumen::Ptr<const typename Base::EntryHandle> entryRemoveWithResponseHandler(
      const Key& key, const Lumen::Ptr<const Asic::DependencyEntryHandle>& dependency,
      const ResponseHandler& handler) override;
  void entryRemoveAll(const Lumen::Ptr<const Asic::DependencyEntryHandle>& dependency) override;
  void entryRemoveAllWithResponseHandler(
      const Lumen::Ptr<const Asic::DependencyEntryHandle>& dependency,
      const ResponseHandler& handler) override;
  [[nodiscard]] Entry entryRead(const Key& key) const override;
  [[nodiscard]] Entry entry(const Key& key) const override;
  [[nodiscard]] bool entryHas(const Key& key) const override;
  [[nodiscard]] unsigned entrys() const override;
  [[nodiscard]] EntryIteratorConst entryIteratorConst(const Key& key) const override;
  [[nodiscard]] EntryIteratorConst entryIteratorConst() const override;
  [[nodiscard]] Lumen::Ptr<typename Base::IteratorState> initIterState() const override;
  [[nodiscard]] Lumen::Ptr<typename Base::IteratorState> initIterStateFromKey(
      const Key& key) const override;

  // What a queued operation of this table asks and does.
  [[nodiscard]] bool isResolverEntryResolved(const Lumen::Ptr<Resolver>& entry);
  void commitEntry(const Lumen::Ptr<Asic::ResolverEntry>& entry);
  [[nodiscard]] Lumen::Ptr<Asic::NeededEntry> getNeededEntrySet(
      const Lumen::Ptr<const Wrapper>& wrapper);
  // Fills in the resource handles of a wrapper: asks the resource tables if `refresh`, else takes
  // what the table already holds.
  void setRsrcPtrs(const Lumen::Ptr<Wrapper>& wrapper, bool refresh);
  // Rewrites the record of a key if what its resources say has changed. Null if the log does not
  // hold it.
  Lumen::Ptr<const Asic::OrderedSwTable::EntryHandle> updateEntry(const Key& key);
  // The committed entry alone; the default entry if there is none.
  [[nodiscard]] Entry entryFromConfig(const Key& key) const;
  // Rebuilds the usage of resources from what an earlier run left. Nothing on a table without
  // linkages.
  void restoreEntries();
  // A copy of the reader's view at this moment; never null. Costs a walk of the table.
  [[nodiscard]] Lumen::Ptr<SwTableEntries_py> getTableEntries_py() const;
  // Deletes all committed entries with one table delete; nothing if there are none. Leaves what is
  // in flight.
  void clearTable(bool releaseResources);

  [[nodiscard]] const Lumen::Ptr<Helper>& swTableHelper() const noexcept { return swTableHelper_; }
  void swTableHelperIs(const Lumen::Ptr<Helper>& helper);

  // The newest write in flight of each key.
  [[nodiscard]] const auto& transientAddEntry() const noexcept { return transientAddEntry_; }
  // Null if there is none.
  [[nodiscard]] Lumen::Ptr<Wrapper> transientAddEntry(const Key& key) const;
  // Throws Brio::MutatorException for a null wrapper.
  void transientAddEntryIs(const Lumen::Ptr<Wrapper>& wrapper);
  // Gives back what was removed, or null.
  Lumen::Ptr<Wrapper> transientAddEntryDel(const Key& key);
  void transientAddEntryDelAll();
  // The newest remove in flight of each key; as above.
  [[nodiscard]] const auto& transientRemoveEntry() const noexcept { return transientRemoveEntry_; }
  [[nodiscard]] Lumen::Ptr<Wrapper> transientRemoveEntry(const Key& key) const;
  void transientRemoveEntryIs(const Lumen::Ptr<Wrapper>& wrapper);
  Lumen::Ptr<Wrapper> transientRemoveEntryDel(const Key& key);
  void transientRemoveEntryDelAll();
  // The newest version given out for each key in flight.
  [[nodiscard]] const auto& transientVersionForKey() const noexcept {
    return transientVersionForKey_;
  }
  // The invalid version if there is none.
  [[nodiscard]] Asic::EntryVersion transientVersionForKey(const Key& key) const;
  void transientVersionForKeyIs(const Key& key, const Asic::EntryVersion& version);
  // Sets the version to what `next` makes of the present one (null: there is none), with one
  // search, and gives it back. Publishes a change as transientVersionForKeyIs() does.
  template <class Next>
  Asic::EntryVersion transientVersionForKeyUpdate(const Key& key, Next next);
  Asic::EntryVersion transientVersionForKeyDel(const Key& key);
  void transientVersionForKeyDelAll();
  // The remove-alls in flight, less one; invalid for none.
  [[nodiscard]] Asic::MajorVersion transientRemoveAllVersion() const noexcept {
    return transientRemoveAllVersion_;
  }
  void transientRemoveAllVersionIs(Asic::MajorVersion version);

  [[nodiscard]] const Lumen::Ptr<KelpEntryLog<T>>& entryLog() const noexcept { return entryLog_; }
  [[nodiscard]] const Lumen::Ptr<Asic::GroupResolver>& groupResolver() const noexcept {
    return groupResolver_;
  }

  // The committed handles that wait for the hardware side, by an index that runs from 1. Null for
  // an index out of range, and on an empty queue.
  [[nodiscard]] const auto& entryHandleInLog() const noexcept { return entryHandleInLog_; }
  [[nodiscard]] Lumen::Ptr<EntryHandle> entryHandleInLog(unsigned index) const;
  [[nodiscard]] bool entryHandleInLogHas(unsigned index) const;
  [[nodiscard]] Lumen::Ptr<EntryHandle> entryHandleInLogFront() const;
  [[nodiscard]] Lumen::Ptr<EntryHandle> entryHandleInLogBack() const;
  void entryHandleInLogEnq(const Lumen::Ptr<EntryHandle>& handle);
  Lumen::Ptr<EntryHandle> entryHandleInLogDeq();
  void entryHandleInLogDelAll();

  // The keys written since mark().
  [[nodiscard]] const auto& markedKey() const noexcept { return markedKey_; }
  // The node; null if a subscriber took the key out again.
  const HN_MarkedKey* markedKeyIs(const Key& key);
  bool markedKeyDel(const Key& key);
  void markedKeyDelAll();
  [[nodiscard]] bool inMarkingState() const noexcept { return inMarkingState_; }
  void inMarkingStateIs(bool marking);

 private:
  // markedKeyIs() without its result, for inspection.
  void markKey(const Key& key) { (void)markedKeyIs(key); }
  void handleInitialized();
  // Throws if it is no operation of this table: callers from outside may give any.
  void checkResolverEntry(const Lumen::Ptr<Asic::ResolverEntry>& entry) const;
  static void fetchAhead(const void* table, const void* operation, bool near);
  template <class Collection>
  void transientEntryIs(Collection& collection, Lumen::FieldId field,
                        const Lumen::Ptr<Wrapper>& wrapper);
  template <class Collection>
  Lumen::Ptr<Wrapper> transientEntryDel(Collection& collection, Lumen::FieldId field,
                                        const Key& key);
  template <class Collection, class Delete>
  void delAll(Collection& collection, Delete del);

  bool inMarkingState_ = false;
  Lumen::Ptr<Helper> swTableHelper_;
  Brio::HashMap2018<HN_TransientAddEntry> transientAddEntry_;
  Brio::HashMap2018<HN_TransientRemoveEntry> transientRemoveEntry_;
  Brio::HashMap2018<HN_TransientVersionForKey> transientVersionForKey_;
  Asic::MajorVersion transientRemoveAllVersion_;
  Lumen::Ptr<KelpEntryLog<T>> entryLog_;
  Lumen::Ptr<Asic::GroupResolver> groupResolver_;
  Lumen::RQueue<Lumen::Ptr<EntryHandle>, false, QE_EntryHandleInLog> entryHandleInLog_;
  Brio::HashMap2018<HN_MarkedKey> markedKey_;
};

}  // namespace KelpEmServer
