#pragma once

#include <fmt/format.h>

#include <chrono>
#include <map>
#include <optional>
#include <set>
#include <thread>
#include <utility>
#include <vector>

#include "Brio/System.h"
#include "KelpTunnelNiLib/ResourceTableSet.h"
#include "PactResourceTable/Records.h"
#include "SampleResources.h"
#include "State.h"

// The real resource tables behind an interface of numbers, with what operators did to them.

namespace ModelTest {

// The kinds, in the order of the set.
template <class L>
inline constexpr unsigned kKindOf = 2;
template <>
inline constexpr unsigned kKindOf<KelpEmServer::InLifIndexLinkageKind> = 0;
template <>
inline constexpr unsigned kKindOf<KelpEmServer::VlanEditProfileLinkageKind> = 1;
inline constexpr unsigned kKinds = 3;
// The resource that the entry of a variant names, by kind. Of the two of one table, one or the
// other is none, or the same as in another variant.
inline constexpr unsigned kNamed[kKinds][kVariants] = {
    {0, 1, 2, 3, 4}, {0, 1, 2, 3, 1}, {1, 0, 1, 2, 4}};

class ResourceSide {
 public:
  using Stage = KelpTunnelNiLib::InLifIndexResourceTable::Stage;
  using RealState = Asic::EntryState;

  struct Row {
    std::uint32_t number = 0;
    std::uint32_t index = 0;
    std::uint32_t updateVersion = 0;
    RealState state = RealState::entryStateUnresolved;
  };
  struct Hold {
    std::uint32_t number = 0;
    PactResourceTable::ClientId client;
    std::uint32_t acked = 0;
  };

  void make(const Lumen::Ptr<Asic::OrderedTableInterface>& agent,
            const Lumen::Ptr<BrioSharedMem::EntityManager>& memory, std::uint32_t limit) {
    memory_ = memory;
    tables_.inLifIndex = makeOne<KelpTunnelNiLib::InLifIndexResourceTable>(agent, limit);
    tables_.vlanEditProfile = makeOne<KelpTunnelNiLib::EveResourceTableResourceTable>(agent, limit);
    tables_.remarkProfile = makeOne<KelpQos::EgressRemarkProfileResourceTable>(agent, limit);
  }
  void drop() {
    tables_ = {};
    memory_ = nullptr;
    orders_.clear();
  }

  // Calls run(table) for the table of a kind.
  template <class Run>
  decltype(auto) with(unsigned kind, Run run) {
    switch (kind) {
      case 0:
        return run(*tables_.inLifIndex);
      case 1:
        return run(*tables_.vlanEditProfile);
      default:
        return run(*tables_.remarkProfile);
    }
  }
  [[nodiscard]] const KelpTunnelNiLib::ResourceTableSet& tables() const noexcept { return tables_; }

  // --- what operators do

  bool change(Resource of) {
    return with(of.kind, [&](auto& table) { return table.change(keyOf(table, of.number)); });
  }
  void refusedIs(Resource of, bool refused) {
    orders_[of].refused = refused;
    with(of.kind, [&](auto& table) { table.refusedIs(keyOf(table, of.number), refused); });
  }
  void prepareIs(Resource of, Stage stage) {
    orders_[of].stage = stage;
    with(of.kind, [&](auto& table) {
      using TableStage = typename std::remove_reference_t<decltype(table)>::Stage;
      table.prepareIs(keyOf(table, of.number), static_cast<TableStage>(stage));
    });
  }
  // What is unresolved now has waited for too long.
  void passDeadline() {
    const double longAgo = 1e-9;
    tables_.forEach([&](auto& table) { table.deadlineIs(longAgo); });
    // The clock goes in steps of a few milliseconds.
    const double before = Brio::System::currentTimeUtc();
    while (Brio::System::currentTimeUtc() <= before) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    (void)tables_.work();
    tables_.forEach([](auto& table) { table.deadlineIs(0); });
  }

  // --- what there is

