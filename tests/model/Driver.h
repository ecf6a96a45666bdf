#pragma once

#include <fmt/format.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Findings.h"
#include "Model.h"
#include "Recorder.h"
#include "ResourceSide.h"
#include "TableFixture.h"

// The real tables behind an interface of numbers, and their comparison with the model.

namespace ModelTest {

using RealHandle = Lumen::Ptr<const Asic::OrderedSwTable::EntryHandle>;
using RealDependency = Lumen::Ptr<const Asic::DependencyEntryHandle>;
using RealHandler = Asic::OrderedSwTable::ResponseHandler;

class Driver {
 public:
  virtual ~Driver() = default;

  [[nodiscard]] virtual std::string_view name() const = 0;
  [[nodiscard]] virtual Asic::SwTableId tableId() const = 0;
  [[nodiscard]] virtual Lumen::String logPath() const = 0;
  [[nodiscard]] virtual Lumen::String configPath(unsigned unit) const = 0;

  // The table as the model has it at first: what its entries name.
  [[nodiscard]] virtual Table description() const = 0;
  // Where the table stands among those of the run, and what it tells and asks.
  virtual void attach(unsigned index, std::deque<Event>& events, ResourceSide& resources) = 0;

  virtual void open(const Lumen::Ptr<Asic::OrderedTableInterface>& agent) = 0;
  virtual void make(unsigned unit, bool reset) = 0;
  // Lets go of everything of an agent that ends.
  virtual void drop() = 0;
  [[nodiscard]] virtual std::uint64_t incarnation() const = 0;

  virtual RealHandle write(unsigned unit, unsigned key, unsigned variant,
                           const RealDependency& dependency, const RealHandler& handler) = 0;
  virtual RealHandle remove(unsigned unit, unsigned key, const RealDependency& dependency,
                            const RealHandler& handler) = 0;
  virtual void removeAll(unsigned unit, const RealDependency& dependency,
                         const RealHandler& handler) = 0;
  virtual void clear(unsigned unit, bool release) = 0;
  virtual void mark(unsigned unit, bool marking) = 0;
  // The version that an update of a key leaves its handle with; none if the log lacks the key.
  virtual std::optional<std::uint64_t> update(unsigned unit, unsigned key) = 0;

  // With `walks`, also by what goes over a whole collection, which takes its time.
  virtual void compare(Model& model, unsigned index, bool walks, Findings& findings) = 0;
  // What the linkages of a software table count, against the configuration collection.
  virtual void compareUses(Model& model, Place place, Findings& findings) = 0;
};

template <class T>
class TableDriver final : public Driver {
 public:
  using Interface = KelpEmServer::KelpInterface<T>;
  using SwTable = KelpEmServer::KelpSwTable<T>;
  using Log = KelpEmServer::KelpEntryLog<T>;
  using Entry = typename T::Entry;
  using Key = typename Entry::Key;

  TableDriver() {
    for (unsigned key = 0; key < kKeys; ++key) {
      keys_[key] = TestSupport::sampleKey<Key>(key);
      for (unsigned variant = 0; variant < kVariants; ++variant) {
        entries_[key][variant] = TestSupport::sampleEntry<Entry>(keys_[key], variant);
        unsigned linkage = 0;
        T::Linkages::forEachKind([&](auto tag) {
          using L = typename decltype(tag)::Kind;
          Entry& entry = entries_[key][variant];
          const unsigned number = named(variant, linkage++).number;
          const_cast<typename L::ResourceKey&>(L::key(entry)) =
              TestSupport::sampleResource<typename L::ResourceKey>(number);
          if constexpr (requires { entry.rsrcKeys.remarkProfileType; }) {
            entry.rsrcKeys.remarkProfileType = static_cast<std::uint16_t>(number);
          }
        });
      }
    }
  }

  static Resource named([[maybe_unused]] unsigned variant, unsigned linkage) {
    Resource resource;
    unsigned at = 0;
    T::Linkages::forEachKind([&](auto tag) {
      if (at++ == linkage) {
        constexpr unsigned kKind = kKindOf<typename decltype(tag)::Kind>;
        resource = {kKind, kNamed[kKind][variant]};
      }
    });
    return resource;
  }
  Table description() const override {
    Table table;
    table.id = T::tableId.value;
    T::Linkages::forEachKind([&](auto) { ++table.linkages; });
    for (unsigned variant = 0; variant < kVariants; ++variant) {
      for (unsigned linkage = 0; linkage < kLinkages; ++linkage) {
        table.resources[variant][linkage] = named(variant, linkage);
      }
    }
    return table;
  }
  void attach(unsigned index, std::deque<Event>& events, ResourceSide& resources) override {
    for (unsigned unit = 0; unit < kUnits; ++unit) {
      helpers_[unit] = Lumen::makeNode<Recorder<T>>(Place{index, unit}, keys_, events, resources);
    }
  }

