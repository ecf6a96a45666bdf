#pragma once

#include <map>
#include <set>
#include <utility>

#include "KillFixture.h"
#include "PactResourceTable/Records.h"
#include "SampleResources.h"

namespace TestSupport {

// What the resources of a table's entries must be after an agent has ended anywhere: recounted from
// the configuration collections.
template <class T>
class ResourceRecount : public KillFixture<T> {
 public:
  using Base = KillFixture<T>;
  using typename Base::Entry;
  using typename Base::Key;
  using typename Base::Place;
  using Entries = std::map<Place, Entry>;

 protected:
  // The committed entries of both units, as another process sees them.
  Entries leftEntries() {
    Entries all;
    const auto memory = BrioSharedMem::EntityManager::getEntityManager("kelp-test", false);
    for (const Asic::UnitId unit : {Base::unit0, Base::unit1}) {
      try {
        collect(*Lumen::dynamicPtrCast<typename T::ConfigQuilt>(memory->openReader(
                    KelpEmServer::KelpConstants<T>::configQuiltPath(unit),
                    "KelpTunnelNiLib::" + std::string(T::name.view()) + "ConfigQuilt")),
                unit, all);
      } catch (const BrioSharedMem::StoreError&) {
        // The collection has not been made.
      }
    }
    return all;
  }
  // Entries that name the same resources as before carry what they did.
  static void expectSameResults(const Entries& before, const Entries& after) {
    for (const auto& [place, entry] : after) {
      const auto was = before.find(place);
      if (was != before.end() && was->second.rsrcKeys.isEq(entry.rsrcKeys)) {
        EXPECT_TRUE(was->second.logEntry.isEq(resolvedAs(was->second.logEntry, entry.logEntry)))
            << "unit " << place.first << ", key " << place.second << " has another index";
      }
    }
  }

  // An index that an entry has come to carry stays, wherever the agent ended.
  static void expectMovedStay(const Entries& before, const Entries& cutOff, const Entries& after) {
    for (const auto& [place, entry] : cutOff) {
      const auto was = before.find(place);
      const auto is = after.find(place);
      if (was == before.end() || is == after.end() ||
          !was->second.rsrcKeys.isEq(is->second.rsrcKeys)) {
        continue;
      }
      T::Linkages::forEachKind([&](auto tag) {
        using L = typename decltype(tag)::Kind;
        const auto index = loggedIndex<L>(entry.logEntry);
        if (index != loggedIndex<L>(was->second.logEntry)) {
          EXPECT_EQ(loggedIndex<L>(is->second.logEntry), index);
        }
      });
    }
  }

  // --- in an agent that has told the end of replay

  // Usage, holds and indexes are those of the committed entries, and nothing else is held.
  void expectRecounted() {
    T::Linkages::forEachKind([&](auto tag) { expectOfKind<typename decltype(tag)::Kind>(); });
  }
  // With all reported, nothing is taken but what entries use.
  void expectNothingElseTaken() {
    T::Linkages::forEachKind([&](auto tag) {
      using L = typename decltype(tag)::Kind;
      const auto& table = resourceTableOf<L>(this->resources_);
      std::set<std::uint32_t> used;
      for (const auto& [place, entry] : committed()) {
        used.insert(loggedIndex<L>(entry.logEntry).value());
      }
      EXPECT_EQ(table.releases(), 0U);
      EXPECT_EQ(table.entrys(), used.size());
      EXPECT_EQ(table.indexesTaken(), used.size());
    });
  }

 private:
  using Client = PactResourceTable::ClientId;

  static void collect(const typename T::ConfigQuilt& quilt, Asic::UnitId unit, Entries& all) {
    for (std::uint64_t number = 1; number <= Base::kKeys; ++number) {
      bool found = false;
      const auto& record = quilt.swTableEntries().find(Base::key(number), found);
      if (found && record.isDeleted == 0) {
        all[{unit.value, number}] = record.entry;
      }
    }
  }
  // The same, in the agent that has the collections.
  Entries committed() {
    Entries all;
    for (const Asic::UnitId unit : {Base::unit0, Base::unit1}) {
      collect(*this->intf()->entryLog()->tableConfigQuilt(unit), unit, all);
    }
    return all;
  }

  template <class Quilt, class L>
  const Quilt& collection(const char* name) {
    using Kind = typename L::ResourceTable::Kind;
    return *Lumen::dynamicPtrCast<Quilt>(this->memory()->getEntity(
        PactResourceTable::collectionPath(Kind::tableNamespace, Kind::tableName, name)));
  }

  template <class L>
  void expectOfKind() {
    using ResourceKey = typename L::ResourceKey;
    using ResourceQuilt = PactResourceTable::ResourceQuilt<ResourceKey>;
    const auto& resources = collection<ResourceQuilt, L>(PactResourceTable::kResources).map();
    const auto numberOf = [&](const Entry& entry) {
      bool found = false;
      const auto& record = resources.find(L::key(entry), found);
      EXPECT_TRUE(found) << "an entry names a resource that is not there";
      EXPECT_NE(record.index, 0U);
      EXPECT_EQ(loggedIndex<L>(entry.logEntry), record.index);
      return record.number;
    };
    std::set<std::pair<std::uint32_t, Client>> used;
    std::array<std::map<std::uint32_t, std::set<std::uint64_t>>, 2> users;
    for (const auto& [place, entry] : committed()) {
      const std::uint32_t number = numberOf(entry);
      used.insert({number, {T::tableId, Asic::UnitId{static_cast<std::uint16_t>(place.first)}}});
      users[place.first][number].insert(place.second);
    }
    expectHolds<L>(used);
    for (unsigned unit = 0; unit < 2; ++unit) {
      const auto table = this->table(Asic::UnitId{static_cast<std::uint16_t>(unit)});
      const auto& linkage = *linkageOf<L>(*table);
      EXPECT_EQ(linkage.entryUsageSm().size(), users[unit].size());
      for (const auto& node : linkage.entryUsageSm()) {
        bool found = false;
        const std::uint32_t number = resources.find(node.value()->resKey(), found).number;
        EXPECT_EQ(node.value()->entryUsage().size(), users[unit][number].size());
        for (const std::uint64_t key : users[unit][number]) {
          EXPECT_NE(node.value()->entryUsage()[this->key(key)], nullptr);
        }
      }
    }
    expectUniqueIndexes<PactResourceTable::ResourceRecord<ResourceKey>>(resources);
  }
  template <class L>
  void expectHolds(const std::set<std::pair<std::uint32_t, Client>>& used) {
    const auto& holds =
        collection<PactResourceTable::HoldQuilt, L>(PactResourceTable::kHolds).map();
    std::set<std::pair<std::uint32_t, Client>> held;
    PactResourceTable::HoldRecord hold;
    Quilt::IterHint hint;
    for (bool more = holds.first(hold, hint); more; more = holds.next(hold.key, hold, hint)) {
      held.insert({hold.key.number, hold.key.client});
    }
    EXPECT_TRUE(held == used) << held.size() << " held, " << used.size() << " used";
  }
  template <class Record>
  static void expectUniqueIndexes(const Quilt::QuiltMap<Record>& resources) {
    std::set<std::uint32_t> indexes;
    Record record;
    Quilt::IterHint hint;
    for (bool more = resources.first(record, hint); more;
         more = resources.next(record.key, record, hint)) {
      EXPECT_TRUE(record.index == 0 || indexes.insert(record.index).second)
          << "two resources have index " << record.index;
    }
  }
};

}  // namespace TestSupport
