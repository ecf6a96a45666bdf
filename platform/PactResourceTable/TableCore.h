#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Asic/DependencyEntryHandle.h"
#include "Asic/NamedSwTable.h"
#include "Asic/OrderedTableInterface.h"
#include "Brio/TraceHandle.h"
#include "BrioSharedMem/EntityManager.h"
#include "Lumen/Ptr.h"
#include "Lumen/String.h"
#include "PactResourceTable/IndexPool.h"
#include "PactResourceTable/InspectClasses.h"
#include "PactResourceTable/Records.h"

namespace PactResourceTable {

// What a resource table is besides its keys and results: the indexes that it gives out, who holds
// what, and which indexes are not free yet because the chip may still use them.
//
// An index is free when no resource has it and every release of it has been reported: a release
// names the version of the client's table from which on the client does without.
class TableCore : public Asic::NamedSwTable {
 public:
  static constexpr const char* className() { return "TableCore"; }
  static constexpr auto attributes() {
    using C = TableCore;
    return Brio::attributeList(
        514, Brio::stored("deadline", &C::deadline_).writtenBy(&C::deadlineIs),
        Brio::view("entrys", &C::entrys), Brio::view("indexesTaken", &C::indexesTaken),
        Brio::view("limit", &C::limit), Brio::stored("releases", &C::releaseCount_),
        Brio::operation("work", &C::work), Brio::operation("replayComplete", &C::replayComplete));
  }
  static constexpr const Lumen::TypeData& classData() {
    return kInspectClass<1, "TableCore", &Asic::NamedSwTable::classData()>;
  }

  ~TableCore() override;

  // Work that waits for the outside: releases that have been reported, resources that wait for an
  // index, resources that have waited for too long. To be called when the hardware side has
  // reported, and now and then. True if something has moved: waiting operations are worth another
  // question then, which their resolvers have been told.
  bool work();
  // The features have asked again for all that they want: what an earlier run held and nobody has
  // asked for is let go.
  virtual void replayComplete() = 0;

  // How long a resource may stay unresolved, in seconds; then it fails. 0, the default: for ever.
  void deadlineIs(double seconds) noexcept { deadline_ = seconds; }
  [[nodiscard]] double deadline() const noexcept { return deadline_; }

  // Resources that are known.
  [[nodiscard]] virtual unsigned entrys() const = 0;
  // Indexes that can't be given out: in use, or released and not reported.
  [[nodiscard]] std::uint32_t indexesTaken() const noexcept { return pool_.taken(); }
  [[nodiscard]] std::uint32_t limit() const noexcept { return pool_.limit(); }
  // Releases that wait for a report.
  [[nodiscard]] std::size_t releases() const noexcept { return releaseCount_; }

  void doCreateHwTable() override {}

 protected:
  TableCore(const Lumen::Ptr<const Asic::CanonicalTableName>& canonicalName,
            Asic::SwTableId tableId, const Lumen::Ptr<Asic::OrderedTableInterface>& agent,
            std::uint32_t limit);

  // Mounts a collection of the table's. Throws BrioSharedMem::StoreError.
  template <class Quilt>
  [[nodiscard]] Lumen::Ptr<Quilt> mount(const char* collection, const char* typeName,
                                        std::uint32_t capacity) {
    return Lumen::dynamicPtrCast<Quilt>(mountEntity(collection, typeName, capacity));
  }

  // ---- holds

  // Whether the collections have room for a hold of this resource and its release.
  [[nodiscard]] bool hasRoomForUse(std::uint32_t number, std::uint32_t index, ClientId client);
  [[nodiscard]] bool hasRoomForRelease(std::uint32_t index, ClientId client);
  // Calls visit(hold) for each hold in the store.
  void forEachHold(const std::function<void(const HoldRecord& hold)>& visit);
  // The client holds the resource and has worked off version `acked`.
  void holdIs(std::uint32_t number, ClientId client, std::uint32_t acked);
  void holdDel(std::uint32_t number, ClientId client);

  // ---- releases

  using Entry = Lumen::Ptr<const Asic::DependencyEntryHandle>;

  // The client does without the index from the log record of `entry` on, which may have no version
  // yet, such as that of a remove-all, whose uses go before it is logged. Null: it is free of it.
  void releaseIs(std::uint32_t index, ClientId client, const Entry& entry);
  void releaseIs(std::uint32_t index, ClientId client, Asic::LogVersion version);
  // Whoever has used it does without it from what all tables have published now.
  void releaseOfAll(std::uint32_t index);
  // The client will say so, with releaseSaid(). Until then it may publish what carries the index.
  void releaseAwaited(std::uint32_t index, ClientId client);
  // It says so; nothing if nobody waits for that.
  void releaseSaid(std::uint32_t index, ClientId client, const Entry& entry);
  // It is never going to: it has done without since what it has published now.
  void releaseSaid(std::uint32_t index, ClientId client);
  [[nodiscard]] bool isReleased(std::uint32_t index) const { return busy_.contains(index); }
  // What an earlier run's clients had still to say, nobody is going to.
  void oldReleasesSaid();
  // The newest published version of a table's log.
  [[nodiscard]] Asic::LogVersion lastVersion(Asic::SwTableId tableId) const;

  // The last release of an index has been reported.
  virtual void releaseReported(std::uint32_t index) = 0;
  // Serves what waits for an index; true if anybody was.
  virtual bool serveWaiting() = 0;
  // Fails what has been unresolved since before `time`, of now(); true if anything was.
  virtual bool failLate(double time) = 0;
  // Seconds, of a clock that nobody sets.
  [[nodiscard]] static double now() noexcept;

  [[nodiscard]] IndexPool& pool() noexcept { return pool_; }
  // Asks all resolvers to put their questions anew.
  void askAgain();

  static const Brio::TraceHandle& traceHandle();

 private:
  [[nodiscard]] Lumen::Ptr<Brio::Entity> mountEntity(const char* collection, const char* typeName,
                                                     std::uint32_t capacity);
  [[nodiscard]] Lumen::Ptr<Asic::GroupInterface> groupOf(Asic::SwTableId tableId) const;
  // A release of which not all is known yet.
  struct Pending {
    Asic::LogVersion known;      // the latest version that is
    std::vector<Entry> entries;  // that have none yet
    bool awaited = false;        // the client has still to say it
    bool old = false;            // in an earlier run

    [[nodiscard]] bool settled() const noexcept { return entries.empty() && !awaited; }
  };

  void loadReleases();
  [[nodiscard]] Pending& pending(const UseKey& key);
  void take(Pending& pending, const Entry& entry);
  void releaseWrite(const UseKey& key, Asic::LogVersion version);
  void releaseSettle(const UseKey& key);
  void releaseDrop(const UseKey& key);
  void takeVersions();
  bool takeReports();

  Lumen::Ptr<Asic::GroupInterfaceColl> groups_;
  Lumen::Ptr<BrioSharedMem::EntityManager> memory_;
  Lumen::Ptr<HoldQuilt> holds_;
  Lumen::Ptr<ReleaseQuilt> releases_;
  IndexPool pool_;
  // By table: the releases that wait for it, by version. A row of the collection may have moved on
  // to a later version, and counts then.
  std::map<Asic::SwTableId, std::multimap<Asic::LogVersion, UseKey>> waiting_;
  std::unordered_map<std::uint32_t, std::uint32_t> busy_;  // releases by index
  std::map<UseKey, Pending> pending_;
  std::size_t releaseCount_ = 0;
  double deadline_ = 0;
};

}  // namespace PactResourceTable
