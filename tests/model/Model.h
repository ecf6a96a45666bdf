#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <deque>
#include <limits>
#include <map>
#include <optional>
#include <set>
#include <vector>

// The rules of the tables of one group, on plain standard collections. Keys and entries are
// numbers: an entry is told by its key and a variant.

namespace ModelTest {

inline constexpr unsigned kKeys = 8;
inline constexpr unsigned kVariants = 3;
inline constexpr unsigned kUnits = 2;

enum class State : std::uint8_t { unresolved = 0, inLog = 1, success = 4, failed = 5 };

// A software table: one table of one unit.
struct Place {
  unsigned table = 0;
  unsigned unit = 0;
};

// What an operation waits for: the handle of another one, or an entry of somebody else.
struct Dependency {
  enum class Kind : std::uint8_t { none, handle, foreign } kind = Kind::none;
  std::size_t index = 0;
};

// A write that a response handler makes.
struct Action {
  Place place;
  unsigned key = 0;
  unsigned variant = 0;
};

struct Handle {
  unsigned table = 0;
  State state = State::unresolved;
  std::uint64_t logVersion = 0;
  std::uint64_t major = 0;
  unsigned responses = 0;
  std::optional<Action> action;
};

struct Foreign {
  State state = State::unresolved;
  std::uint32_t tableId = 0;
  std::uint64_t version = 0;
};

struct Operation {
  enum class Kind : std::uint8_t { write, remove, removeAll } kind;
  std::uint64_t arrival;
  std::size_t handle;
  unsigned key;
  unsigned variant;
  std::uint64_t major;
  bool suppress;
  Dependency dependency;
};

struct Stats {
  std::uint64_t writes = 0;
  std::uint64_t removes = 0;
  std::uint64_t commits = 0;
  std::uint64_t suppressed = 0;
  std::uint64_t differences = 0;
  std::uint64_t clears = 0;
};

struct ConfigRecord {
  unsigned variant = 0;
  std::uint64_t version = 0;
  bool deleted = false;
};

struct LogRecord {
  unsigned unit = 0;
  std::uint8_t flags = 0;
  unsigned key = 0;
  unsigned variant = 0;
};

// What a unit's software table holds in the memory of the agent.
struct Unit {
  struct Written {
    unsigned variant;
    std::uint64_t major;
  };
  std::map<unsigned, Written> add;
  std::map<unsigned, std::uint64_t> remove;
  std::map<unsigned, std::uint64_t> versions;
  std::optional<std::uint64_t> removeAll;
  bool marking = false;
  std::set<unsigned> marked;
  Stats stats;
  std::deque<std::size_t> inLog;
  std::deque<Operation> queue;
};

struct Table {
  std::uint32_t id = 0;

  // In shared memory.
  std::uint64_t tableVersion = 0;
  std::map<std::uint64_t, LogRecord> log;
  std::array<std::map<unsigned, ConfigRecord>, kUnits> config;
  struct Needed {
    std::uint32_t tableId;
    std::uint64_t version;
  };
  std::map<std::uint64_t, Needed> needed;
  std::optional<std::uint64_t> row;  // of this log's incarnation

  // Of this run of the agent.
  bool open = false;
  std::uint64_t lastCleaned = 0;
  std::optional<std::uint64_t> delivered;
  bool pending = false;
  std::array<bool, kUnits> mounted{};
  std::array<std::optional<Unit>, kUnits> units;

  // A row above what is published counts as what was published when it was first seen.
  std::optional<std::uint64_t> overreach;
  std::uint64_t overreachCounts = 0;

  [[nodiscard]] std::optional<std::uint64_t> status() {
    if (!row || *row <= tableVersion) {
      return row;
    }
    if (overreach != row) {
      overreach = row;
      overreachCounts = tableVersion;
    }
    return overreachCounts;
  }
  [[nodiscard]] bool inConfig(unsigned unit, unsigned key) const {
    const auto found = config[unit].find(key);
    return found != config[unit].end() && !found->second.deleted;
  }
};

class Model {
 public:
  explicit Model(const std::vector<std::uint32_t>& tableIds) {
    for (const std::uint32_t id : tableIds) {
      tables_.emplace_back().id = id;
    }
  }

  [[nodiscard]] Table& table(unsigned index) { return tables_[index]; }
  [[nodiscard]] std::vector<Handle>& handles() noexcept { return handles_; }
  [[nodiscard]] std::vector<Foreign>& foreign() noexcept { return foreign_; }
  [[nodiscard]] bool has(Place place) const {
    return tables_[place.table].open && tables_[place.table].units[place.unit].has_value();
  }

