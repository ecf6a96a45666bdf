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
    forEachResource(of, [&]<class Linkage>(const Linkage& linkage) {
      using Table = typename Linkage::ResourceTable;
      const auto handle = Linkage::Kind::request(*linkage.resTblClient(), of);
      if (handle->entryState() != Asic::EntryState::entryStateSuccess) {
        const Table& table = *linkage.resTblClient()->table();
        missing.push_back({resourceNumber<typename Table::Kind>(), handle, Table::Kind::kFieldId,
                           table.indexesTaken() == table.limit()});
      }
    });
    return missing;
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
  using Entry = typename T::Entry;

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
