#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "demo/Expected.h"

namespace Demo {

struct Outcomes {
  std::uint64_t succeeded = 0;
  std::uint64_t failed = 0;
  std::uint64_t cameThrough = 0;  // of those that succeeded: at a second try
};

// What came of an agent that was killed halfway and started again, up to the end of its replay.
struct Restarted {
  std::uint64_t there = 0;      // entries that the killed agent has left as they are asked for
  std::uint64_t differing = 0;  // entries to write or remove
  std::uint64_t cutOff = 0;     // changes that the killed agent had made and not published
  std::uint64_t changes = 0;    // that reached the chip

  [[nodiscard]] bool good() const noexcept { return changes == differing + cutOff; }
};

// What came of VLAN edit profiles that changed, ran out and came free again, and of a start of the
// agent after that.
struct ProfileFigures {
  std::uint64_t users = 0;      // entries that used the profile that changed
  std::uint64_t rewritten = 0;  // entries that changed on the chip then
  std::uint64_t asked = 0;      // writes of an edit of their own
  std::uint64_t failed = 0;     // of these, for want of a profile
  std::uint64_t cameThrough = 0;
  std::uint64_t changes = 0;  // that reached the chip when the agent was started again at the end

  [[nodiscard]] bool good() const noexcept {
    return users != 0 && rewritten == users && failed != 0 && cameThrough == failed && changes == 0;
  }
};

// What came of a run.
struct Report {
  // One software table: a table of one unit.
  struct Row {
    std::string table;
    unsigned unit = 0;
    std::uint64_t written = 0;
    std::uint64_t removed = 0;
    std::uint64_t suppressed = 0;
    std::uint64_t entries = 0;           // in the reader's view
    std::optional<std::uint64_t> inLog;  // records of the table's log; the units share one, so
                                         // that only the first row of a table has it
    std::uint64_t onChip = 0;            // entries of the chip's model
    bool pending = false;                // something of it has not come to its end
  };

  double seconds = 0;
  std::uint64_t intents = 0;
  Outcomes outcomes;
  int agentStatus = 0;
  bool chipEqual = false;  // to the configuration collections, by kelp-chip's own check
  std::uint64_t expectedEntries = 0;
  Comparison chipAndIntents;
  Comparison collectionsAndIntents;
  std::vector<Row> rows;
  std::uint64_t heldBack = 0;
  std::uint64_t resyncs = 0;
  std::uint64_t equalToCollections = 0;  // entries, by kelp-chip's own check
  std::vector<std::string> chipDiffers;  // where it found differences
  std::optional<Restarted> restarted;
  std::optional<ProfileFigures> profiles;

  // Takes what the programs say of themselves at their end. Throws std::runtime_error.
  void readSummaries(const std::string& agentFile, const std::string& chipFile);
  // The chip holds exactly what it should, and every intent was carried out.
  [[nodiscard]] bool good() const noexcept;
  [[nodiscard]] std::string text() const;
};

}  // namespace Demo
