#pragma once

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <iterator>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Lumen/Exception.h"
#include "kelp/LogRecords.h"
#include "kelp/TableReader.h"
#include "kelp/Waiter.h"

namespace Kelp {

// The writer rings a bell for the hardware side alone, and to listen would be to write: so this
// looks again after a while. A look at a log that stands still is one load and one system call.
inline constexpr std::chrono::milliseconds kLogLookPeriod{20};
// Versions whose lines are put in order together.
inline constexpr std::uint64_t kLogWindow = 65536;

inline std::string tableText(Asic::SwTableId id) {
  for (std::size_t i = 0; i < Common::kTables; ++i) {
    if (Common::tableId(i) == id) {
      return std::string(Common::tableName(i));
    }
  }
  return fmt::format("{}", id);
}

// The changes of one table, by version, as lines of the output.
template <KelpEmServer::TableSpec T>
class LogView {
 public:
  using LogQuilt = typename T::EntryLogQuilt;
  using LogRecord = typename LogQuilt::Record;
  using ConfigRecord = typename T::ConfigQuilt::Record;

  // With `named`, each line begins with the name of the table.
  explicit LogView(Session& session, bool named = false) : session_(session), named_(named) {}

  void show() {
    log_ = Common::openLog<T>(session_.memory());
    showHeld();
    session_.out().flush();
  }

  // The changes after `from`, up to `to`. Those that a later change has gone over are told as
  // ranges. False if the log is not there.
  bool showVersions(std::uint64_t from, std::uint64_t to) {
    try {
      log_ = Common::openLog<T>(session_.memory());
    } catch (const BrioSharedMem::StoreError& error) {
      session_.notOpened(error);
      return false;
    }
    showUpTo(from, to);
    return true;
  }

  void follow(const Waiter& waiter) {
    while (waiter.sleep(kLogLookPeriod) == Waiter::Woken::timeToLook) {
      look();
      session_.out().flush();
    }
  }

 private:
  // A line, and the version by which it is put in order.
  using Lines = std::vector<std::pair<std::uint64_t, std::string>>;

  [[nodiscard]] const auto& records() const { return std::as_const(*log_).entryLogConfig(); }

  // Shows what the log holds, as far as it is published.
  void showHeld() {
    const std::uint64_t published = log_->collectionControl()->published();
    std::vector<std::uint64_t> versions;
    std::uint64_t above = 0;
    forEachWhole<LogRecord>(session_, *log_, [&](const LogRecord& record) {
      if (record.version.value <= published) {
        versions.push_back(record.version.value);
      } else if (log_->collectionControl()->published() < record.version.value) {
        ++above;
      }
    });
    std::sort(versions.begin(), versions.end());
    for (const std::uint64_t version : versions) {
      if (const auto record = find(version)) {
        appendLine(session_.out().text(), *record, {});
        session_.out().lineEnd();
      }
    }
    if (above != 0) {
      session_.note(
          fmt::format("{}: {} behind the published version {} not shown: a change is "
                      "under way, or was cut off and the agent's next start finishes it",
                      T::name.view(), above == 1 ? "1 record" : std::to_string(above), published));
    }
    last_ = published;
  }

  // The record of a version, unless it is gone or damaged, which is told.
  [[nodiscard]] std::optional<LogRecord> find(std::uint64_t version) {
    try {
      bool found = false;
      const LogRecord& record = records().find(Asic::LogVersion{version}, found);
      return found ? std::optional<LogRecord>(record) : std::nullopt;
    } catch (const Lumen::CorruptionDetectedException& corruption) {
      session_.damage(corruption.msg());
      return std::nullopt;
    }
  }

  // Shows what has come since the last look.
  void look() {
    if (log_ && !log_->replaced()) {
      showNew();
      return;
    }
    if (log_) {
      showNew();  // what was published before the log was made anew
      log_ = nullptr;
      needed_ = nullptr;
    }
    try {
      log_ = Common::openLog<T>(session_.memory());
    } catch (const BrioSharedMem::AbsentError&) {
      if (!std::exchange(waitingTold_, true)) {
        session_.note(fmt::format("the log of {} is gone; waiting for the next", T::name.view()));
      }
      return;
    }
    waitingTold_ = false;
    session_.note(fmt::format("the log of {} has been made anew", T::name.view()));
    showHeld();
  }

  void showNew() {
    const std::uint64_t published = log_->collectionControl()->published();
    if (published < last_ || published - last_ > std::uint64_t{log_->mapBase().limit()} * 16) {
      session_.damage(
          fmt::format("{}: the published version went from {} to {}; going on from "
                      "there",
                      session_.fileOf(log_->mapBase().path()), last_, published));
      last_ = published;
    }
    showUpTo(last_, published);
    last_ = published;
  }

  void showUpTo(std::uint64_t from, std::uint64_t published) {
    while (from < published) {
      const std::uint64_t count = std::min(published - from, kLogWindow);
      showWindow(from + 1, count);
      from += count;
    }
  }

