#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Asic/DependencyEntryHandle.h"
#include "Asic/OrderedSwTable.h"
#include "Asic/OrderedTableInterface.h"
#include "Asic/UnitId.h"
#include "Lumen/Ptr.h"
#include "common/ResourceKinds.h"
#include "common/Tables.h"

namespace Common {

// What one software table has done in this run, and where it stands.
struct TableFigures {
  std::uint64_t written = 0;             // writes accepted
  std::uint64_t removed = 0;             // removes of one key accepted
  std::uint64_t suppressed = 0;          // writes that the log dropped as identical
  std::uint64_t inLog = 0;               // records in the change log, which the units share
  std::uint64_t entries = 0;             // entries in the reader's view
  bool pending = false;                  // hasPendingHwWrites()
  std::uint64_t tableVersion = 0;        // the last version of the log, and up to which one the
  std::uint64_t lastCleanedVersion = 0;  // hardware side has taken it in; the units share both
};

// What one software table has done in this run, and what is under way in it, for whoever watches.
struct TableState {
  std::uint64_t entries = 0;             // committed ones
  std::uint64_t writesInFlight = 0;      // keys with a write that is not committed
  std::uint64_t removesInFlight = 0;     // and with a remove
  std::uint64_t removeAllsInFlight = 0;  // as removeAllsInFlight()
  std::uint64_t queued = 0;              // operations that are not committed
  std::uint64_t inLog = 0;               // committed ones that the hardware side has not reported
  // Of the log, which the units share: the last version issued, published and reported, and the
  // records that it holds, of so many at most.
  std::uint64_t issued = 0;
  std::uint64_t published = 0;
  std::uint64_t reported = 0;
  std::uint64_t logRecords = 0;
  std::uint64_t logCapacity = 0;
  // The counters of Asic::SwTableStats.
  std::uint64_t writes = 0;
  std::uint64_t removes = 0;
  std::uint64_t commits = 0;
  std::uint64_t resolveFailures = 0;
  std::uint64_t updates = 0;
  std::uint64_t updatesWithFailedResource = 0;
  std::uint64_t suppressedWrites = 0;
  std::uint64_t differingWrites = 0;
  std::uint64_t tableClears = 0;
  double lastCommit = 0;  // UTC seconds; 0: none yet
};

// One of the tables on one chip unit, whichever it is: what an agent does with it, without its
// types. The keys and entries given to it must be of its table, which is asserted.
class AnyTable {
 public:
  using Handle = Lumen::Ptr<const Asic::OrderedSwTable::EntryHandle>;
  using Dependency = Lumen::Ptr<const Asic::DependencyEntryHandle>;
  using ResponseHandler = Asic::OrderedSwTable::ResponseHandler;

  // The oldest operation of a table that is not committed. It holds back all later ones.
  struct Front {
    bool isRemoveAll = false;
    AnyKey key;     // of no meaning for a remove-all
    Handle handle;  // as write() and remove() give it out
  };
  // How the committed entries of a table use a resource.
  struct ResourceUse {
    std::size_t entries = 0;
    std::vector<AnyKey> keys;  // some of theirs
    // What the table has of the resource; null: nothing.
    Lumen::Ptr<const PactResourceTable::ResourceHandle> handle;
  };

  // Makes the software table of the unit, over the entries of an earlier run, and the table's
  // interface before it at the first unit. Throws BrioSharedMem::StoreError.
  [[nodiscard]] static std::unique_ptr<AnyTable> make(
      std::size_t table, const Lumen::Ptr<Asic::OrderedTableInterface>& agent, Asic::UnitId unit);
  virtual ~AnyTable() = default;
  AnyTable(const AnyTable&) = delete;
  AnyTable& operator=(const AnyTable&) = delete;

  [[nodiscard]] std::size_t table() const noexcept { return table_; }
  [[nodiscard]] std::string_view name() const { return tableName(table_); }
  [[nodiscard]] Asic::UnitId unit() const noexcept { return unit_; }

  // As the operations of a software table: the handler is called at the end of the operation; that
  // of removeAll() only if the dependency fails. The handle is never null.
  virtual Handle write(const AnyEntry& entry, const Dependency& dependency,
                       const ResponseHandler& handler) = 0;
  virtual Handle remove(const AnyKey& key, const Dependency& dependency,
                        const ResponseHandler& handler) = 0;
  virtual void removeAll(const Dependency& dependency, const ResponseHandler& handler) = 0;

  // Whether the entry names a resource.
  [[nodiscard]] virtual bool namesResources(const AnyEntry& entry) const = 0;
  // The resources that the entry names and that can't be had now, or not yet. Asks the resource
  // tables for them, which then know those that nobody else asks for as long as somebody keeps the
  // handles. Costs a search for each.
  [[nodiscard]] virtual std::vector<MissingResource> missingResources(
      const AnyEntry& entry) const = 0;

  // The resources that a write which is not committed waits for, by what write() gave out for it.
  // Empty if something else holds it up. Asks no resource table, and so changes nothing.
  [[nodiscard]] virtual std::vector<MissingResource> awaitedResources(
      const AnyKey& key, const Handle& handle) const = 0;
  // Whether the entry names this resource.
  [[nodiscard]] virtual bool names(const AnyEntry& entry, const AnyResourceKey& resource) const = 0;
  // Nothing if entries of this table name no resources of the kind; with `most` keys at most. Costs
  // a search, and a step for each key.
  [[nodiscard]] virtual std::optional<ResourceUse> useOf(const AnyResourceKey& resource,
                                                         std::size_t most) const = 0;

  // Whether the key is in the reader's view.
  [[nodiscard]] virtual bool has(const AnyKey& key) const = 0;
  // Remove-alls that are accepted and not committed. One that failed counts for good.
  [[nodiscard]] virtual std::uint64_t removeAllsInFlight() const = 0;
  // The last version of the table's log, and up to which one the hardware side has taken it in.
  [[nodiscard]] virtual std::uint64_t tableVersion() const = 0;
  [[nodiscard]] virtual std::uint64_t lastCleanedVersion() const = 0;
  // What there is no room for, in words and with the remedy: a change of the table, or an entry of
  // `key` unless that is null. Empty if there is room, which is taken ahead then.
  [[nodiscard]] virtual std::string lackOfRoom(const AnyKey* key) const = 0;
  // Nothing if all is committed.
  [[nodiscard]] virtual std::optional<Front> front() const = 0;
  // The key of a handle that this table gave out.
  [[nodiscard]] virtual AnyKey keyOf(const Handle& handle) const = 0;
  // Costs a walk of the table.
  [[nodiscard]] virtual TableFigures figures() const = 0;
  // Costs the same however much there is.
  [[nodiscard]] virtual TableState state() const = 0;

 protected:
  AnyTable(std::size_t table, Asic::UnitId unit) : table_(table), unit_(unit) {}

 private:
  std::size_t table_;
  Asic::UnitId unit_;
};

}  // namespace Common
