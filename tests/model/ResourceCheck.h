#pragma once

#include <map>
#include <set>
#include <utility>

#include "Findings.h"
#include "Model.h"
#include "ResourceSide.h"

namespace ModelTest {

// The resource tables against what the software tables use.
class ResourceCheck {
 public:
  ResourceCheck(Model& model, ResourceSide& resources) : model_(model), resources_(resources) {}

  void all(const std::set<unsigned>& kinds, bool replayed, Findings& findings) {
    for (const unsigned kind : kinds) {
      rows_.clear();
      for (unsigned number = 1; number <= kResources; ++number) {
        if (const auto row = resources_.row({kind, number})) {
          rows_[number] = *row;
        }
      }
      compareHolds(kind, replayed, findings);
      compareCounts(kind, findings);
      compareRecords(kind, findings);
      compareCarried(kind, findings);
    }
  }

 private:
  using Holder = std::pair<unsigned, PactResourceTable::ClientId>;  // of a resource's number

  [[nodiscard]] PactResourceTable::ClientId clientOf(Place place) {
    return {Asic::SwTableId{model_.table(place.table).id},
            Asic::UnitId{static_cast<std::uint16_t>(place.unit)}};
  }
  // Who uses a resource holds it in this run, at its newest version, and nobody else does. What
  // an earlier run's entries use is held at least until the end of replay.
  void compareHolds(unsigned kind, bool replayed, Findings& findings) {
    std::set<Holder> used;
    model_.forEachUse([&](Place place, const Use&, const Resource& resource) {
      if (resource.kind == kind) {
        used.insert({resource.number, clientOf(place)});
      }
    });
    std::map<std::uint32_t, unsigned> numbers;
    for (const auto& [number, row] : rows_) {
      numbers[row.number] = number;
    }
    std::set<Holder> held;
    std::set<Holder> heldBefore;
    for (const auto& hold : resources_.holds(kind)) {
      const auto at = numbers.find(hold.number);
      findings.equal("hold is of a resource", at != numbers.end(), true, kind, hold.number);
      if (at == numbers.end()) {
        continue;
      }
      const Holder holder{at->second, hold.client};
      if (!used.contains(holder)) {
        findings.equal("held for what an earlier run used", replayed, false, kind, at->second);
        heldBefore.insert(holder);
        continue;
      }
      held.insert(holder);
      findings.equal("version acknowledged", hold.acked, rows_[at->second].updateVersion, kind,
                     at->second, hold.client.tableId.value, hold.client.unit.value);
    }
    for (unsigned number = 1; number <= kResources; ++number) {
      forEachPlace([&](Place place) {
        const Holder holder{number, clientOf(place)};
        findings.equal("client holds the resource", held.contains(holder), used.contains(holder),
                       kind, number, place.table, place.unit);
        if (!model_.has(place) && nameIn(place, kind, number)) {
          findings.equal("what an earlier run used is held", heldBefore.contains(holder), true,
                         kind, number, place.table, place.unit);
        }
      });
    }
    findings.equal("holds", held.size(), used.size(), kind);
  }
  // Taken is what a resource has, or somebody has given up and the chip may still use.
  void compareCounts(unsigned kind, Findings& findings) {
    const auto releases = resources_.releases(kind);
    std::set<std::uint32_t> taken(releases.begin(), releases.end());
    std::set<std::uint32_t> had;
    for (const auto& [number, row] : rows_) {
      if (row.index != 0) {
        findings.equal("index is one resource's", had.insert(row.index).second, true, kind, number);
        taken.insert(row.index);
      }
    }
    resources_.with(kind, [&](auto& table) {
      findings.equal("indexes taken", table.indexesTaken(), taken.size(), kind);
      findings.equal("releases", table.releases(), releases.size(), kind);
    });
  }
  // A committed entry carries the indexes that its resources have; one whose resources had failed
  // and that the helper kept, none until it is rewritten.
  void compareRecords(unsigned kind, Findings& findings) {
    forEachPlace([&](Place place) {
      if (!model_.has(place)) {
        return;
      }
      const Table& table = model_.table(place.table);
      for (const auto& [key, record] : table.config[place.unit]) {
        for (unsigned linkage = 0; linkage < table.linkages && !record.deleted; ++linkage) {
          const Resource named = table.resources[record.variant][linkage];
          if (named.kind != kind) {
            continue;
          }
          const auto row = rows_.find(named.number);
          const bool has = row != rows_.end() && !record.kept;
          findings.equal("entry carries the index", record.indexes[linkage],
                         has ? row->second.index : 0U, kind, named.number, place.table, place.unit,
                         key);
        }
      }
    });
  }
  // An index that the chip may have for one resource is no other one's.
  void compareCarried(unsigned kind, Findings& findings) {
    std::map<std::uint32_t, unsigned> owners;
    for (const auto& [number, row] : rows_) {
      owners[row.index] = number;
    }
    model_.forEachCarried([&](Resource resource, std::uint32_t index, auto... where) {
      if (resource.kind == kind) {
        const auto [owner, isNew] = owners.emplace(index, resource.number);
        findings.equal("index is still the chip's for the resource", owner->second, resource.number,
                       kind, index, where...);
      }
    });
  }

  template <class Visit>
  void forEachPlace(Visit visit) {
    for (unsigned index = 0; index < model_.tables(); ++index) {
      for (unsigned unit = 0; unit < kUnits; ++unit) {
        visit(Place{index, unit});
      }
    }
  }
  [[nodiscard]] bool nameIn(Place place, unsigned kind, unsigned number) {
    for (const Use& use : model_.usesOf(place)) {
      if (use.number == number && Model::kindOf(model_.table(place.table), use.linkage) == kind) {
        return true;
      }
    }
    return false;
  }

  Model& model_;
  ResourceSide& resources_;
  std::map<unsigned, ResourceSide::Row> rows_;
};

}  // namespace ModelTest
