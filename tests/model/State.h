#pragma once

#include <algorithm>
#include <array>
#include <compare>
#include <cstdint>
#include <deque>
#include <limits>
#include <map>
#include <optional>
#include <set>
#include <vector>

// What the tables of one group hold, in plain standard collections. Keys and entries are numbers:
// an entry is told by its key and a variant, a resource by its kind and a number.

namespace ModelTest {

inline constexpr unsigned kKeys = 8;
inline constexpr unsigned kVariants = 5;
inline constexpr unsigned kUnits = 2;
inline constexpr unsigned kLinkages = 2;  // of a table, at most
inline constexpr unsigned kResources = 4;

enum class State : std::uint8_t { unresolved = 0, inLog = 1, success = 4, failed = 5 };

// A software table: one table of one unit.
struct Place {
  unsigned table = 0;
  unsigned unit = 0;

  friend auto operator<=>(const Place&, const Place&) = default;
};

// A resource that an entry names through one of its linkages: number 0 for none.
struct Resource {
  unsigned kind = 0;
  unsigned number = 0;

  friend auto operator<=>(const Resource&, const Resource&) = default;
};
using Resources = std::array<Resource, kLinkages>;

// The index that an entry's record carries for each linkage: 0 for none.
using Indexes = std::array<std::uint32_t, kLinkages>;

// What a table tells its helper: it is about to commit an operation, or to rewrite an entry.
struct Event {
  enum class Kind : std::uint8_t { success, failure, removed, update } kind = Kind::success;
  Place place;
  unsigned key = 0;
  Indexes indexes{};          // in the record that is about to be logged
  bool failed = false;        // of an update: some resource has failed
  std::uint64_t version = 0;  // of the table, before
  // Of a commit: what the resources are then.
  struct Verdict {
    bool refused = false;
    bool exhausted = false;  // no index was to be had
    std::uint32_t index = 0;
  };
  std::array<Verdict, kLinkages> verdicts{};
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
  std::uint64_t resolveFails = 0;
  std::uint64_t updates = 0;
  std::uint64_t failedUpdates = 0;
};

struct ConfigRecord {
  unsigned variant = 0;
  std::uint64_t version = 0;
  bool deleted = false;
  Indexes indexes{};
  bool kept = false;  // its resources had failed, and the helper had it logged all the same
};

struct LogRecord {
  unsigned unit = 0;
  std::uint8_t flags = 0;
  unsigned key = 0;
  unsigned variant = 0;
  Indexes indexes{};
  bool lost = false;  // what it has changed is lost
};

// What the chip has of an entry.
struct ChipEntry {
  unsigned variant = 0;
  Indexes indexes{};
};

// A use of a resource: by the linkage's place, the number of the resource, and the key.
struct Use {
  unsigned linkage = 0;
  unsigned number = 0;
  unsigned key = 0;

  friend auto operator<=>(const Use&, const Use&) = default;
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
  // The uses that its linkages count; a clear without release leaves those of what it deletes.
  std::set<Use> uses;
  bool cleared = false;
};

struct Table {
  std::uint32_t id = 0;
  unsigned linkages = 0;
  std::array<Resources, kVariants> resources{};  // that the entry of a variant names

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

  // On the chip at least, by what has been cleaned away.
  std::array<std::map<unsigned, ChipEntry>, kUnits> chip;

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

}  // namespace ModelTest
