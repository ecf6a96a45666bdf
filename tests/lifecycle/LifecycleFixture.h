#pragma once

#include <gmock/gmock.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "Brio/Log.h"
#include "FlipByte.h"
#include "Quilt/IterHint.h"
#include "TableTest.h"

namespace TestSupport {

// Agents that come and go over the store of one table and its units.
template <class T>
class LifecycleFixture : public TableTest<T> {
 public:
  using Fixture = TableTest<T>;
  using typename Fixture::Entry;
  using typename Fixture::Key;
  using typename Fixture::Table;
  using Numbers = std::vector<std::uint64_t>;
  using Constants = KelpEmServer::KelpConstants<T>;
  static constexpr std::uint64_t kNumbers = 200;

 protected:
  static std::string named(const std::string& before, const std::string& after) {
    return before + std::string(T::name.view()) + after;
  }

  // Writes the numbers `from` to `to` - 1, and commits.
  void writeAll(const Lumen::Ptr<Table>& table, std::uint64_t from, std::uint64_t to,
                std::uint64_t variant = 0) {
    for (std::uint64_t i = from; i < to; ++i) {
      this->write(table, i, variant);
    }
    this->pass();
  }
  // An earlier run that wrote 0 to `entries` - 1 on each of `units`; no agent is left.
  void earlierRun(std::uint64_t entries,
                  const std::vector<Asic::UnitId>& units = {Fixture::unit0, Fixture::unit1}) {
    for (const Asic::UnitId unit : units) {
      writeAll(this->table(unit), 0, entries);
    }
    incarnation_ = incarnation();
    this->stop();
  }
  std::uint64_t incarnation() {
    return this->log()->tableEntryLog()->collectionControl()->incarnation();
  }
  // A row that the hardware side wrote while no agent ran. Starts an agent without an interface.
  void leaveRow(std::uint64_t version, bool marking = true) {
    this->start(marking);
    this->hardware().report(T::tableId, version, incarnation_);
  }

  // Each record of the change log in a line: version, what it is, unit and key.
  std::vector<std::string> changes() {
    std::vector<std::string> lines;
    auto& map = this->changeLog();
    typename KelpEmServer::KelpEntryLog<T>::LogRecord record;
    Quilt::IterHint hint;
    for (bool more = map.first(record, hint); more; more = map.next(record.version, record, hint)) {
      lines.push_back(fmt::format("{} {} on {}", record.version,
                                  record.isTableDeleted()   ? std::string("clear")
                                  : record.isEntryDeleted() ? "delete " + keyText(record)
                                                            : "write " + keyText(record),
                                  record.unitId));
    }
    return lines;
  }
  static std::string wrote(std::uint64_t version, std::uint64_t number,
                           Asic::UnitId unit = Fixture::unit0) {
    return fmt::format("{} write {} on {}", version, Fixture::text(number), unit);
  }
  static std::string deleted(std::uint64_t version, std::uint64_t number,
                             Asic::UnitId unit = Fixture::unit0) {
    return fmt::format("{} delete {} on {}", version, Fixture::text(number), unit);
  }
  static std::string cleared(std::uint64_t version, Asic::UnitId unit = Fixture::unit0) {
    return fmt::format("{} clear on {}", version, unit);
  }
  // Each record of a configuration collection, in its order: key, version, whether it is deleted.
  std::vector<std::string> records(Asic::UnitId unit = Fixture::unit0) {
    std::vector<std::string> lines;
    const auto& map = this->log()->tableConfigQuilt(unit)->swTableEntries();
    typename KelpEmServer::KelpEntryLog<T>::ConfigRecord record;
    Quilt::IterHint hint;
    for (bool more = map.first(record, hint); more;
         more = map.next(record.quiltKey(), record, hint)) {
      lines.push_back(fmt::format("{} at {}{}", record.quiltKey(), record.version,
                                  record.isDeleted != 0 ? " deleted" : ""));
    }
    return lines;
  }
  // The numbers in the reader's view, ascending.
  Numbers view(const Lumen::Ptr<Table>& table) {
    Numbers numbers;
    for (std::uint64_t i = 0; i < kNumbers; ++i) {
      if (table->entryHas(this->key(i))) {
        numbers.push_back(i);
      }
    }
    EXPECT_EQ(table->entrys(), numbers.size());
    return numbers;
  }

  std::string fileOf(const Lumen::String& path) { return entityFile(this->root_.path(), path); }
  std::string configFile(Asic::UnitId unit) { return fileOf(Constants::configQuiltPath(unit)); }

  std::uint64_t incarnation_ = 0;

 private:
  template <class Record>
  static std::string keyText(const Record& record) {
    return fmt::format("{}", record.logEntry.key);
  }
};

// Takes the log messages for its life.
class LogTexts {
 public:
  LogTexts() {
    previous_ = Brio::logSinkIs(
        [this](const Brio::LogRecord& record) { texts_.emplace_back(record.text); });
  }
  ~LogTexts() { Brio::logSinkIs(previous_); }
  LogTexts(const LogTexts&) = delete;
  LogTexts& operator=(const LogTexts&) = delete;

  [[nodiscard]] const std::vector<std::string>& texts() const noexcept { return texts_; }

 private:
  std::vector<std::string> texts_;
  Brio::LogSink previous_;
};

}  // namespace TestSupport