  // --- the agent's life ------------------------------------------------------------------------

  void stop() {
    for (Table& table : tables_) {
      table.open = false;
      table.lastCleaned = 0;
      table.delivered.reset();
      table.overreach.reset();
      table.pending = false;
      table.mounted = {};
      table.units = {};
    }
    order_.clear();
  }
  void loseConfig(Place place) { tables_[place.table].config[place.unit].clear(); }
  void loseLog(unsigned index) {
    Table& table = tables_[index];
    table.tableVersion = 0;
    table.log.clear();
    table.needed.clear();  // of versions that nobody has issued any more
    table.row.reset();     // a row of another incarnation
  }
  void open(unsigned index) {
    Table& table = tables_[index];
    table.open = true;
    order_.push_back(index);
    if (const auto status = table.status()) {
      cleanup(table, *status);
      table.pending = table.tableVersion > *status;
    }
  }
  void make(Place place, bool reset, bool marking) {
    Table& table = tables_[place.table];
    if (table.units[place.unit]) {
      if (reset) {
        clear(place);
      }
      return;
    }
    const std::uint64_t status = table.status().value_or(0);
    table.mounted[place.unit] = true;
    if (status != 0) {
      std::erase_if(table.config[place.unit], [&](const auto& record) {
        return record.second.deleted && record.second.version <= status;
      });
    }
    table.units[place.unit].emplace();
    if (reset) {
      clear(place);
    }
    statusVersion(place, status);
    table.units[place.unit]->marking = !reset && marking;
  }

  // --- the feature's calls ---------------------------------------------------------------------

  std::size_t write(Place place, unsigned key, unsigned variant, Dependency dependency,
                    std::optional<Action> action = {}) {
    Unit& unit = at(place);
    const std::uint64_t major = nextVersion(unit, key);
    if (unit.marking) {
      unit.marked.insert(key);
    }
    const std::size_t handle = newHandle(place, major, action);
    unit.remove.erase(key);
    unit.add[key] = {variant, major};
    unit.queue.push_back({Operation::Kind::write, arrival_++, handle, key, variant, major,
                          unit.marking, dependency});
    ++unit.stats.writes;
    updatePending(tables_[place.table]);
    return handle;
  }
  std::size_t remove(Place place, unsigned key, Dependency dependency,
                     std::optional<Action> action = {}) {
    Unit& unit = at(place);
    const std::uint64_t major = nextVersion(unit, key);
    const std::size_t handle = newHandle(place, major, action);
    unit.add.erase(key);
    unit.remove[key] = major;
    unit.queue.push_back(
        {Operation::Kind::remove, arrival_++, handle, key, 0, major, false, dependency});
    ++unit.stats.removes;
    updatePending(tables_[place.table]);
    return handle;
  }
  std::size_t removeAll(Place place, Dependency dependency) {
    Unit& unit = at(place);
    const std::size_t handle = newHandle(place, 0, {});
    unit.add.clear();
    unit.remove.clear();
    unit.removeAll = unit.removeAll ? *unit.removeAll + 1 : 0;
    unit.queue.push_back(
        {Operation::Kind::removeAll, arrival_++, handle, 0, 0, 0, false, dependency});
    updatePending(tables_[place.table]);
    return handle;
  }
  void clear(Place place) {
    if (!tables_[place.table].config[place.unit].empty()) {
      tableDel(place, {});
      ++at(place).stats.clears;
    }
  }
  void mark(Place place) { at(place).marking = true; }
  void endMarking(Place place) {
    at(place).marking = false;
    at(place).marked.clear();
  }

  // --- the loop --------------------------------------------------------------------------------

  // Commits what had arrived before; an operation that waits holds back those behind it in its
  // software table.
  std::size_t pass() {
    const std::uint64_t end = arrival_;
    std::set<std::pair<unsigned, unsigned>> blocked;
    std::size_t committed = 0;
    for (;;) {
      std::optional<Place> first;
      for (const unsigned index : order_) {
        for (unsigned unit = 0; unit < kUnits; ++unit) {
          const auto& there = tables_[index].units[unit];
          if (there && !there->queue.empty() && there->queue.front().arrival < end &&
              !blocked.contains({index, unit}) &&
              (!first || there->queue.front().arrival < at(*first).queue.front().arrival)) {
            first = Place{index, unit};
          }
        }
      }
      if (!first) {
        return committed;
      }
      if (stateOf(at(*first).queue.front().dependency) == State::unresolved) {
        blocked.insert({first->table, first->unit});
        continue;
      }
      const Operation operation = at(*first).queue.front();
      at(*first).queue.pop_front();
      commit(*first, operation);
      ++committed;
    }
  }
  // Hands the rows that are news to the tables.
  std::size_t poll() {
    std::size_t news = 0;
    for (const unsigned index : std::vector<unsigned>(order_)) {
      Table& table = tables_[index];
      const auto status = table.status();
      if (!status || status == table.delivered) {
        continue;
      }
      table.delivered = status;
      table.needed.erase(table.needed.begin(), table.needed.upper_bound(*status));
      for (unsigned unit = 0; unit < kUnits; ++unit) {
        if (table.units[unit]) {
          statusVersion({index, unit}, *status);
        }
      }
      ++news;
    }
    return news;
  }

