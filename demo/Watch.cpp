#include "demo/Watch.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <utility>

#include "BrioSharedMem/StoreError.h"
#include "Lumen/Exception.h"
#include "common/StoreReader.h"
#include "common/Tables.h"

namespace Demo {

Watch::Watch(Lumen::Ptr<BrioSharedMem::EntityManager> memory, std::string intentFile,
             std::vector<std::uint64_t> lineEnds)
    : memory_(std::move(memory)),
      intentFile_(std::move(intentFile)),
      lineEnds_(std::move(lineEnds)),
      logs_(Common::kTables) {}

// Opens what has come since, or has been made anew.
void Watch::open() {
  std::size_t at = 0;
  KelpEmServer::AllTables::forEach([&](auto tag) {
    using T = typename decltype(tag)::Table;
    auto& log = logs_[at++];
    if (log && !log->replaced()) {
      return;
    }
    log = nullptr;
    try {
      log = Common::openLog<T>(*memory_);
    } catch (const BrioSharedMem::StoreError&) {
      // Not yet.
    }
  });
  if (!status_ || status_->replaced()) {
    status_ = nullptr;
    try {
      status_ = Common::openStatus(*memory_);
    } catch (const BrioSharedMem::StoreError&) {
      // Not yet.
    }
  }
}

std::uint64_t Watch::intentsRead(pid_t agent) const {
  namespace fs = std::filesystem;
  const std::string process = fmt::format("/proc/{}", agent);
  std::error_code gone;
  fs::directory_iterator at(process + "/fd", gone);
  for (; !gone && at != fs::directory_iterator(); at.increment(gone)) {
    std::error_code none;
    if (!fs::equivalent(at->path(), intentFile_, none)) {
      continue;
    }
    std::ifstream info(fmt::format("{}/fdinfo/{}", process, at->path().filename().native()));
    std::string word;
    std::uint64_t position = 0;
    if (info >> word >> position && word == "pos:") {
      return static_cast<std::uint64_t>(
          std::upper_bound(lineEnds_.begin(), lineEnds_.end(), position) - lineEnds_.begin());
    }
  }
  return 0;
}

Watch::Progress Watch::look(pid_t agent) {
  open();
  Progress progress;
  progress.read = intentsRead(agent);
  for (std::size_t i = 0; i < logs_.size(); ++i) {
    if (!logs_[i]) {
      continue;
    }
    const auto control = logs_[i]->collectionControl();
    // The report first: it never runs ahead of what is read after it.
    std::uint64_t reported = 0;
    if (status_) {
      try {
        reported = Common::reportedVersion(*status_, Common::tableId(i), *control).value_or(0);
      } catch (const Lumen::CorruptionDetectedException&) {
        // The programs tell of it.
      }
    }
    progress.onChip += reported;
    progress.committed += control->published();
  }
  return progress;
}

}  // namespace Demo
