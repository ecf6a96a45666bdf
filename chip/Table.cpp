#include "chip/Table.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace Chip {
namespace {

// Damage that stays is not read again and again.
constexpr std::chrono::seconds kRetryPeriod{1};

bool isRetried(Resync reason) noexcept {
  return reason == Resync::damagedLog || reason == Resync::damagedConfig || reason == Resync::gap;
}

}  // namespace

std::string_view text(Resync reason) noexcept {
  switch (reason) {
    case Resync::emptyModel:
      return "its model is empty";
    case Resync::relaunch:
      return "the relaunch generation has risen";
    case Resync::newLog:
      return "its log has been made anew";
    case Resync::newConfig:
      return "a configuration collection has been made anew";
    case Resync::damagedLog:
      return "its log is damaged";
    case Resync::damagedConfig:
      return "a configuration collection was damaged";
    case Resync::gap:
      return "its log had a gap";
    case Resync::wentBack:
      return "its published version went back";
  }
  return "";
}

Table::Table(std::string_view name, Asic::SwTableId id,
             Lumen::Ptr<BrioSharedMem::EntityManager> memory, Notices& notices)
    : name_(name),
      id_(id),
      memory_(std::move(memory)),
      notices_(notices),
      dependencies_(memory_, id, notices) {}

Table::~Table() = default;

void Table::logIs(const Lumen::Ptr<BrioQuilt::CollectionControl>& log) {
  log_ = log;
  read_ = false;
  missingWhy_.clear();
}

bool Table::logReplaced() const { return !log_ || log_->replaced(); }

void Table::tendOpen() {
  dependencies_.tend();
  if (!open()) {
    return;
  }
  if (configReplaced()) {
    resyncIs(Resync::newConfig);
  } else if (!whole()) {
    resyncIs(Resync::damagedConfig);
  }
}

void Table::resyncIs(Resync reason) noexcept {
  // A reason that does not wait goes before one that does.
  if (!resyncWanted_ || (isRetried(*resyncWanted_) && !isRetried(reason))) {
    resyncWanted_ = reason;
  }
}

std::optional<std::chrono::steady_clock::time_point> Table::resyncDue() const noexcept {
  if (!open() || !resyncWanted_) {
    return std::nullopt;
  }
  return isRetried(*resyncWanted_) ? lastRetry_ + kRetryPeriod
                                   : std::chrono::steady_clock::time_point();
}

bool Table::resyncIfDue() {
  const auto due = resyncDue();
  if (!due || (*due != std::chrono::steady_clock::time_point() &&
               *due > std::chrono::steady_clock::now())) {
    return false;
  }
  const Resync reason = *std::exchange(resyncWanted_, std::nullopt);
  const bool hadAll = whole();
  const std::uint64_t published = log_->published();
  readConfig(published);
  reached_ = published;
  read_ = true;
  held_.reset();
  heldLast_ = 0;
  letGo_ = 0;
  dependencies_.startAt(published);
  if (isRetried(reason)) {
    lastRetry_ = std::chrono::steady_clock::now();
  }
  // Damage that is still there has been told, and the first sight is told for all tables together.
  const bool again = reason == Resync::damagedConfig && !hadAll && !whole();
  counts_.resyncs += again ? 0 : 1;
  if (!again && reason != Resync::emptyModel) {
    std::uint64_t entries = 0;
    const std::vector<UnitView> all = units();
    for (const UnitView& unit : all) {
      entries += unit.entries;
    }
    notices_.tell(fmt::format("resyncs of {}", name_),
                  fmt::format("{}: read from its configuration collections since {}: {} entries on "
                              "{} units, as of version {}{}",
                              name_, text(reason), entries, all.size(), published,
                              whole() ? "" : ", as far as they are whole"));
  }
  return true;
}

void Table::passGap(std::uint64_t to) {
  counts_.gaps += to - reached_;
  notices_.tell(fmt::format("gaps of {}", name_),
                fmt::format("{}: no record of the versions {} to {} in its log; passed over", name_,
                            reached_ + 1, to));
  reached_ = to;
  resyncIs(Resync::gap);
}

std::optional<Asic::TableVersion> Table::unmet(const Asic::NeededQuiltEntry& record,
                                               const Tables& tables) {
  const std::size_t count = std::min<std::size_t>(record.count, Asic::NeededQuiltEntry::kMost);
  for (std::size_t i = 0; i < count; ++i) {
    const Asic::TableVersion needed{record.needed[i].tableId, record.needed[i].version};
    if (needed.tableId == id_) {
      continue;  // met by order
    }
    const Table* other = findTable(tables, needed.tableId);
    if (other == nullptr) {
      ++counts_.dependenciesLeft;
      notices_.tell("unknown tables",
                    fmt::format("{}: version {} waits for version {} of table {}, which is none of "
                                "the chip's; it goes out without",
                                name_, record.version, needed.version, needed.tableId));
      continue;
    }
    if (other->open() && other->reached() >= needed.version.value) {
      continue;
    }
    // What a version waits for was published before it.
    if (other->open() && other->published() < needed.version.value && !other->logReplaced()) {
      ++counts_.dependenciesLeft;
      notices_.tell(
          "dependencies on versions that do not exist",
          fmt::format("{}: version {} waits for version {} of {}, whose last one is {}; "
                      "it goes out without",
                      name_, record.version, needed.version, other->name(), other->published()));
      continue;
    }
    return needed;
  }
  return std::nullopt;
}

std::uint64_t Table::follow(std::uint64_t limit, const Tables& tables) {
  held_.reset();
  if (!read_ || resyncWanted_ == Resync::damagedLog) {
    return 0;
  }
  const std::uint64_t published = log_->published();
  if (published < reached_) {
    resyncIs(Resync::wentBack);
    return 0;
  }
  const std::uint64_t from = reached_;
  const std::uint64_t recordsBefore = counts_.records;
  while (reached_ < published) {
    const std::uint64_t done = counts_.records - recordsBefore;
    if (done >= limit) {
      break;
    }
    const Asic::NeededQuiltEntry* next = dependencies_.next(reached_ + 1, published);
    if (next != nullptr && next->version.value == reached_ + 1 && letGo_ != reached_ + 1) {
      if (const auto waitsFor = unmet(*next, tables)) {
        held_ = Held{reached_ + 1, *waitsFor};
        if (heldLast_ != held_->version) {
          heldLast_ = held_->version;
          ++counts_.heldBack;
        }
        break;
      }
    }
    // Up to the version before the next that has dependencies; this one's are met.
    if (next != nullptr && next->version.value == reached_ + 1) {
      next = dependencies_.next(reached_ + 2, published);
    }
    const std::uint64_t last = next == nullptr ? published : next->version.value - 1;
    if (!takeIn(last, limit - done)) {
      resyncIs(Resync::damagedLog);
      break;
    }
  }
  return reached_ - from;
}

void Table::letGo() {
  if (held_) {
    letGo_ = held_->version;
    ++counts_.dependenciesLeft;
    held_.reset();
  }
}

Table* findTable(const Tables& tables, Asic::SwTableId id) noexcept {
  for (const auto& table : tables) {
    if (table->id() == id) {
      return table.get();
    }
  }
  return nullptr;
}

}  // namespace Chip