  std::string_view name() const override { return T::name.view(); }
  Asic::SwTableId tableId() const override { return T::tableId; }
  Lumen::String logPath() const override {
    return KelpEmServer::KelpConstants<T>::tableEntryLogQuiltPath();
  }
  Lumen::String configPath(unsigned unit) const override {
    return KelpEmServer::KelpConstants<T>::configQuiltPath(idOf(unit));
  }

  void open(const Lumen::Ptr<Asic::OrderedTableInterface>& agent) override {
    intf_ = Interface::getIntf(agent);
  }
  void make(unsigned unit, bool reset) override {
    tables_[unit] = intf_->makeSwTable(idOf(unit), helpers_[unit], reset);
  }
  void drop() override {
    tables_ = {};
    intf_ = nullptr;
  }
  std::uint64_t incarnation() const override {
    return intf_->entryLog()->tableEntryLog()->collectionControl()->incarnation();
  }

  RealHandle write(unsigned unit, unsigned key, unsigned variant, const RealDependency& dependency,
                   const RealHandler& handler) override {
    return tables_[unit]->entryWriteWithResponseHandler(keys_[key], entries_[key][variant],
                                                        dependency, handler);
  }
  RealHandle remove(unsigned unit, unsigned key, const RealDependency& dependency,
                    const RealHandler& handler) override {
    return tables_[unit]->entryRemoveWithResponseHandler(keys_[key], dependency, handler);
  }
  void removeAll(unsigned unit, const RealDependency& dependency,
                 const RealHandler& handler) override {
    tables_[unit]->entryRemoveAllWithResponseHandler(dependency, handler);
  }
  void clear(unsigned unit, bool release) override { tables_[unit]->clearTable(release); }
  void mark(unsigned unit, bool marking) override {
    if (marking) {
      tables_[unit]->mark();
    } else {
      tables_[unit]->inMarkingStateIs(false);
      tables_[unit]->markedKeyDelAll();
    }
  }
  std::optional<std::uint64_t> update(unsigned unit, unsigned key) override {
    const auto handle = tables_[unit]->updateEntry(keys_[key]);
    return handle ? std::optional(handle->logVersion().value) : std::nullopt;
  }

  void compare(Model& model, unsigned index, bool walks, Findings& findings) override {
    const Table& table = model.table(index);
    if (!table.open) {
      return;
    }
    Log& log = *intf_->entryLog();
    const auto control = log.tableEntryLog()->collectionControl();
    findings.equal("tableVersion", log.tableVersion().value, table.tableVersion, name());
    findings.equal("scratchpad", control->scratchpad(), table.tableVersion, name());
    findings.equal("published", control->published(), table.tableVersion, name());
    findings.equal("lastCleaned", log.lastCleanedVersion().value, table.lastCleaned, name());
    findings.equal("pending flag", intf_->swTableStatus()->pendingHwWrites(), table.pending,
                   name());
    compareLog(log, table, findings);
    for (unsigned unit = 0; unit < kUnits; ++unit) {
      if (table.mounted[unit]) {
        compareConfig(log, table, unit, walks, findings);
      }
      if (table.units[unit]) {
        compareTable(model, {index, unit}, findings);
        if (walks) {
          compareWalks(model, {index, unit}, findings);
        }
      }
    }
  }

  void compareUses(Model& model, Place place, Findings& findings) override {
    unsigned linkage = 0;
    T::Linkages::forEachKind([&](auto tag) {
      compareLinkage<typename decltype(tag)::Kind>(model, place, linkage++, findings);
    });
  }

 private:
  static Asic::UnitId idOf(unsigned unit) { return Asic::UnitId{static_cast<std::uint16_t>(unit)}; }

  void compareLog(Log& log, const Table& table, Findings& findings) {
    auto& map = log.tableEntryLog()->entryLogConfig();
    findings.equal("log records", map.size(), table.log.size(), name());
    typename Log::LogRecord record;
    Quilt::IterHint hint;
    auto expected = table.log.begin();
    for (bool more = map.first(record, hint); more && expected != table.log.end();
         more = map.next(record.version, record, hint), ++expected) {
      findings.equal("log record", record.version.value, expected->first, name());
      findings.equal("unit of log record", record.unitId.value, expected->second.unit, name(),
                     expected->first);
      findings.equal("flags of log record", record.flags, expected->second.flags, name(),
                     expected->first);
      const auto entry = expected->second.flags == 2
                             ? typename Entry::LogEntry()
                             : entries_[expected->second.key][expected->second.variant].logEntry;
      findings.equal("entry of log record is right", TestSupport::isAsked(record.logEntry, entry),
                     true, name(), expected->first);
      compareIndexes("index in log record", record.logEntry, expected->second.indexes,
                     expected->first, findings);
    }
    findings.equal("walk of the log ends", expected == table.log.end(), true, name());
  }

