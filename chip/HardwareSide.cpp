#include "chip/HardwareSide.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <thread>
#include <utility>

#include "Asic/Constants.h"
#include "BrioQuilt/MountInfo.h"
#include "BrioSharedMem/StoreError.h"
#include "KelpEmServer/MountQuilt.h"
#include "KelpEmServer/TableCatalogue.h"
#include "Lumen/Exception.h"
#include "Vault/EntityManager.h"
#include "common/StoreReader.h"

namespace Chip {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kTendPeriod{1};
// While there is always work, what no bell tells of is looked at this often, and signals that
// often.
constexpr std::chrono::milliseconds kBusyTendPeriod{100};
constexpr std::chrono::milliseconds kBusyLookPeriod{5};
// No delay keeps a signal waiting for longer.
constexpr std::chrono::milliseconds kLongestNap{50};
// A check is repeated this often while the agent goes on.
constexpr int kCheckTries = 50;
constexpr std::chrono::milliseconds kCheckPause{20};
// And for no longer than this, but for catching up.
constexpr std::chrono::seconds kCheckMost{2};

// Waits for one of the descriptors to become readable; tells which.
std::array<bool, 2> waitFor(int first, int second, std::chrono::milliseconds most) {
  // Descriptors below 0 are passed over by poll().
  std::array<pollfd, 2> waits{pollfd{first, POLLIN, 0}, pollfd{second, POLLIN, 0}};
  const auto milliseconds = std::clamp<std::int64_t>(most.count(), 0, 1'000'000);
  static_cast<void>(::poll(waits.data(), waits.size(), static_cast<int>(milliseconds)));
  return {(waits[0].revents & POLLIN) != 0, (waits[1].revents & POLLIN) != 0};
}

}  // namespace

HardwareSide::HardwareSide(Options options) : options_(std::move(options)), notices_(options_.say) {
  BrioSharedMem::EntityManager::rootIs(options_.name, options_.root);
  memory_ = BrioSharedMem::EntityManager::getEntityManager(options_.name, false);
  if (options_.delayPerRecord.count() > 0) {
    // A report every few milliseconds, however slow the hardware is.
    options_.batch = static_cast<std::uint32_t>(
        std::clamp<std::int64_t>(5000 / options_.delayPerRecord.count(), 1, options_.batch));
  }
  tables_ = makeTables(memory_, notices_);
  rows_.resize(tables_.size());
  try {
    attachBells();
    mountStatus();
    tend();
  } catch (...) {
    unmountStatus();
    throw;
  }
}

HardwareSide::~HardwareSide() { unmountStatus(); }

void HardwareSide::unmountStatus() {
  status_ = nullptr;
  memory_->entityDel(Asic::Constants::groupStatusPath(Common::groupName()));
}

void HardwareSide::attachBells() {
  bell_.reset();
  agentBell_.reset();
  bell_.emplace(memory_->folder(), "chip", BrioSharedMem::Bell::Role::listener);
  agentBell_.emplace(memory_->folder(), "agent", BrioSharedMem::Bell::Role::ringer);
}

void HardwareSide::mountStatus() {
  unmountStatus();
  const Lumen::String path = Asic::Constants::groupStatusPath(Common::groupName());
  const auto group = memory_->getMountGroup();
  BrioQuilt::MountInfo info(BrioQuilt::BrioQuiltType::collection);
  info.collectionInfoIs(
      BrioQuilt::CollectionInfo(Asic::kStatusCollection, Asic::kStatusCapacity, false));
  static_cast<void>(group->mount(path, Asic::kStatusQuiltType, info));
  group->doClose();
  status_ = Lumen::dynamicPtrCast<Asic::StatusQuilt>(memory_->getEntity(path));
  if (status_->collectionControl()->wiped()) {
    notices_.say("the status collection was lost or damaged, and is made anew");
    status_->collectionControl()->clearWiped();
  }
  takeRoomForReports();
  std::fill(rows_.begin(), rows_.end(), Row());
}

// A row that is there can always be replaced, so all that is ever reported has its room from here
// on.
void HardwareSide::takeRoomForReports() {
  auto& rows = status_->map();
  for (const auto& table : tables_) {
    if (rows.hasRoomFor(table->id())) {
      continue;
    }
    const int reason = rows.file()->lastError();
    throw BrioSharedMem::StoreError(
        rows.size() >= Asic::kStatusCapacity
            ? fmt::format("{}: full of rows of tables that are not the chip's; stop the agent and "
                          "remove the collection's file below {}, it is made anew",
                          rows.path(), memory_->folder())
            : fmt::format("{}: no room for the reports in {}: {}; make room in the file system, or "
                          "name another root folder with --root, here and to kelp-agent",
                          rows.path(), memory_->folder(), std::strerror(reason)));
  }
}

// --- what no bell tells of

