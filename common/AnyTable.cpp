#include "common/AnyTable.h"

#include <fmt/format.h>

#include <cstring>

#include "KelpEmServer/AllTables.h"
#include "Lumen/Assert.h"

namespace Common {
namespace {

// Why a collection does not take a record more: it is full, or its file system is.
template <class Map>
std::string lackOfRoomIn(const Map& map, std::uint64_t most, const char* full) {
  if (map.size() >= most) {
    return fmt::format("{} holds {} records and is full; {}", map.path(), map.size(), full);
  }
  const int reason = map.file()->lastError();
  return fmt::format("{}: the file system gives no space{}{}; make room in it", map.path(),
                     reason == 0 ? "" : ": ", reason == 0 ? "" : std::strerror(reason));
}

// The one place in which the programs instantiate the tables.
template <KelpEmServer::TableSpec T>
class TableOf final : public AnyTable {
 public:
  TableOf(const Lumen::Ptr<Asic::OrderedTableInterface>& agent, Asic::UnitId unit)
      : AnyTable(tableNumber<T>(), unit),
        swTable_(
            KelpEmServer::KelpInterface<T>::getIntf(agent)->makeSwTable(unit, nullptr, false)) {}

  Handle write(const AnyEntry& entry, const Dependency& dependency,
               const ResponseHandler& handler) override {
    const auto& of = own<EntryOf<T>>(entry);
    return swTable_->entryWriteWithResponseHandler(of.entry.logEntry.key, of.entry, dependency,
                                                   handler);
  }
  Handle remove(const AnyKey& key, const Dependency& dependency,
                const ResponseHandler& handler) override {
    return swTable_->entryRemoveWithResponseHandler(own<KeyOf<T>>(key).key, dependency, handler);
  }
  void removeAll(const Dependency& dependency, const ResponseHandler& handler) override {
    swTable_->entryRemoveAllWithResponseHandler(dependency, handler);
  }

  [[nodiscard]] bool namesResources(const AnyEntry& entry) const override {
    bool names = false;
    forEachResource(own<EntryOf<T>>(entry).entry, [&](const auto&) { names = true; });
    return names;
  }
  [[nodiscard]] std::vector<MissingResource> missingResources(
      const AnyEntry& entry) const override {
    const Entry& of = own<EntryOf<T>>(entry).entry;
    std::vector<MissingResource> missing;
    forEachResource(of, [&](const auto& linkage) {
      const auto handle =
          std::decay_t<decltype(linkage)>::Kind::request(*linkage.resTblClient(), of);
      if (handle->entryState() != Asic::EntryState::entryStateSuccess) {
        missing.push_back(missingOf(linkage, handle));
      }
    });
    return missing;
  }
  [[nodiscard]] std::vector<MissingResource> awaitedResources([[maybe_unused]] const AnyKey& key,
                                                              const Handle& handle) const override {
    std::vector<MissingResource> awaited;
    const auto wrapper = wrapperOf(own<KeyOf<T>>(key).key, handle);
    if (!wrapper) {
      return awaited;
    }
    swTable_->withLinkages([&](auto*... linkages) {
      [[maybe_unused]] const auto look = [&]<class Linkage>(const Linkage& linkage) {
        const auto& resource = Linkage::Kind::handle(*wrapper);
        if (resource && (resource->entryState() == Asic::EntryState::entryStateUnresolved ||
                         resource->entryState() == Asic::EntryState::entryStateInLog)) {
          awaited.push_back(missingOf(linkage, resource));
        }
      };
      (look(*linkages), ...);
    });
    return awaited;
  }
  [[nodiscard]] bool names(const AnyEntry& entry, const AnyResourceKey& resource) const override {
    const Entry& of = own<EntryOf<T>>(entry).entry;
    bool named = false;
    forEachResource(of, [&]<class Linkage>(const Linkage&) {
      const auto* key = std::get_if<kNumber<Linkage>>(&resource);
      named = named || (key != nullptr && Linkage::Kind::key(of).isEq(*key));
    });
    return named;
  }
  [[nodiscard]] std::optional<ResourceUse> useOf([[maybe_unused]] const AnyResourceKey& resource,
                                                 [[maybe_unused]] std::size_t most) const override {
    std::optional<ResourceUse> use;
    swTable_->withLinkages([&](auto*... linkages) {
      [[maybe_unused]] const auto look = [&]<class Linkage>(const Linkage& linkage) {
        if (const auto* key = std::get_if<kNumber<Linkage>>(&resource)) {
          use.emplace();
          if (const auto usage = linkage.entryUsageSm(*key)) {
            use->entries = usage->entryUsage().size();
            use->handle = usage->resPtr();
            for (auto node = usage->entryUsage().begin();
                 use->keys.size() < most && node != usage->entryUsage().end(); ++node) {
              use->keys.emplace_back(KeyOf<T>{(*node).key()});
            }
          }
        }
      };
      (look(*linkages), ...);
    });
    return use;
  }