  void compareIndexes(std::string_view what, const typename Entry::LogEntry& logged,
                      const Indexes& expected, std::uint64_t version, Findings& findings) {
    unsigned linkage = 0;
    T::Linkages::forEachKind([&](auto tag) {
      using L = typename decltype(tag)::Kind;
      findings.equal(what, TestSupport::loggedIndex<L>(logged).value_or(~std::uint32_t{0}),
                     expected[linkage], name(), version, linkage);
      ++linkage;
    });
  }

  void compareConfig(Log& log, const Table& table, unsigned unit, bool walks, Findings& findings) {
    const auto& map = log.tableConfigQuilt(idOf(unit))->swTableEntries();
    const auto& records = table.config[unit];
    findings.equal("configuration records", map.size(), records.size(), name(), unit);
    unsigned deleted = 0;
    for (unsigned key = 0; key < kKeys; ++key) {
      bool found = false;
      const auto& record = map.find(keys_[key], found);
      const auto expected = records.find(key);
      findings.equal("record is there", found, expected != records.end(), name(), unit, key);
      if (!found || expected == records.end()) {
        continue;
      }
      deleted += expected->second.deleted ? 1U : 0U;
      findings.equal("version of record", record.version.value, expected->second.version, name(),
                     unit, key);
      findings.equal("record is deleted", record.isDeleted != 0, expected->second.deleted, name(),
                     unit, key);
      findings.equal("entry of record is right",
                     TestSupport::isAsked(record.entry, entries_[key][expected->second.variant]),
                     true, name(), unit, key);
      compareIndexes("index in record", record.entry.logEntry, expected->second.indexes,
                     expected->second.version, findings);
    }
    if (walks) {
      findings.equal("entrysInDeletion", log.entrysInDeletion(idOf(unit)), deleted, name(), unit);
    }
  }

  [[nodiscard]] bool reads(const Entry& entry, unsigned key, std::optional<unsigned> variant) {
    return TestSupport::isAsked(entry, variant ? entries_[key][*variant] : Entry());
  }

  void compareTable(Model& model, Place place, Findings& findings) {
    const SwTable& table = *tables_[place.unit];
    const Unit& unit = *model.table(place.table).units[place.unit];
    for (unsigned key = 0; key < kKeys; ++key) {
      findings.equal("entryRead is right",
                     reads(table.entryRead(keys_[key]), key, model.read(place, key)), true, name(),
                     place.unit, key);
      findings.equal("entryFromConfig is right",
                     reads(table.entryFromConfig(keys_[key]), key, model.committed(place, key)),
                     true, name(), place.unit, key);
      findings.equal("entryHas", table.entryHas(keys_[key]), model.has(place, key), name(),
                     place.unit, key);
      findings.equal("write in flight", table.transientAddEntry()[keys_[key]] != nullptr,
                     unit.add.contains(key), name(), place.unit, key);
      findings.equal("remove in flight", table.transientRemoveEntry()[keys_[key]] != nullptr,
                     unit.remove.contains(key), name(), place.unit, key);
      findings.equal("marked", table.markedKey()[keys_[key]] != nullptr, unit.marked.contains(key),
                     name(), place.unit, key);
      const auto version = unit.versions.find(key);
      findings.equal("version of key", table.transientVersionForKey(keys_[key]).majorVersion,
                     version == unit.versions.end() ? ~std::uint64_t{0} : version->second, name(),
                     place.unit, key);
    }
    findings.equal("transientRemoveAllVersion", table.transientRemoveAllVersion().value,
                   unit.removeAll.value_or(~std::uint64_t{0}), name(), place.unit);
    findings.equal("hasPendingHwWrites", table.hasPendingHwWrites(),
                   model.hasPendingHwWrites(place), name(), place.unit);
    findings.equal("inMarkingState", table.inMarkingState(), unit.marking, name(), place.unit);
    findings.equal("queued operations", tables_[place.unit]->resolverQueue().size(),
                   unit.queue.size(), name(), place.unit);
    const auto front = table.entryHandleInLogFront();
    findings.equal("a handle waits", front != nullptr, !unit.inLog.empty(), name(), place.unit);
    if (front && !unit.inLog.empty()) {
      findings.equal("handle that waits first", front->logVersion().value,
                     model.handles()[unit.inLog.front()].logVersion, name(), place.unit);
    }
    const Asic::SwTableStats& stats = *table.stats();
    findings.equal("entryWriteCnt", stats.entryWriteCnt(), unit.stats.writes, name(), place.unit);
    findings.equal("entryRemoveCnt", stats.entryRemoveCnt(), unit.stats.removes, name(),
                   place.unit);
    findings.equal("commitCnt", stats.commitCnt(), unit.stats.commits, name(), place.unit);
    findings.equal("suppressedWriteCnt", stats.suppressedWriteCnt(), unit.stats.suppressed, name(),
                   place.unit);
    findings.equal("suppressCheckDiffCnt", stats.suppressCheckDiffCnt(), unit.stats.differences,
                   name(), place.unit);
    findings.equal("tableClearCnt", stats.tableClearCnt(), unit.stats.clears, name(), place.unit);
    findings.equal("resolveFailCnt", stats.resolveFailCnt(), unit.stats.resolveFails, name(),
                   place.unit);
    findings.equal("updateCnt", stats.updateCnt(), unit.stats.updates, name(), place.unit);
    findings.equal("updateWithFailedResourceCnt", stats.updateWithFailedResourceCnt(),
                   unit.stats.failedUpdates, name(), place.unit);
  }

