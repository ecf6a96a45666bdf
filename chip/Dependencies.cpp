#include "chip/Dependencies.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "BrioSharedMem/StoreError.h"
#include "Lumen/Exception.h"
#include "common/StoreReader.h"

namespace Chip {

Dependencies::Dependencies(Lumen::Ptr<BrioSharedMem::EntityManager> memory, Asic::SwTableId tableId,
                           Notices& notices)
    : memory_(std::move(memory)), tableId_(tableId), notices_(notices) {}

void Dependencies::startAt(std::uint64_t reached) noexcept {
  entry_ = Asic::NeededQuiltEntry();
  clearTo_ = reached;
}

void Dependencies::tend() {
  if (quilt_ && quilt_->replaced()) {
    quilt_ = nullptr;
  }
}

bool Dependencies::opened() {
  if (!quilt_) {
    try {
      quilt_ = Common::openNeeded(*memory_, tableId_);
    } catch (const BrioSharedMem::OtherLayoutError&) {
      throw;
    } catch (const BrioSharedMem::StoreError& error) {
      notices_.tell("lost dependencies",
                    fmt::format("the dependencies of table {} can't be read, its records go out "
                                "without them: {}",
                                tableId_, error.what()));
    }
  }
  return quilt_ != nullptr;
}

const Asic::NeededQuiltEntry* Dependencies::next(std::uint64_t from, std::uint64_t published) {
  if (entry_.version.value < from) {
    const std::uint64_t start = std::max(from, clearTo_ + 1);
    if (start > published || !opened()) {
      return nullptr;
    }
    entry_ = Asic::NeededQuiltEntry();
    Quilt::IterHint hint;
    try {
      if (quilt_->map().size() == 0 ||
          !quilt_->map().next(Asic::LogVersion{start - 1}, entry_, hint)) {
        entry_ = Asic::NeededQuiltEntry();
      }
    } catch (const Lumen::CorruptionDetectedException& corruption) {
      quilt_->map().doCorruptionDetected(corruption.msg());
      entry_ = Asic::NeededQuiltEntry();
    }
    if (entry_.version.value == 0) {
      clearTo_ = published;
      return nullptr;
    }
    clearTo_ = entry_.version.value - 1;
  }
  return entry_.version.value <= published ? &entry_ : nullptr;
}

}  // namespace Chip
