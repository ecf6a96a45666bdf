#pragma once

#include <cstdint>

#include "Asic/GroupQuilts.h"
#include "Asic/SwTableId.h"
#include "BrioSharedMem/EntityManager.h"
#include "Lumen/Ptr.h"
#include "chip/Notices.h"

namespace Chip {

// What the records of one table's log wait for in other tables, read along with the log.
//
// The agent stores the dependencies of a version before it publishes the version, and drops them
// when the version has been reported: what stands there above the reported version is complete up
// to the published one.
class Dependencies {
 public:
  Dependencies(Lumen::Ptr<BrioSharedMem::EntityManager> memory, Asic::SwTableId tableId,
               Notices& notices);

  // The dependencies of the lowest version from `from` to `published` that has some; null if none
  // has. Good until the next call. A collection that is damaged or can't be opened is told, and
  // counts as empty: the records go out without what can't be known.
  [[nodiscard]] const Asic::NeededQuiltEntry* next(std::uint64_t from, std::uint64_t published);

  // Forgets what it has read: versions up to `reached` are through, or start over.
  void startAt(std::uint64_t reached) noexcept;
  // Opens the collection anew if it has been replaced.
  void tend();

 private:
  [[nodiscard]] bool opened();

  Lumen::Ptr<BrioSharedMem::EntityManager> memory_;
  Asic::SwTableId tableId_;
  Notices& notices_;
  Lumen::Ptr<Asic::NeededQuilt> quilt_;
  Asic::NeededQuiltEntry entry_;  // the one found last; version 0 if none is known
  std::uint64_t clearTo_ = 0;     // no version up to here, from the reached one on, has any
};

}  // namespace Chip