  // Exactly the keys of the committed entries that name a resource use it, and no resource is there
  // without a user. After a clear without release, what it has left stands besides.
  template <class L>
  void compareLinkage(Model& model, Place place, unsigned linkage, Findings& findings) {
    using ResourceKey = typename L::ResourceKey;
    const auto& real = *TestSupport::linkageOf<L>(*tables_[place.unit]);
    const Unit& unit = *model.table(place.table).units[place.unit];
    std::set<Use> committed;
    const auto& map = intf_->entryLog()->tableConfigQuilt(idOf(place.unit))->swTableEntries();
    for (unsigned key = 0; key < kKeys; ++key) {
      bool found = false;
      const auto& record = map.find(keys_[key], found);
      for (unsigned number = 1; found && record.isDeleted == 0 && number <= kResources; ++number) {
        if (L::key(record.entry).isEq(TestSupport::sampleResource<ResourceKey>(number))) {
          committed.insert({linkage, number, key});
        }
      }
    }
    unsigned inUse = 0;
    for (unsigned number = 1; number <= kResources; ++number) {
      const auto sm = real.entryUsageSm(TestSupport::sampleResource<ResourceKey>(number));
      unsigned users = 0;
      for (unsigned key = 0; key < kKeys; ++key) {
        const Use use{linkage, number, key};
        const bool uses = sm && sm->entryUsage()[keys_[key]] != nullptr;
        users += uses ? 1U : 0U;
        if (!unit.cleared) {
          findings.equal("key is a user as its record says", uses, committed.contains(use), name(),
                         place.unit, linkage, number, key);
        }
        findings.equal("key is a user", uses, unit.uses.contains(use), name(), place.unit, linkage,
                       number, key);
      }
      inUse += sm ? 1U : 0U;
      findings.equal("resource has a state machine", sm != nullptr, users != 0, name(), place.unit,
                     linkage, number);
      findings.equal("users of resource", sm ? sm->entryUsage().size() : 0U, users, name(),
                     place.unit, linkage, number);
    }
    findings.equal("resources in use", real.entryUsageSm().size(), inUse, name(), place.unit,
                   linkage);
  }

  void compareWalks(Model& model, Place place, Findings& findings) {
    const SwTable& table = *tables_[place.unit];
    findings.equal("entrys", table.entrys(), model.entrys(place), name(), place.unit);
    std::array<unsigned, kKeys> shown{};
    unsigned all = 0;
    for (auto iter = table.entryIteratorConst(); iter; ++iter) {
      ++all;
      for (unsigned key = 0; key < kKeys; ++key) {
        const auto variant = model.read(place, key);
        shown[key] += variant && TestSupport::isAsked((*iter), entries_[key][*variant]) ? 1U : 0U;
      }
    }
    findings.equal("entries that an iteration shows", all, model.entrys(place), name(), place.unit);
    for (unsigned key = 0; key < kKeys; ++key) {
      findings.equal("times that an iteration shows the key", shown[key],
                     model.has(place, key) ? 1U : 0U, name(), place.unit, key);
    }
  }

  Lumen::Ptr<Interface> intf_;
  std::array<Lumen::Ptr<SwTable>, kUnits> tables_;
  std::array<Lumen::Ptr<Recorder<T>>, kUnits> helpers_;
  std::array<Key, kKeys> keys_;
  std::array<std::array<Entry, kVariants>, kKeys> entries_;
};

}  // namespace ModelTest
