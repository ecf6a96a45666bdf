#pragma once

#include <algorithm>
#include <functional>
#include <string>
#include <utility>

#include "Feed.h"
#include "State.h"

// The rules of the tables of one group.

namespace ModelTest {

class Model {
 public:
  // `events`: what the real tables tell. Which index a resource gets is theirs to choose, and in
  // what order they rewrite the entries that use one; the model follows, and says what they may
  // not do.
  Model(std::vector<Table> tables, std::deque<Event>& events)
      : tables_(std::move(tables)), feed_(events) {}

  // Whether a helper has an entry logged whose resources have failed.
  static bool keeps(unsigned key) { return key % 3 == 0; }

  [[nodiscard]] Table& table(unsigned index) { return tables_[index]; }
  [[nodiscard]] unsigned tables() const noexcept { return static_cast<unsigned>(tables_.size()); }
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
  // The chip takes all in anew, as it does when an agent comes back.
  void loseConfig(Place place) {
    Table& table = tables_[place.table];
    table.config[place.unit].clear();
    table.chip[place.unit].clear();
    for (auto& [version, record] : table.log) {
      record.lost = record.lost || record.unit == place.unit;
    }
  }
  void loseLog(unsigned index) {
    Table& table = tables_[index];
    table.tableVersion = 0;
    table.log.clear();
    for (unsigned unit = 0; unit < kUnits; ++unit) {
      table.chip[unit].clear();
      for (const auto& [key, record] : table.config[unit]) {
        if (!record.deleted) {
          table.chip[unit][key] = {record.variant, record.indexes};
        }
      }
    }
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
        clear(place, false);
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
      clear(place, false);
    } else {
      at(place).uses = usesOf(place);
      takeUpdates();
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
    takeUpdates();
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
  void clear(Place place, bool release) {
    if (!tables_[place.table].config[place.unit].empty()) {
      release ? dropUses(place) : (void)(at(place).cleared = true);
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
  // software table. `unresolved`: whether a resource is, when the pass begins.
  std::size_t pass(const std::function<bool(Resource)>& unresolved) {
    const auto waits = [&](Place place, const Operation& operation) {
      const Resources& named = tables_[place.table].resources[operation.variant];
      return stateOf(operation.dependency) == State::unresolved ||
             (operation.kind == Operation::Kind::write &&
              std::any_of(named.begin(), named.end(), [&](const Resource& resource) {
                return resource.number != 0 && unresolved(resource);
              }));
    };
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
      if (waits(*first, at(*first).queue.front())) {
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

  // --- resources -------------------------------------------------------------------------------

  // Takes over the rewrites that the tables have told of and that are next.
  void takeUpdates() {
    while (const Event* next = feed_.update()) {
      if (next->version != tables_[next->place.table].tableVersion) {
        return;
      }
      rewrite(feed_.take());
    }
  }
  // What the tables have done that they should not have.
  [[nodiscard]] std::string takeComplaints() { return feed_.takeComplaints(); }
  // The uses that the configuration collection says.
  [[nodiscard]] std::set<Use> usesOf(Place place) const {
    const Table& table = tables_[place.table];
    std::set<Use> uses;
    for (const auto& [key, record] : table.config[place.unit]) {
      for (unsigned linkage = 0; linkage < table.linkages && !record.deleted; ++linkage) {
        if (const Resource named = table.resources[record.variant][linkage]; named.number != 0) {
          uses.insert({linkage, named.number, key});
        }
      }
    }
    return uses;
  }
  // The entries that a change of the resource rewrites.
  [[nodiscard]] std::multiset<std::pair<Place, unsigned>> usersOf(Resource resource) const {
    std::multiset<std::pair<Place, unsigned>> users;
    forEachUse([&](Place place, const Use& use, const Resource& used) {
      if (used == resource && tables_[place.table].inConfig(place.unit, use.key)) {
        users.insert({place, use.key});
      }
    });
    return users;
  }
  // Calls visit(place, use, resource) for each use in this run.
  template <class Visit>
  void forEachUse(Visit visit) const {
    for (unsigned index = 0; index < tables_.size(); ++index) {
      const Table& table = tables_[index];
      for (unsigned unit = 0; unit < kUnits; ++unit) {
        if (table.units[unit]) {
          for (const Use& use : table.units[unit]->uses) {
            visit(Place{index, unit}, use, Resource{kindOf(table, use.linkage), use.number});
          }
        }
      }
    }
  }
  [[nodiscard]] static unsigned kindOf(const Table& table, unsigned linkage) {
    return table.resources[0][linkage].kind;
  }
  // Calls visit(resource, index, table, unit, key, version) for each index that a record of the
  // chip carries (version 0), or of the log that it has not reported.
  template <class Visit>
  void forEachCarried(Visit visit) const {
    for (unsigned at = 0; at < tables_.size(); ++at) {
      const Table& table = tables_[at];
      const auto of = [&](unsigned variant, const Indexes& indexes, auto... where) {
        for (unsigned linkage = 0; linkage < table.linkages; ++linkage) {
          if (indexes[linkage] != 0) {
            visit(table.resources[variant][linkage], indexes[linkage], at, where...);
          }
        }
      };
      for (unsigned unit = 0; unit < kUnits; ++unit) {
        for (const auto& [key, entry] : table.chip[unit]) {
          of(entry.variant, entry.indexes, unit, key, std::uint64_t{0});
        }
      }
      for (const auto& [version, record] : table.log) {
        if (record.flags == 0 && !record.lost) {
          of(record.variant, record.indexes, record.unit, record.key, version);
        }
      }
    }
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
    takeUpdates();
    if (stateOf(operation.dependency) == State::failed) {
      finish(operation.handle, State::failed);
    } else if (operation.kind == Operation::Kind::removeAll) {
      if (!table.config[place.unit].empty()) {
        dropUses(place);
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
      (void)feed_.takeCommit(place, operation, table);
      moveUses(place, operation.key, {});
      const auto record = table.config[place.unit].find(operation.key);
      if (record == table.config[place.unit].end()) {
        finish(operation.handle, State::success);
      } else {
        record->second.version = ++table.tableVersion;
        record->second.deleted = true;
        table.log[table.tableVersion] = {place.unit, 1, operation.key, record->second.variant,
                                         record->second.indexes};
        storeNeeded(table, table.tableVersion, operation.dependency);
        intoLog(unit, operation.handle, table.tableVersion);
      }
    } else {
      const Event event = feed_.takeCommit(place, operation, table);
      const bool failed = event.kind == Event::Kind::failure;
      unit.stats.resolveFails += failed ? 1U : 0U;
      const auto newest = unit.add.find(operation.key);
      if (newest != unit.add.end() && newest->second.major == operation.major) {
        unit.add.erase(newest);
        unit.versions.erase(operation.key);
      }
      if (failed && !keeps(operation.key)) {
        finish(operation.handle, State::failed);
        updatePending(table);
        ++unit.stats.commits;
        return;
      }
      moveUses(place, operation.key, table.resources[operation.variant]);
      const std::uint64_t version = entryIs(place, operation, event);
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
  std::uint64_t entryIs(Place place, const Operation& operation, const Event& event) {
    Table& table = tables_[place.table];
    Stats& stats = at(place).stats;
    auto& records = table.config[place.unit];
    const auto record = records.find(operation.key);
    // A version above the table's is of a log that was lost.
    if (operation.suppress && record != records.end() && !record->second.deleted &&
        record->second.version <= table.tableVersion) {
      if (record->second.variant == operation.variant && record->second.indexes == event.indexes) {
        ++stats.suppressed;
        return record->second.version;
      }
      ++stats.differences;
    }
    const std::uint64_t version = ++table.tableVersion;
    records[operation.key] = {operation.variant, version, false, event.indexes,
                              event.kind == Event::Kind::failure};
    table.log[version] = {place.unit, 0, operation.key, operation.variant, event.indexes};
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
    table.log[version] = {place.unit, 2, 0, 0, {}};
    storeNeeded(table, version, dependency);
    return version;
  }

  void rewrite(const Event& event) {
    Table& table = tables_[event.place.table];
    if (!table.inConfig(event.place.unit, event.key)) {
      feed_.complain(event, "rewrites what is not there");
      return;
    }
    ConfigRecord& record = table.config[event.place.unit].at(event.key);
    Stats& stats = at(event.place).stats;
    stats.failedUpdates += event.failed ? 1U : 0U;
    record.kept = false;
    if (record.indexes != event.indexes) {
      record.indexes = event.indexes;
      record.version = ++table.tableVersion;
      table.log[record.version] = {event.place.unit, 0, event.key, record.variant, event.indexes};
      ++stats.updates;
    }
  }
  // A commit makes the key a user of these resources, and of none that its entry named before.
  void moveUses(Place place, unsigned key, const Resources& now) {
    const Table& table = tables_[place.table];
    std::set<Use>& uses = at(place).uses;
    const auto before = table.inConfig(place.unit, key)
                            ? table.resources[table.config[place.unit].at(key).variant]
                            : Resources();
    for (unsigned linkage = 0; linkage < table.linkages; ++linkage) {
      uses.erase({linkage, before[linkage].number, key});
      if (now[linkage].number != 0) {
        uses.insert({linkage, now[linkage].number, key});
      }
    }
  }
  void dropUses(Place place) {
    for (const Use& use : usesOf(place)) {
      at(place).uses.erase(use);
    }
  }
  // The chip has taken a record in.
  static void takeIn(Table& table, const LogRecord& record) {
    auto& entries = table.chip[record.unit];
    if (record.lost) {
      return;
    }
    if (record.flags == 0) {
      entries[record.key] = {record.variant, record.indexes};
    } else if (record.flags == 1) {
      entries.erase(record.key);
    } else {
      entries.clear();
    }
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
        takeIn(table, record);
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
  Feed feed_;
};

}  // namespace ModelTest
