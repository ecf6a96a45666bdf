#pragma once

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <limits>
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "BrioSharedMem/StoreError.h"
#include "KelpEmServer/TableSpec.h"
#include "Lumen/Exception.h"
#include "chip/Table.h"
#include "chip/UnitModel.h"
#include "common/EntryJson.h"
#include "common/StoreReader.h"

namespace Chip {

// The half of a table that knows its records.
template <KelpEmServer::TableSpec T>
class TableOf final : public Table {
 public:
  using ConfigQuilt = typename T::ConfigQuilt;
  using EntryLogQuilt = typename T::EntryLogQuilt;
  using ConfigRecord = typename ConfigQuilt::Record;
  using LogRecord = typename EntryLogQuilt::Record;
  using Model = UnitModel<T>;
  using Key = typename Model::Key;
  using LogEntry = typename Model::LogEntry;
  using Programmed = typename Model::Programmed;

  TableOf(const Lumen::Ptr<BrioSharedMem::EntityManager>& memory, Notices& notices)
      : Table(T::name.view(), T::tableId, memory, notices) {}

  [[nodiscard]] std::vector<UnitView> units() const override {
    std::vector<UnitView> views;
    for (const auto& [id, unit] : units_) {
      views.push_back({Asic::UnitId{id}, unit->model.size(), unit->counts, unit->whole});
    }
    return views;
  }
  [[nodiscard]] UnitCounts changes() const override {
    UnitCounts all;
    for (const auto& [id, unit] : units_) {
      all.programmed += unit->counts.programmed;
      all.overwritten += unit->counts.overwritten;
      all.deleted += unit->counts.deleted;
    }
    return all;
  }
  [[nodiscard]] TableCheck check() override;
  void appendEntries(std::string& out) const override;

 private:
  struct Unit {
    Model model;
    UnitCounts counts;
    Lumen::Ptr<ConfigQuilt> config;  // null if there is none, or it can't be opened
    bool whole = true;               // the last resync has seen all of it
  };
  // A record that the walk of a resync has met above the published version.
  struct Late {
    LogEntry logEntry;
    Asic::LogVersion version;
    bool deleted;
  };

  bool openLog() override;
  bool takeIn(std::uint64_t last, std::uint64_t limit) override;
  void readConfig(std::uint64_t published) override;
  [[nodiscard]] bool configReplaced() const override;
  [[nodiscard]] bool whole() const override {
    return std::all_of(units_.begin(), units_.end(),
                       [](const auto& one) { return one.second->whole; });
  }

  void takeIn(const LogRecord& record) {
    Unit& at = unit(record.unitId);
    if (record.isEntryDeleted()) {
      at.model.entryDel(record.logEntry.key, record.version, at.counts);
    } else if (record.isTableDeleted()) {
      at.model.tableDel(record.version, at.counts);
    } else {
      at.model.entryIs(record.logEntry, record.version, at.counts);
    }
  }
  [[nodiscard]] Unit& unit(Asic::UnitId id) {
    if (lastUnit_ == nullptr || lastUnitId_ != id) [[unlikely]] {
      std::unique_ptr<Unit>& found = units_[id.value];
      if (!found) {
        found = std::make_unique<Unit>();
      }
      lastUnit_ = found.get();
      lastUnitId_ = id;
    }
    return *lastUnit_;
  }
  void openConfigs();
  void readUnit(Asic::UnitId id, Unit& unit, std::uint64_t published);
  [[nodiscard]] bool logTellsOf(const Late& late, Asic::UnitId id) const;
  template <class Visit>
  [[nodiscard]] bool walk(const ConfigQuilt& config, Visit&& visit) const;