  [[nodiscard]] bool has(const AnyKey& key) const override {
    return swTable_->entryHas(own<KeyOf<T>>(key).key);
  }
  [[nodiscard]] std::uint64_t removeAllsInFlight() const override {
    const Asic::MajorVersion version = swTable_->transientRemoveAllVersion();
    return version.valid() ? version.value + 1 : 0;
  }
  [[nodiscard]] std::uint64_t tableVersion() const override {
    return swTable_->entryLog()->tableVersion().value;
  }
  [[nodiscard]] std::uint64_t lastCleanedVersion() const override {
    return swTable_->entryLog()->lastCleanedVersion().value;
  }
  [[nodiscard]] std::string lackOfRoom(const AnyKey* key) const override {
    using Log = KelpEmServer::KelpEntryLog<T>;
    const auto& log = swTable_->entryLog();
    if (!log->hasRoomInLog()) {
      return lackOfRoomIn(std::as_const(*log->tableEntryLog()).entryLogConfig(),
                          Log::kChangeLogCapacity,
                          "the hardware side has to take them in: start it");
    }
    if (key != nullptr && !log->hasRoomFor(own<KeyOf<T>>(*key).key, unit())) {
      const auto collection = log->tableConfigQuilt(unit());
      return lackOfRoomIn(std::as_const(*collection).swTableEntries(), Log::kConfigCapacity,
                          "remove entries that are not needed");
    }
    return {};
  }
  [[nodiscard]] std::optional<Front> front() const override {
    const auto& entry = swTable_->resolverQueue().front();
    if (!entry) {
      return std::nullopt;
    }
    const auto& wrapper = static_cast<const Resolver&>(*entry).swTableEntry();
    return Front{entry->isTableDeleted(), KeyOf<T>{wrapper->key()}, wrapper->entryHandle()};
  }
  [[nodiscard]] AnyKey keyOf(const Handle& handle) const override {
    return KeyOf<T>{static_cast<const typename Table::Base::EntryHandle&>(*handle).key()};
  }
  [[nodiscard]] TableState state() const override {
    TableState state;
    state.entries = swTable_->entryLog()->entrys(unit());
    state.writesInFlight = swTable_->transientAddEntry().size();
    state.removesInFlight = swTable_->transientRemoveEntry().size();
    state.removeAllsInFlight = removeAllsInFlight();
    state.queued = swTable_->resolverQueue().size();
    state.inLog = swTable_->entryHandleInLog().size();
    const auto& log = std::as_const(*swTable_->entryLog()->tableEntryLog());
    state.issued = tableVersion();
    state.published = log.collectionControl()->published();
    state.reported = lastCleanedVersion();
    state.logRecords = log.entryLogConfig().size();
    state.logCapacity = KelpEmServer::KelpEntryLog<T>::kChangeLogCapacity;
    if (const auto& stats = swTable_->stats()) {
      state.writes = stats->entryWriteCnt();
      state.removes = stats->entryRemoveCnt();
      state.commits = stats->commitCnt();
      state.resolveFailures = stats->resolveFailCnt();
      state.updates = stats->updateCnt();
      state.updatesWithFailedResource = stats->updateWithFailedResourceCnt();
      state.suppressedWrites = stats->suppressedWriteCnt();
      state.differingWrites = stats->suppressCheckDiffCnt();
      state.tableClears = stats->tableClearCnt();
      state.lastCommit = stats->lastCommitTime();
    }
    return state;
  }
  [[nodiscard]] TableFigures figures() const override {
    TableFigures figures;
    if (const auto& stats = swTable_->stats()) {
      figures.written = stats->entryWriteCnt();
      figures.removed = stats->entryRemoveCnt();
      figures.suppressed = stats->suppressedWriteCnt();
    }
    figures.inLog = swTable_->entryLog()->tableEntryLog()->entryLogConfig().size();
    figures.entries = swTable_->entrys();
    figures.pending = swTable_->hasPendingHwWrites();
    figures.tableVersion = tableVersion();
    figures.lastCleanedVersion = lastCleanedVersion();
    return figures;
  }