  // --- what a reader sees ----------------------------------------------------------------------

  // The variant of the entry that a read yields; none for the default entry.
  [[nodiscard]] std::optional<unsigned> read(Place place, unsigned key) {
    const Unit& unit = at(place);
    if (const auto found = unit.add.find(key); found != unit.add.end()) {
      return found->second.variant;
    }
    return unit.remove.contains(key) ? std::nullopt : committed(place, key);
  }
  [[nodiscard]] std::optional<unsigned> committed(Place place, unsigned key) const {
    const Table& table = tables_[place.table];
    return table.inConfig(place.unit, key) ? std::optional(table.config[place.unit].at(key).variant)
                                           : std::nullopt;
  }
  [[nodiscard]] bool has(Place place, unsigned key) {
    const Unit& unit = at(place);
    return unit.add.contains(key) || (!unit.remove.contains(key) && !unit.removeAll &&
                                      tables_[place.table].inConfig(place.unit, key));
  }
  // By the view, not by counting: the table's arithmetic must come to the same.
  [[nodiscard]] unsigned entrys(Place place) {
    unsigned count = 0;
    for (unsigned key = 0; key < kKeys; ++key) {
      count += has(place, key) ? 1U : 0U;
    }
    return count;
  }
  [[nodiscard]] bool hasPendingHwWrites(Place place) {
    const Unit& unit = at(place);
    const Table& table = tables_[place.table];
    return !unit.add.empty() || !unit.remove.empty() || unit.removeAll ||
           table.lastCleaned != table.tableVersion;
  }

 private:
  [[nodiscard]] Unit& at(Place place) { return *tables_[place.table].units[place.unit]; }

  std::size_t newHandle(Place place, std::uint64_t major, std::optional<Action> action) {
    Handle handle;
    handle.table = place.table;
    handle.major = major;
    handle.action = action;
    handles_.push_back(handle);
    return handles_.size() - 1;
  }
  static std::uint64_t nextVersion(Unit& unit, unsigned key) {
    const auto found = unit.versions.find(key);
    return unit.versions[key] = found == unit.versions.end() ? 0 : found->second + 1;
  }
  void updatePending(Table& table) {
    bool any = false;
    bool pending = false;
    const auto index = static_cast<unsigned>(&table - tables_.data());
    for (unsigned unit = 0; unit < kUnits; ++unit) {
      if (table.units[unit]) {
        any = true;
        pending = pending || hasPendingHwWrites({index, unit});
      }
    }
    table.pending = any ? pending : table.pending;
  }
  [[nodiscard]] State stateOf(Dependency dependency) const {
    switch (dependency.kind) {
      case Dependency::Kind::handle:
        return handles_[dependency.index].state;
      case Dependency::Kind::foreign:
        return foreign_[dependency.index].state;
      case Dependency::Kind::none:
        break;
    }
    return State::success;
  }
  void storeNeeded(Table& table, std::uint64_t version, Dependency dependency) {
    if (dependency.kind == Dependency::Kind::none) {
      return;
    }
    const bool own = dependency.kind == Dependency::Kind::handle;
    const std::uint32_t id =
        own ? tables_[handles_[dependency.index].table].id : foreign_[dependency.index].tableId;
    const std::uint64_t needed =
        own ? handles_[dependency.index].logVersion : foreign_[dependency.index].version;
    const bool reported = id >> 16 == table.id >> 16;  // a table of the same group
    if (id != table.id && needed != 0 && reported) {
      table.needed[version] = {id, needed};
    }
  }
  void respond(std::size_t handle) {
    ++handles_[handle].responses;
    if (const auto action = handles_[handle].action; action && has(action->place)) {
      (void)write(action->place, action->key, action->variant, {});
    }
  }
  void finish(std::size_t handle, State state) {
    handles_[handle].state = state;
    respond(handle);
  }

