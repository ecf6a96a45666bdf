#include "demo/Expected.h"

#include <fmt/format.h>

#include <fstream>
#include <map>
#include <set>
#include <stdexcept>
#include <utility>

#include "Lumen/Exception.h"
#include "common/EntryJson.h"
#include "common/StoreReader.h"

namespace Demo {

void Comparison::example(std::string text) {
  if (examples.size() < kMostExamples) {
    examples.push_back(std::move(text));
  }
}

class Expected::TableState {
 public:
  virtual ~TableState() = default;
  virtual void apply(const Common::Intent& intent) = 0;
  [[nodiscard]] virtual std::uint64_t entries() const = 0;
  // One line of kelp-chip's model at a time, then the end of all.
  virtual void takeChipLine(const Common::Json& line, Comparison& result) = 0;
  virtual void endChip(Comparison& result) = 0;
  virtual void compareCollections(const BrioSharedMem::EntityManager& memory,
                                  Comparison& result) const = 0;
};

template <class T>
class Expected::TableStateOf final : public TableState {
 public:
  using Entry = typename T::Entry;
  using Key = typename Entry::Key;
  using LogEntry = typename Entry::LogEntry;

  void apply(const Common::Intent& intent) override {
    const Entry& entry = std::get<Common::EntryOf<T>>(intent.entry).entry;
    auto& unit = units_[intent.unit.value];
    switch (intent.op) {
      case Common::IntentOp::write:
        unit.insert_or_assign(entry.logEntry.key, entry);
        break;
      case Common::IntentOp::remove:
        unit.erase(entry.logEntry.key);
        break;
      case Common::IntentOp::removeAll:
        unit.clear();
        break;
    }
  }

  [[nodiscard]] std::uint64_t entries() const override {
    std::uint64_t all = 0;
    for (const auto& [id, unit] : units_) {
      all += unit.size();
    }
    return all;
  }

  void takeChipLine(const Common::Json& line, Comparison& result) override {
    const auto unitId = line.at("unit").get<std::uint16_t>();
    LogEntry logEntry;
    Common::readJson(line.at("entry"), logEntry, Common::Place{"entry"}, 0);
    const Entry* wanted = find(unitId, logEntry.key);
    judge(wanted, logEntry, wanted != nullptr && Common::samePayload<T>(wanted->logEntry, logEntry),
          unitId, "the chip", result);
    if (wanted != nullptr && !seen_.insert({unitId, logEntry.key}).second) {
      throw std::runtime_error(fmt::format("an entry stands twice: {}", line.dump()));
    }
  }
  void endChip(Comparison& result) override {
    tellMissing(seen_, "the chip", result);
    seen_.clear();
  }

  void compareCollections(const BrioSharedMem::EntityManager& memory,
                          Comparison& result) const override {
    Seen seen;
    for (const Asic::UnitId unitId : Common::unitsOf<T>(memory)) {
      const auto quilt = Common::openConfig<T>(memory, unitId);
      Common::forEachRecord(std::as_const(*quilt).swTableEntries(), [&](const auto& record) {
        if (record.isDeleted != 0) {
          return;
        }
        const LogEntry& logEntry = record.entry.logEntry;
        const Entry* wanted = find(unitId.value, logEntry.key);
        judge(wanted, logEntry,
              wanted != nullptr && Common::asksForTheSame<T>(*wanted, record.entry), unitId.value,
              "the collection", result);
        seen.insert({unitId.value, logEntry.key});
      });
    }
    tellMissing(seen, "the collection", result);
  }

 private:
  using Seen = std::set<std::pair<std::uint16_t, Key>>;

  [[nodiscard]] const Entry* find(std::uint16_t unitId, const Key& key) const {
    const auto unit = units_.find(unitId);
    if (unit == units_.end()) {
      return nullptr;
    }
    const auto entry = unit->second.find(key);
    return entry == unit->second.end() ? nullptr : &entry->second;
  }
  static void judge(const Entry* wanted, const LogEntry& has, bool equal, std::uint16_t unitId,
                    const char* where, Comparison& result) {
    if (wanted == nullptr) {
      ++result.surplus;
      result.example(fmt::format("{} unit {}: {} has {}, which the intents do not leave there",
                                 T::name.view(), unitId, where, has));
    } else if (!equal) {
      ++result.different;
      result.example(fmt::format("{} unit {}: {} has {}, the intents leave {}", T::name.view(),
                                 unitId, where, has, wanted->logEntry));
    } else {
      ++result.equal;
    }
  }
  void tellMissing(const Seen& seen, const char* where, Comparison& result) const {
    for (const auto& [unitId, unit] : units_) {
      for (const auto& [key, entry] : unit) {
        if (!seen.contains({unitId, key})) {
          ++result.missing;
          result.example(fmt::format("{} unit {}: {} lacks {}, which the intents leave there",
                                     T::name.view(), unitId, where, entry.logEntry));
        }
      }
    }
  }

  std::map<std::uint16_t, std::map<Key, Entry>> units_;
  Seen seen_;
};

Expected::Expected() {
  KelpEmServer::AllTables::forEach([&](auto tag) {
    tables_.push_back(std::make_unique<TableStateOf<typename decltype(tag)::Table>>());
  });
}

Expected::~Expected() = default;

void Expected::apply(const Common::Intent& intent) { tables_[intent.table()]->apply(intent); }

std::uint64_t Expected::entries() const {
  std::uint64_t all = 0;
  for (const auto& table : tables_) {
    all += table->entries();
  }
  return all;
}

Comparison Expected::compareChip(const std::string& modelFile) const {
  Comparison result;
  std::ifstream file(modelFile);
  if (!file) {
    throw std::runtime_error(modelFile + ": kelp-chip has written no model there");
  }
  std::uint64_t number = 0;
  for (std::string text; std::getline(file, text);) {
    ++number;
    try {
      const Common::Json line = Common::parseLine(text);
      const auto table = Common::findTable(line.at("table").get_ref<const std::string&>());
      if (!table) {
        throw std::runtime_error("it is of no table");
      }
      tables_[*table]->takeChipLine(line, result);
    } catch (const std::exception& error) {
      throw std::runtime_error(fmt::format("{}:{}: {}", modelFile, number, error.what()));
    }
  }
  for (const auto& table : tables_) {
    table->endChip(result);
  }
  return result;
}

Comparison Expected::compareCollections(const BrioSharedMem::EntityManager& memory) const {
  Comparison result;
  for (const auto& table : tables_) {
    table->compareCollections(memory, result);
  }
  return result;
}

}  // namespace Demo
