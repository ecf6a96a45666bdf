#pragma once

#include <functional>
#include <utility>

#include "Asic/EntryVersion.h"
#include "Asic/GroupResolver.h"
#include "Asic/LogVersion.h"
#include "Asic/NamedSwTable.h"
#include "Asic/OrderedSwTableStatus.h"
#include "Asic/SwTableStats.h"
#include "Lumen/Publisher.h"

namespace Asic {

class OrderedSwTableSet;

// A software table whose changes reach the hardware in the order of its log.
class OrderedSwTable : public NamedSwTable {
 public:
  class EntryHandle;
  // Called at most once per handle, when the operation has reached its end. May be empty.
  using ResponseHandler = std::function<void(const Lumen::Ptr<const EntryHandle>&)>;

  // What a caller gets back for one write or remove.
  class EntryHandle : public SwTableBase::EntryHandle {
   public:
    static constexpr const char* className() { return "OrderedSwTable::EntryHandle"; }
    static constexpr auto attributes() {
      return Brio::attributeList(386, Brio::stored("version", &EntryHandle::version_),
                                 Brio::stored("logVersion", &EntryHandle::logVersion_));
    }
    static constexpr const Lumen::TypeData& classData() {
      return kInspectClass<8, "OrderedSwTable::EntryHandle",
                           &SwTableBase::EntryHandle::classData()>;
    }

    ~EntryHandle() override;

    [[nodiscard]] Lumen::Publisher* publisher() const override { return &publisher_; }
    [[nodiscard]] TableVersion entryTableVersion() const override {
      return {tableId_, logVersion_};
    }
    [[nodiscard]] std::string_view tableName() const override { return name_->tableName(); }
    [[nodiscard]] SwTableId tableId() const override { return tableId_; }

    // The version of this operation among those of its key; {0, 0} on the handle of a remove-all.
    [[nodiscard]] const EntryVersion& version() const noexcept { return version_; }
    // The version of the log record; 0 before there is one.
    [[nodiscard]] LogVersion logVersion() const noexcept { return logVersion_; }
    void logVersionIs(LogVersion version) noexcept { logVersion_ = version; }

    [[nodiscard]] const ResponseHandler& responseHandler() const noexcept {
      return responseHandler_;
    }
    void responseHandlerIs(ResponseHandler handler) noexcept {
      responseHandler_ = std::move(handler);
    }

   protected:
    EntryHandle(const EntryVersion& version, const OrderedSwTable* table)
        : version_(version), tableId_(table->tableId()), name_(table->canonicalName()) {}

   private:
    EntryVersion version_;
    LogVersion logVersion_;
    SwTableId tableId_;
    Lumen::Ptr<const CanonicalTableName> name_;
    ResponseHandler responseHandler_;
    mutable Lumen::Publisher publisher_;
  };

  static constexpr const char* className() { return "OrderedSwTable"; }
  static constexpr auto attributes() {
    return Brio::attributeList(
        514, Brio::stored("stats", &OrderedSwTable::stats_),
        Brio::stored("status", &OrderedSwTable::status_),
        Brio::operation("hasPendingHwWrites", &OrderedSwTable::hasPendingHwWrites),
        Brio::view("resolverQueueSize", &OrderedSwTable::resolverQueueSize),
        Brio::view("resolverQueueFront", &OrderedSwTable::resolverQueueFront));
  }
  static constexpr const Lumen::TypeData& classData() {
    return kInspectClass<7, "OrderedSwTable", &NamedSwTable::classData()>;
  }

  ~OrderedSwTable() override;

  [[nodiscard]] Lumen::Publisher* publisher() const override { return &publisher_; }

  // The hardware side has taken in everything up to `version`.
  virtual void tableStatusVersion(LogVersion version) = 0;
  // Whether anything that was written is still on its way to the hardware.
  [[nodiscard]] virtual bool hasPendingHwWrites() const = 0;

  [[nodiscard]] OrderedSwTableSet* swTableSet() const noexcept { return swTableSet_; }
  // Null until statsIs() has made it.
  [[nodiscard]] const Lumen::Ptr<SwTableStats>& stats() const noexcept { return stats_; }
  // Makes the counters, unless they are there.
  void statsIs();
  // The status shared by the table's units.
  [[nodiscard]] const Lumen::Ptr<OrderedSwTableStatus>& status() const noexcept { return status_; }
  void statusIs(const Lumen::Ptr<OrderedSwTableStatus>& status) { status_ = status; }
  // This table's operations in the group's queue.
  [[nodiscard]] GroupResolver::TableQueue& resolverQueue() noexcept { return resolverQueue_; }

 protected:
  OrderedSwTable(const Lumen::Ptr<const CanonicalTableName>& canonicalName, SwTableId tableId,
                 UnitId unitId, OrderedSwTableSet* swTableSet)
      : NamedSwTable(canonicalName, tableId, unitId), swTableSet_(swTableSet) {}

  [[nodiscard]] Lumen::Publisher& changes() const noexcept { return publisher_; }

 private:
  [[nodiscard]] std::uint64_t resolverQueueSize() const noexcept { return resolverQueue_.size(); }
  [[nodiscard]] const Lumen::Ptr<ResolverEntry>& resolverQueueFront() const noexcept {
    return resolverQueue_.front();
  }

  OrderedSwTableSet* swTableSet_;
  Lumen::Ptr<SwTableStats> stats_;
  Lumen::Ptr<OrderedSwTableStatus> status_;
  mutable Lumen::Publisher publisher_;
  GroupResolver::TableQueue resolverQueue_;
};

// An ordered table that tells live entries from stale ones after a restart.
class OrderedSwTableWithMarkSweep : public OrderedSwTable {
 public:
  static constexpr const char* className() { return "OrderedSwTableWithMarkSweep"; }
  static constexpr auto attributes() {
    return Brio::attributeList(642, Brio::operation("mark", &OrderedSwTableWithMarkSweep::mark),
                               Brio::operation("sweep", &OrderedSwTableWithMarkSweep::sweep));
  }
  static constexpr const Lumen::TypeData& classData() {
    return kInspectClass<13, "OrderedSwTableWithMarkSweep", &OrderedSwTable::classData()>;
  }

  ~OrderedSwTableWithMarkSweep() override;

  // Begins to note which keys are written.
  virtual void mark() = 0;
  // Removes every entry whose key was not noted since mark().
  virtual void sweep() = 0;

 protected:
  using OrderedSwTable::OrderedSwTable;
};

}  // namespace Asic