  void commit(Place place, const Operation& operation) {
    Table& table = tables_[place.table];
    Unit& unit = at(place);
    if (stateOf(operation.dependency) == State::failed) {
      finish(operation.handle, State::failed);
    } else if (operation.kind == Operation::Kind::removeAll) {
      if (!table.config[place.unit].empty()) {
        const std::uint64_t version = tableDel(place, operation.dependency);
        handles_[operation.handle].logVersion = version;
        handles_[operation.handle].state = State::inLog;
        ++unit.stats.clears;
      }
      unit.removeAll = *unit.removeAll == 0 ? std::nullopt : std::optional(*unit.removeAll - 1);
    } else if (operation.kind == Operation::Kind::remove) {
      const auto newest = unit.remove.find(operation.key);
      if (newest != unit.remove.end() && newest->second == operation.major) {
        unit.remove.erase(newest);
        unit.versions.erase(operation.key);
      }
      const auto record = table.config[place.unit].find(operation.key);
      if (record == table.config[place.unit].end()) {
        finish(operation.handle, State::success);
      } else {
        record->second.version = ++table.tableVersion;
        record->second.deleted = true;
        table.log[table.tableVersion] = {place.unit, 1, operation.key, record->second.variant};
        storeNeeded(table, table.tableVersion, operation.dependency);
        intoLog(unit, operation.handle, table.tableVersion);
      }
    } else {
      const auto newest = unit.add.find(operation.key);
      if (newest != unit.add.end() && newest->second.major == operation.major) {
        unit.add.erase(newest);
        unit.versions.erase(operation.key);
      }
      const std::uint64_t version = entryIs(place, operation);
      if (version > table.lastCleaned) {
        intoLog(unit, operation.handle, version);
      } else {
        handles_[operation.handle].logVersion = version;
        finish(operation.handle, State::success);
      }
    }
    updatePending(table);
    ++unit.stats.commits;
  }
  void intoLog(Unit& unit, std::size_t handle, std::uint64_t version) {
    handles_[handle].logVersion = version;
    handles_[handle].state = State::inLog;
    unit.inLog.push_back(handle);
  }
  std::uint64_t entryIs(Place place, const Operation& operation) {
    Table& table = tables_[place.table];
    Stats& stats = at(place).stats;
    auto& records = table.config[place.unit];
    const auto record = records.find(operation.key);
    // A version above the table's is of a log that was lost.
    if (operation.suppress && record != records.end() && !record->second.deleted &&
        record->second.version <= table.tableVersion) {
      if (record->second.variant == operation.variant) {
        ++stats.suppressed;
        return record->second.version;
      }
      ++stats.differences;
    }
    const std::uint64_t version = ++table.tableVersion;
    records[operation.key] = {operation.variant, version, false};
    table.log[version] = {place.unit, 0, operation.key, operation.variant};
    storeNeeded(table, version, operation.dependency);
    return version;
  }
  std::uint64_t tableDel(Place place, Dependency dependency) {
    Table& table = tables_[place.table];
    const std::uint64_t version = ++table.tableVersion;
    for (auto& [key, record] : table.config[place.unit]) {
      if (!record.deleted) {
        record.version = version;
        record.deleted = true;
      }
    }
    table.log[version] = {place.unit, 2, 0, 0};
    storeNeeded(table, version, dependency);
    return version;
  }

  void statusVersion(Place place, std::uint64_t version) {
    Table& table = tables_[place.table];
    cleanup(table, version);
    while (!at(place).inLog.empty() && handles_[at(place).inLog.front()].logVersion <= version) {
      const std::size_t handle = at(place).inLog.front();
      at(place).inLog.pop_front();
      finish(handle, State::success);
    }
    updatePending(table);
  }
  static void cleanup(Table& table, std::uint64_t version) {
    if (table.lastCleaned <= version) {
      const std::uint64_t from = table.lastCleaned;
      for (auto at = table.log.lower_bound(from); at != table.log.end() && at->first <= version;) {
        const auto [removed, record] = *at;
        at = table.log.erase(at);
        if (!table.mounted[record.unit]) {
          continue;
        }
        auto& records = table.config[record.unit];
        std::erase_if(records, [&, v = removed, r = record](const auto& there) {
          return there.second.version == v &&
                 (r.flags == 2 || (r.flags == 1 && there.first == r.key));
        });
      }
    }
    table.lastCleaned = version;
  }

  std::vector<Table> tables_;
  std::vector<Handle> handles_;
  std::vector<Foreign> foreign_;
  std::vector<unsigned> order_;  // of the interfaces in this run
  std::uint64_t arrival_ = 1;
};

}  // namespace ModelTest