void HardwareSide::tendGeneration() {
  const Lumen::String file = Vault::EntityManager::fileOf(options_.name, options_.root);
  struct stat found {};
  if (::stat(file.c_str(), &found) != 0) {
    relaunch_ = nullptr;
    return;
  }
  try {
    if (!relaunch_ || vaultInode_ != found.st_ino) {
      const auto vault = Lumen::makeNode<Vault::EntityManager>(options_.name, false, options_.root);
      relaunch_ = Lumen::dynamicPtrCast<Asic::GenId>(
          vault->getEntity(KelpEmServer::relaunchPath(KelpEmServer::kAgentName)));
      vaultInode_ = found.st_ino;
      if (!relaunch_) {
        return;
      }
    }
    const std::uint64_t generation = relaunch_->majorId();
    if (generation_ && *generation_ != generation) {
      for (const auto& table : tables_) {
        table->resyncIs(Resync::relaunch);
      }
    }
    generation_ = generation;
  } catch (const Vault::VaultError& error) {
    relaunch_ = nullptr;
    notices_.tell("the state database", error.what());
  }
}

void HardwareSide::tellOfMissing() {
  const auto missing = [](const std::unique_ptr<Table>& table) { return !table->open(); };
  if (std::none_of(tables_.begin(), tables_.end(), missing)) {
    waitingTold_ = false;
    return;
  }
  if (std::exchange(waitingTold_, true)) {
    return;
  }
  std::string names;
  std::string why;
  for (const auto& table : tables_) {
    if (missing(table)) {
      names += fmt::format("{}{}", names.empty() ? "" : ", ", table->name());
      why = why.empty() ? table->missingWhy() : why;
    }
  }
  notices_.say(
      fmt::format("waits for the logs of {} in {}; {}", names, memory_->folder(),
                  why.empty() ? "kelp-agent with the same --name and --root makes them" : why));
}

void HardwareSide::tend() {
  const bool first = nextTend_ == Clock::time_point();
  nextTend_ = Clock::now() + kTendPeriod;
  if (status_->replaced()) {
    // Somebody has cleared the folder: the bells are gone with it.
    attachBells();
    mountStatus();
  }
  tendGeneration();
  for (const auto& table : tables_) {
    table->tend([&](Table& opened) {
      // Reports that the agent has taken for more than there is would make it drop records that
      // are still to be read.
      bool found = false;
      try {
        const Asic::StatusQuiltEntry row = status_->map().find(opened.id(), found);
        if (found && row.incarnation == opened.incarnation() &&
            row.version.value > opened.published()) {
          Asic::StatusQuiltEntry corrected = row;
          corrected.version.value = opened.published();
          status_->map().recordIs(corrected);
        }
      } catch (const Lumen::CorruptionDetectedException& corruption) {
        status_->map().doCorruptionDetected(corruption.msg());
      }
    });
  }
  // Tables come one after the other when an agent starts: the rest is told of when it stays away.
  const bool any =
      std::any_of(tables_.begin(), tables_.end(), [](const auto& table) { return table->open(); });
  if (first || !any || !wokenForNothing_) {
    tellOfMissing();
  }
}

// --- programming and reporting

std::uint64_t HardwareSide::resyncs() {
  std::uint64_t done = 0;
  std::uint64_t entries = 0;
  std::string names;
  for (const auto& table : tables_) {
    const bool firstSight = table->counts().resyncs == 0;
    if (!table->resyncIfDue()) {
      continue;
    }
    ++done;
    if (firstSight) {
      names += fmt::format("{}{}", names.empty() ? "" : ", ", table->name());
      for (const Table::UnitView& unit : table->units()) {
        entries += unit.entries;
      }
    }
  }
  if (!names.empty()) {
    notices_.say(fmt::format("follows {}: {} entries are there already", names, entries));
  }
  return done;
}

// Tables that wait for each other in a circle would wait for ever.
void HardwareSide::breakCycles() {
  for (const auto& start : tables_) {
    std::string circle;
    const Table* at = start.get();
    for (std::size_t step = 0; step < tables_.size() && at != nullptr && at->held(); ++step) {
      circle += fmt::format("{} version {} waits for version {} of ", at->name(),
                            at->held()->version, at->held()->waitsFor.version);
      at = findTable(tables_, at->held()->waitsFor.tableId);
      if (at == start.get()) {
        notices_.tell("circles of dependencies",
                      fmt::format("{}{}: a circle; version {} of {} goes out without", circle,
                                  start->name(), start->held()->version, start->name()));
        start->letGo();
        break;
      }
    }
  }
}

std::uint64_t HardwareSide::takeIn() {
  std::uint64_t done = resyncs();
  for (const auto& table : tables_) {
    done += table->follow(options_.batch, tables_);
  }
  if (done == 0) {
    // What following has come upon.
    done = resyncs();
    breakCycles();
    for (const auto& table : tables_) {
      if (table->hasWork()) {
        done += table->follow(options_.batch, tables_);
      }
    }
  }
  return done;
}

void HardwareSide::report() {
  bool any = false;
  for (std::size_t i = 0; i < tables_.size(); ++i) {
    const Table& table = *tables_[i];
    const Row row{table.reached(), table.incarnation()};
    if (!table.read() || row == rows_[i]) {
      continue;
    }
    rows_[i] = row;
    Asic::StatusQuiltEntry entry;
    entry.tableId = table.id();
    entry.version = Asic::LogVersion{row.version};
    entry.incarnation = row.incarnation;
    status_->map().recordIs(entry);
    ++reports_;
    any = true;
  }
  if (any) {
    agentBell_->ring();
  }
}