  [[nodiscard]] bool refused(Resource of) const {
    const auto found = orders_.find(of);
    return found != orders_.end() && found->second.refused;
  }
  // Whether an operator has it prepared.
  [[nodiscard]] bool prepared(Resource of) const {
    const auto found = orders_.find(of);
    return found != orders_.end() && found->second.stage != Stage::none;
  }
  [[nodiscard]] bool unresolved(Resource of) {
    const auto has = row(of);
    return prepared(of) && !refused(of) &&
           (!has || (has->index == 0 && has->state != RealState::entryStateFailed6));
  }
  // Whether a resource without an index has none because it could not be had.
  [[nodiscard]] bool exhausted(Resource of) {
    if (prepared(of)) {
      return true;
    }
    bool others = false;
    for (unsigned number = 1; number <= kResources; ++number) {
      const auto has = row({of.kind, number});
      others = others || (number != of.number && has && has->index == 0 &&
                          has->state == RealState::entryStateFailed);
    }
    return others ||
           with(of.kind, [](auto& table) { return table.indexesTaken() == table.limit(); });
  }
  [[nodiscard]] std::optional<Row> row(Resource of) {
    return with(of.kind, [&](auto& table) -> std::optional<Row> {
      using Table = std::remove_reference_t<decltype(table)>;
      bool found = false;
      const auto& record = collection<PactResourceTable::ResourceQuilt<typename Table::Key>>(
                               table, PactResourceTable::kResources)
                               .map()
                               .find(keyOf(table, of.number), found);
      return found ? std::optional(
                         Row{record.number, record.index, record.updateVersion, record.state})
                   : std::nullopt;
    });
  }
  [[nodiscard]] std::vector<Hold> holds(unsigned kind) {
    std::vector<Hold> all;
    with(kind, [&](auto& table) {
      walk(collection<PactResourceTable::HoldQuilt>(table, PactResourceTable::kHolds),
           [&](const PactResourceTable::HoldRecord& hold) {
             all.push_back({hold.key.number, hold.key.client, hold.acked});
           });
    });
    return all;
  }
  // The indexes that somebody has given up and that are not free.
  [[nodiscard]] std::multiset<std::uint32_t> releases(unsigned kind) {
    std::multiset<std::uint32_t> all;
    with(kind, [&](auto& table) {
      walk(
          collection<PactResourceTable::ReleaseQuilt>(table, PactResourceTable::kReleases),
          [&](const PactResourceTable::ReleaseRecord& release) { all.insert(release.key.number); });
    });
    return all;
  }

 private:
  struct Order {
    bool refused = false;
    Stage stage = Stage::none;
  };

  template <class Table>
  static Lumen::Ptr<Table> makeOne(const Lumen::Ptr<Asic::OrderedTableInterface>& agent,
                                   std::uint32_t limit) {
    const auto made = Lumen::makeNode<Table>(agent, limit);
    agent->resourceTableIs(made);
    return made;
  }
  template <class Table>
  static typename Table::Key keyOf(const Table&, unsigned number) {
    return TestSupport::sampleResource<typename Table::Key>(number);
  }
  template <class Quilt, class Table>
  const Quilt& collection(const Table& table, const char* name) {
    return *Lumen::dynamicPtrCast<Quilt>(memory_->getEntity(PactResourceTable::collectionPath(
        table.canonicalName()->tableNamespace(), table.canonicalName()->tableName(), name)));
  }
  template <class Record, class Visit>
  static void walk(const BrioQuilt::CollectionEntity<Record>& collection, Visit visit) {
    Record record;
    Quilt::IterHint hint;
    for (bool more = collection.map().first(record, hint); more;
         more = collection.map().next(record.quiltKey(), record, hint)) {
      visit(record);
    }
  }

  KelpTunnelNiLib::ResourceTableSet tables_;
  Lumen::Ptr<BrioSharedMem::EntityManager> memory_;
  std::map<Resource, Order> orders_;
};

}  // namespace ModelTest