  void showWindow(std::uint64_t from, std::uint64_t count) {
    Lines lines;
    std::vector<std::uint64_t> missing;
    for (std::uint64_t distance = 0; distance < count; ++distance) {
      const std::uint64_t version = from + distance;
      if (const auto record = find(version)) {
        lines.emplace_back(version, std::string());
        appendLine(lines.back().second, *record, {});
      } else {
        missing.push_back(version);
      }
    }
    if (!missing.empty()) {
      seek(missing, lines);
    }
    std::stable_sort(lines.begin(), lines.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    for (const auto& [version, line] : lines) {
      session_.out().line(line);
    }
  }

  // A hardware side that is at work has taken a change in before anybody else sees it. What it did
  // is seen in the entries then, unless a later change has gone over it.
  void seek(const std::vector<std::uint64_t>& missing, Lines& lines) {
    std::vector<bool> seen(missing.size());
    for (const Asic::UnitId unit : Common::unitsOf<T>(session_.memory())) {
      try {
        const auto config = Common::openConfig<T>(session_.memory(), unit);
        forEachWhole<ConfigRecord>(session_, *config, [&](const ConfigRecord& record) {
          const auto at = std::lower_bound(missing.begin(), missing.end(), record.version.value);
          if (at == missing.end() || *at != record.version.value) {
            return;
          }
          seen[static_cast<std::size_t>(at - missing.begin())] = true;
          lines.emplace_back(record.version.value, std::string());
          appendLine(lines.back().second,
                     LogRecord(record.version, record.entry.logEntry, unit,
                               record.isDeleted != 0 ? LogRecord::kEntryDeleted : std::uint8_t{0}),
                     "entries");
        });
      } catch (const BrioSharedMem::StoreError& error) {
        session_.notOpened(error);
      }
    }
    for (std::size_t i = 0; i < missing.size();) {
      std::size_t end = i;
      while (end < missing.size() && !seen[end] && missing[end] == missing[i] + (end - i)) {
        ++end;
      }
      if (end == i) {
        ++i;
        continue;
      }
      lines.emplace_back(missing[i], named(missedLine(missing[i], missing[end - 1])));
      i = end;
    }
  }

  [[nodiscard]] std::string missedLine(std::uint64_t from, std::uint64_t to) const {
    if (session_.json()) {
      return fmt::format(R"({{"missed":{},"from":{},"to":{}}})", to - from + 1, from, to);
    }
    return from == to ? fmt::format("{:>10}  came and went between two looks", from)
                      : fmt::format("{:>10}  to {} came and went between two looks", from, to);
  }

  void appendLine(std::string& line, const LogRecord& record, std::string_view seenIn) {
    std::string out;
    appendRecord(out, record, seenIn);
    line += named(out);
  }
  [[nodiscard]] std::string named(const std::string& line) const {
    if (!named_) {
      return line;
    }
    return session_.json() ? fmt::format(R"({{"table":"{}",{})", T::name.view(), line.substr(1))
                           : fmt::format("{:<12} {}", T::name.view(), line);
  }
  void appendRecord(std::string& out, const LogRecord& record, std::string_view seenIn) {
    const auto waitsFor = neededBy(record.version);
    if (!session_.json()) {
      appendLogRecordText<T>(out, record);
      for (const auto& one : waitsFor) {
        fmt::format_to(std::back_inserter(out), "  after {} version {}", tableText(one.tableId),
                       one.version);
      }
      out += seenIn.empty() ? "" : "  (taken in; seen in the entries)";
      return;
    }
    beginLogRecordJson<T>(out, record);
    for (std::size_t i = 0; i < waitsFor.size(); ++i) {
      fmt::format_to(std::back_inserter(out), R"({}{{"table":"{}","version":{}}})",
                     i == 0 ? R"(,"after":[)" : ",", tableText(waitsFor[i].tableId),
                     waitsFor[i].version);
    }
    out += waitsFor.empty() ? "" : "]";
    out += seenIn.empty() ? "" : R"(,"seenIn":"entries")";
    out += '}';
  }

  // What the record of a version waits for in other tables.
  [[nodiscard]] std::vector<Asic::TableVersion> neededBy(Asic::LogVersion version) {
    std::vector<Asic::TableVersion> all;
    if (neededDamaged_) {
      return all;
    }
    try {
      if (!needed_) {
        needed_ = Common::openNeeded(session_.memory(), T::tableId);
      }
      bool found = false;
      const Asic::NeededQuiltEntry& record = needed_->map().find(version, found);
      for (std::size_t i = 0; found && i < std::min<std::size_t>(record.count, record.kMost); ++i) {
        all.push_back({record.needed[i].tableId, record.needed[i].version});
      }
    } catch (const Lumen::CorruptionDetectedException& corruption) {
      session_.damage(corruption.msg());
    } catch (const BrioSharedMem::StoreError& error) {
      neededDamaged_ = true;
      session_.notOpened(error);
    }
    return all;
  }

  Session& session_;
  bool named_;
  Lumen::Ptr<LogQuilt> log_;
  Lumen::Ptr<Asic::NeededQuilt> needed_;
  bool neededDamaged_ = false;
  bool waitingTold_ = false;
  std::uint64_t last_ = 0;
};

}  // namespace Kelp
