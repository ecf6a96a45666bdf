#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "Asic/GenId.h"
#include "Asic/GroupQuilts.h"
#include "BrioSharedMem/Bell.h"
#include "BrioSharedMem/EntityManager.h"
#include "Lumen/Ptr.h"
#include "chip/CheckResult.h"
#include "chip/Notices.h"
#include "chip/Table.h"

namespace Chip {

struct Options {
  // Of the agent that is followed.
  std::string name = "kelp";
  std::string root = "/dev/shm";
  // Slow hardware: what a change of an entry and what a report takes.
  std::chrono::microseconds delayPerRecord{0};
  std::chrono::microseconds delayPerBatch{0};
  // Most records of one table between two reports.
  std::uint32_t batch = 512;
  // Where messages go; stderr if empty.
  Notices::Sink say;
};

// The hardware side of an agent: reads its collections, programs a model of the chip, and reports
// how far it has come. It runs as one process per agent, beside the agent or without it, and either
// may be killed and come back at any time.
//
//   agent                                       hardware side
//   stores records, dependencies, then
//   publishes the version; rings "chip"  --->   wakes, takes in what is published, in version order
//   wakes, looks at the status           <---   stores a row per table that has gone on; rings
//   "agent"
//
// The rows are the only words that it writes. For one thread. Nothing is polled: it sleeps until a
// bell rings, and looks once a second, and when it was woken for nothing, at what no bell tells of:
// collections that have come or have been made anew, and the relaunch generation.
class HardwareSide {
 public:
  // Attaches to the store, and makes its own part there, with room for all that it will ever
  // report. Throws StoreError, BellError: another process does the same, or the file system
  // refuses.
  explicit HardwareSide(Options options);
  ~HardwareSide();
  HardwareSide(const HardwareSide&) = delete;
  HardwareSide& operator=(const HardwareSide&) = delete;

  // What one turn of the loop came to.
  enum class Turn : std::uint8_t { worked, woken, interrupted, idle };

  // Takes in and reports what there is; if there is nothing, sleeps until the bell rings (woken),
  // `otherFd` becomes readable (interrupted) or `most` is over (idle). A negative `otherFd` is
  // none. Throws OtherLayoutError.
  Turn turn(int otherFd, std::chrono::milliseconds most);

  // Takes in up to a batch of each table and reports it, without sleeping. Returns the number of
  // versions that it went on; 0 means that all is done that can be done.
  std::uint64_t work();
  // Looks at what no bell tells of. Throws OtherLayoutError; StoreError if its own part of the
  // store was removed and cannot be made again.
  void tend();

  // All that is published is on the chip, and there is a log at all.
  [[nodiscard]] bool caughtUp() const;

  // Takes in what is published and compares the model with the configuration collections, again if
  // the agent has gone on meanwhile, for two seconds at most.
  [[nodiscard]] CheckResult check();

  [[nodiscard]] const Tables& tables() const noexcept { return tables_; }
  [[nodiscard]] const Notices& notices() const noexcept { return notices_; }
  [[nodiscard]] std::uint64_t relaunchGeneration() const noexcept {
    return generation_.value_or(0);
  }
  // Rows written to the status collection, and wake-ups of the agent that cost a system call.
  [[nodiscard]] std::uint64_t reports() const noexcept { return reports_; }
  [[nodiscard]] std::uint64_t wakeUps() const noexcept { return agentBell_->wakeUps(); }

 private:
  struct Row {
    std::uint64_t version = 0;
    std::uint64_t incarnation = 0;

    friend bool operator==(const Row&, const Row&) = default;
  };

  void attachBells();
  void mountStatus();
  void unmountStatus();
  void takeRoomForReports();
  void tendGeneration();
  void tellOfMissing();
  std::uint64_t takeIn();
  std::uint64_t resyncs();
  void breakCycles();
  void catchUp(std::chrono::steady_clock::time_point until);
  void pace(int otherFd);
  void report();
  [[nodiscard]] bool hasWork() const;
  [[nodiscard]] std::chrono::steady_clock::time_point nextTime() const;

  Options options_;
  Notices notices_;
  Lumen::Ptr<BrioSharedMem::EntityManager> memory_;
  Tables tables_;
  Lumen::Ptr<Asic::StatusQuilt> status_;
  std::vector<Row> rows_;  // as reported last, by table
  std::optional<BrioSharedMem::Bell> bell_;
  std::optional<BrioSharedMem::Bell> agentBell_;

  Lumen::Ptr<Asic::GenId> relaunch_;
  std::uint64_t vaultInode_ = 0;
  std::optional<std::uint64_t> generation_;

  std::uint64_t paced_ = 0;  // changes of the model that have been waited for
  std::uint64_t reports_ = 0;
  bool waitingTold_ = false;
  bool wokenForNothing_ = true;
  std::chrono::steady_clock::time_point nextTend_;
  std::chrono::steady_clock::time_point nextLook_;  // at otherFd, while there is work
};

}  // namespace Chip