std::uint64_t HardwareSide::work() {
  const std::uint64_t done = takeIn();
  report();
  return done;
}

// Lets the time pass that the hardware would need, but for signals.
void HardwareSide::pace(int otherFd) {
  std::uint64_t changes = 0;
  for (const auto& table : tables_) {
    const UnitCounts counts = table->changes();
    changes += counts.programmed + counts.overwritten + counts.deleted;
  }
  const std::chrono::microseconds owed =
      options_.delayPerBatch +
      options_.delayPerRecord * static_cast<std::int64_t>(changes - paced_);
  paced_ = changes;
  const auto until = Clock::now() + owed;
  for (auto left = until - Clock::now(); left.count() > 0; left = until - Clock::now()) {
    if (left < std::chrono::milliseconds(1)) {
      std::this_thread::sleep_for(left);
    } else if (waitFor(otherFd, -1,
                       std::chrono::duration_cast<std::chrono::milliseconds>(
                           std::min<Clock::duration>(left, kLongestNap)))[0]) {
      return;
    }
  }
}

bool HardwareSide::hasWork() const {
  return std::any_of(tables_.begin(), tables_.end(),
                     [](const auto& table) { return table->hasWork(); });
}

Clock::time_point HardwareSide::nextTime() const {
  Clock::time_point next = nextTend_;
  for (const auto& table : tables_) {
    if (const auto due = table->resyncDue()) {
      next = std::min(next, *due);
    }
  }
  return next;
}

HardwareSide::Turn HardwareSide::turn(int otherFd, std::chrono::milliseconds most) {
  const std::uint64_t done = takeIn();
  if (done != 0 &&
      options_.delayPerRecord + options_.delayPerBatch != std::chrono::microseconds(0)) {
    pace(otherFd);
  }
  report();
  if (done != 0) {
    wokenForNothing_ = false;
    const auto now = Clock::now();
    if (now >= nextTend_ - kTendPeriod + kBusyTendPeriod) {
      tend();
    }
    if (now >= nextLook_) {
      nextLook_ = now + kBusyLookPeriod;
      if (waitFor(otherFd, -1, std::chrono::milliseconds(0))[0]) {
        return Turn::interrupted;
      }
    }
    return Turn::worked;
  }
  const bool due = nextTime() <= Clock::now();
  if (wokenForNothing_ || due) {
    tend();
    wokenForNothing_ = false;
    if (takeIn() != 0) {
      report();
      return Turn::worked;
    }
    report();
  }

  bell_->arm();
  if (hasWork()) {
    bell_->disarm();
    return Turn::worked;
  }
  const auto untilDue = std::chrono::ceil<std::chrono::milliseconds>(nextTime() - Clock::now());
  const auto [rung, interrupted] = waitFor(bell_->fd(), otherFd, std::min(most, untilDue));
  bell_->disarm();
  wokenForNothing_ = rung;  // until it turns out what for
  if (interrupted) {
    return Turn::interrupted;
  }
  return rung ? Turn::woken : Turn::idle;
}

bool HardwareSide::caughtUp() const {
  bool any = false;
  for (const auto& table : tables_) {
    any = any || table->open();
    if (table->open() && (table->reached() != table->published() || table->resyncDue())) {
      return false;
    }
  }
  return any;
}

// Takes in what is published now. What the agent adds meanwhile would make it an endless task, and
// so may a table that waits for another while others go on: that is waited for until `until` only.
void HardwareSide::catchUp(Clock::time_point until) {
  std::vector<std::uint64_t> targets;
  for (const auto& table : tables_) {
    targets.push_back(table->published());
  }
  const auto left = [&] {
    std::uint64_t versions = 0;
    for (std::size_t i = 0; i < targets.size(); ++i) {
      versions += targets[i] - std::min(targets[i], tables_[i]->reached());
    }
    return versions;
  };
  std::uint64_t least = left();
  while (work() != 0) {
    const std::uint64_t now = left();
    if (now == 0 || (now >= least && Clock::now() >= until)) {
      return;
    }
    least = std::min(least, now);
  }
}

CheckResult HardwareSide::check() {
  CheckResult result;
  const auto until = Clock::now() + kCheckMost;
  for (int tries = 0; tries < kCheckTries; ++tries) {
    if (tries != 0) {
      if (Clock::now() + kCheckPause >= until) {
        break;
      }
      std::this_thread::sleep_for(kCheckPause);
    }
    tend();
    catchUp(until);
    result.tables.clear();
    std::vector<std::uint64_t> before;
    for (const auto& table : tables_) {
      before.push_back(table->published());
      result.tables.push_back(table->check());
    }
    if (result.same()) {
      break;
    }
    // A change may be half made when it is looked at; one that stays so is a difference.
    const bool still = std::equal(
        tables_.begin(), tables_.end(), before.begin(),
        [](const auto& table, std::uint64_t published) { return table->published() == published; });
    if (still && tries >= 10) {
      break;
    }
  }
  return result;
}

}  // namespace Chip