  Lumen::Ptr<EntryLogQuilt> logQuilt_;
  std::map<std::uint16_t, std::unique_ptr<Unit>> units_;
  Unit* lastUnit_ = nullptr;
  Asic::UnitId lastUnitId_;
};

template <KelpEmServer::TableSpec T>
bool TableOf<T>::openLog() {
  try {
    logQuilt_ = Common::openLog<T>(*this->memory());
    this->logIs(logQuilt_->collectionControl());
    return true;
  } catch (const BrioSharedMem::OtherLayoutError&) {
    throw;
  } catch (const BrioSharedMem::AbsentError&) {
    this->logMissing({});
    return false;
  } catch (const BrioSharedMem::StoreError& error) {
    this->logMissing(error.what());
    return false;
  }
}

template <KelpEmServer::TableSpec T>
bool TableOf<T>::takeIn(std::uint64_t last, std::uint64_t limit) {
  const auto& log = std::as_const(*logQuilt_).entryLogConfig();
  try {
    while (reached_ < last && limit != 0) {
      bool found = false;
      const LogRecord& record = log.find(Asic::LogVersion{reached_ + 1}, found);
      if (found) [[likely]] {
        takeIn(record);
        ++reached_;
        ++counts_.records;
        --limit;
        continue;
      }
      LogRecord following;
      Quilt::IterHint hint;
      const bool more = log.next(Asic::LogVersion{reached_ + 1}, following, hint);
      this->passGap(more ? std::min(last, following.version.value - 1) : last);
    }
    return true;
  } catch (const Lumen::CorruptionDetectedException& corruption) {
    log.doCorruptionDetected(corruption.msg());
    return false;
  }
}

// Calls visit(record) for each record of a collection. False if damage ended the walk.
template <KelpEmServer::TableSpec T>
template <class Visit>
bool TableOf<T>::walk(const ConfigQuilt& config, Visit&& visit) const {
  const auto& records = config.swTableEntries();
  ConfigRecord record;
  Quilt::IterHint hint;
  try {
    for (bool more = records.first(record, hint); more;
         more = records.next(record.quiltKey(), record, hint)) {
      visit(std::as_const(record));
    }
    return true;
  } catch (const Lumen::CorruptionDetectedException& corruption) {
    records.doCorruptionDetected(corruption.msg());
    return false;
  }
}

// Finds the collections of all units, and keeps those open that are still the same.
template <KelpEmServer::TableSpec T>
void TableOf<T>::openConfigs() {
  for (auto& [id, unit] : units_) {
    if (unit->config && unit->config->replaced()) {
      unit->config = nullptr;
    }
  }
  for (const Asic::UnitId id : Common::unitsOf<T>(*this->memory())) {
    Unit& at = unit(id);
    if (at.config) {
      continue;
    }
    try {
      at.config = Common::openConfig<T>(*this->memory(), id);
    } catch (const BrioSharedMem::OtherLayoutError&) {
      throw;
    } catch (const BrioSharedMem::StoreError& error) {
      at.whole = false;
      this->notices().tell("collections that can't be opened", error.what());
    }
  }
}

template <KelpEmServer::TableSpec T>
bool TableOf<T>::configReplaced() const {
  return std::any_of(units_.begin(), units_.end(), [](const auto& one) {
    return one.second->config && one.second->config->replaced();
  });
}

template <KelpEmServer::TableSpec T>
void TableOf<T>::readConfig(std::uint64_t published) {
  for (auto& [id, unit] : units_) {
    unit->whole = true;
  }
  openConfigs();
  for (auto& [id, unit] : units_) {
    readUnit(Asic::UnitId{id}, *unit, published);
  }
}

// Whether the log holds the change that made a record, so that it will come by that way. Versions
// of an earlier life of the log say nothing about this one.
template <KelpEmServer::TableSpec T>
bool TableOf<T>::logTellsOf(const Late& late, Asic::UnitId id) const {
  const auto& log = std::as_const(*logQuilt_).entryLogConfig();
  try {
    bool found = false;
    const LogRecord& record = log.find(late.version, found);
    if (!found || record.unitId != id) {
      return false;
    }
    return record.isTableDeleted()
               ? late.deleted
               : record.isEntryDeleted() == late.deleted &&
                     Brio::HashHelper::keyIsEq<Key>(record.logEntry.key, late.logEntry.key);
  } catch (const Lumen::CorruptionDetectedException& corruption) {
    log.doCorruptionDetected(corruption.msg());
    return false;
  }
}

template <KelpEmServer::TableSpec T>
void TableOf<T>::readUnit(Asic::UnitId id, Unit& unit, std::uint64_t published) {
  UnitCounts ignored;
  Model fresh;
  std::vector<Late> late;
  std::vector<Key> deleted;
  const Asic::LogVersion asOf{published};
  if (unit.config) {
    unit.whole = walk(*unit.config, [&](const ConfigRecord& record) {
      const LogEntry& logEntry = record.entry.logEntry;
      if (record.version > asOf) {
        late.push_back({logEntry, record.version, record.isDeleted != 0});
      } else if (record.isDeleted != 0) {
        deleted.push_back(logEntry.key);
      } else {
        fresh.entryIs(logEntry, record.version, ignored);
      }
    });
  }
  for (const Late& one : late) {
    if (logTellsOf(one, id)) {
      if (const Programmed* before = unit.model.find(one.logEntry.key)) {
        fresh.entryIs(before->logEntry, std::min(before->version, asOf), ignored);
      }
    } else if (one.deleted) {
      deleted.push_back(one.logEntry.key);
    } else {
      fresh.entryIs(one.logEntry, asOf, ignored);
    }
  }
  if (!unit.whole) {
    // What the walk did not come to stays as it is.
    unit.model.forEach([&](const Programmed& before) {
      if (fresh.find(before.logEntry.key) == nullptr) {
        fresh.entryIs(before.logEntry, std::min(before.version, asOf), ignored);
      }
    });
    for (const Key& key : deleted) {
      fresh.entryDel(key, Asic::LogVersion{std::numeric_limits<std::uint64_t>::max()}, ignored);
    }
  }
  // The chip is told the difference only.
  fresh.forEach([&](const Programmed& now) {
    const Programmed* before = unit.model.find(now.logEntry.key);
    if (before == nullptr) {
      ++unit.counts.programmed;
    } else if (!before->logEntry.isEq(now.logEntry)) {
      ++unit.counts.overwritten;
    }
  });
  unit.model.forEach([&](const Programmed& before) {
    unit.counts.deleted += fresh.find(before.logEntry.key) == nullptr ? 1U : 0U;
  });
  std::swap(unit.model, fresh);
}

template <KelpEmServer::TableSpec T>
TableCheck TableOf<T>::check() {
  TableCheck result;
  result.table = this->name();
  openConfigs();
  for (auto& [id, unit] : units_) {
    UnitCheck& counts = result.units.emplace_back();
    counts.unit = Asic::UnitId{id};
    counts.onChip = unit->model.size();
    counts.readable = unit->whole;
    if (unit->config) {
      counts.readable = walk(*unit->config, [&, &unit = *unit](const ConfigRecord& record) {
        if (record.isDeleted != 0) {
          return;
        }
        const LogEntry& wanted = record.entry.logEntry;
        ++counts.inCollection;
        const Programmed* has = unit.model.find(wanted.key);
        if (has == nullptr) {
          ++counts.missing;
          result.example(fmt::format("unit {}: {} of version {} is not on the chip", counts.unit,
                                     wanted, record.version));
        } else if (has->logEntry.isEq(wanted)) {
          ++counts.equal;
        } else {
          ++counts.different;
          result.example(fmt::format("unit {}: {} of version {} is {} of version {} on the chip",
                                     counts.unit, wanted, record.version, has->logEntry,
                                     has->version));
        }
      });
    }
    counts.surplus = counts.onChip - counts.equal - counts.different;
    if (counts.surplus != 0 && counts.readable) {
      unit->model.forEach([&, &unit = *unit](const Programmed& has) {
        bool found = false;
        try {
          found = unit.config &&
                  unit.config->swTableEntries().find(has.logEntry.key, found).isDeleted == 0 &&
                  found;
        } catch (const Lumen::CorruptionDetectedException&) {
          counts.readable = false;
        }
        if (!found) {
          result.example(
              fmt::format("unit {}: the chip has {} of version {}, the collection has "
                          "none of that key",
                          counts.unit, has.logEntry, has.version));
        }
      });
    }
  }
  result.open = this->open();
  result.reached = this->reached();
  result.published = this->published();
  return result;
}

template <KelpEmServer::TableSpec T>
void TableOf<T>::appendEntries(std::string& out) const {
  for (const auto& [id, unit] : units_) {
    unit->model.forEach([&, id = id](const Programmed& programmed) {
      fmt::format_to(std::back_inserter(out), R"({{"table":"{}","unit":{},"version":{},"entry":)",
                     this->name(), id, programmed.version);
      Common::appendJson(out, programmed.logEntry);
      out += "}\n";
    });
  }
}

}  // namespace Chip