 private:
  using Table = KelpEmServer::KelpSwTable<T>;
  using Resolver = KelpEmServer::KelpResolverEntry<T>;
  using Entry = typename T::Entry;
  template <class Linkage>
  static constexpr std::size_t kNumber = resourceNumber<typename Linkage::ResourceTable::Kind>();

  template <class Linkage>
  static MissingResource missingOf(
      const Linkage& linkage, const Lumen::Ptr<const typename Linkage::ResourceHandle>& handle) {
    const auto& table = *linkage.resTblClient()->table();
    return {kNumber<Linkage>, handle, Linkage::ResourceTable::Kind::kFieldId,
            table.indexesTaken() == table.limit()};
  }

  // What holds the entry of a write that is not committed; null if it can't be told: a newer one is
  // there for the key, and others are queued before it.
  [[nodiscard]] Lumen::Ptr<typename Table::Wrapper> wrapperOf(const typename Table::Key& key,
                                                              const Handle& handle) const {
    auto wrapper = swTable_->transientAddEntry(key);
    if (const auto& front = swTable_->resolverQueue().front();
        front && (!wrapper || wrapper->entryHandle().get() != handle.get())) {
      wrapper = static_cast<const Resolver&>(*front).swTableEntry();
    }
    return wrapper && wrapper->entryHandle().get() == handle.get() ? wrapper : nullptr;
  }

  // Calls visit(linkage) for each resource that the entry names.
  template <class Visit>
  void forEachResource([[maybe_unused]] const Entry& entry, [[maybe_unused]] Visit visit) const {
    swTable_->withLinkages([&](auto*... linkages) {
      [[maybe_unused]] const auto ask = [&]<class Linkage>(const Linkage& linkage) {
        static const typename Linkage::ResourceKey none{};
        if (!Linkage::Kind::key(entry).isEq(none)) {
          visit(linkage);
        }
      };
      (ask(*linkages), ...);
    });
  }

  template <class Of, class Any>
  static const Of& own(const Any& any) {
    const Of* of = std::get_if<Of>(&any);
    Lumen::assertThat(of != nullptr, "of != nullptr");
    return *of;
  }

  Lumen::Ptr<KelpEmServer::KelpSwTable<T>> swTable_;
};

}  // namespace

std::unique_ptr<AnyTable> AnyTable::make(std::size_t table,
                                         const Lumen::Ptr<Asic::OrderedTableInterface>& agent,
                                         Asic::UnitId unit) {
  std::unique_ptr<AnyTable> made;
  withTable(table, [&](auto tag) {
    made = std::make_unique<TableOf<typename decltype(tag)::Table>>(agent, unit);
  });
  Lumen::assertThat(made != nullptr, "made != nullptr");
  return made;
}

}  // namespace Common
