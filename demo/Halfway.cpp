#include "demo/Halfway.h"

#include <utility>

#include "common/StoreReader.h"
#include "demo/Expected.h"

namespace Demo {
namespace {

// Entries that were changed and not published any more: the next agent publishes them first.
std::uint64_t cutOff(const BrioSharedMem::EntityManager& memory) {
  std::uint64_t count = 0;
  KelpEmServer::AllTables::forEach([&](auto tag) {
    using T = typename decltype(tag)::Table;
    const std::uint64_t published = Common::openLog<T>(memory)->collectionControl()->published();
    for (const Asic::UnitId unit : Common::unitsOf<T>(memory)) {
      const auto quilt = Common::openConfig<T>(memory, unit);
      Common::forEachRecord(std::as_const(*quilt).swTableEntries(), [&](const auto& record) {
        count += record.version.value > published ? 1 : 0;
      });
    }
  });
  return count;
}

}  // namespace

void Halfway::killed() {
  Expected expected;
  for (std::size_t i = 0; i < input_.inFile; ++i) {
    expected.apply(input_.lines[i].value());
  }
  const Comparison left = expected.compareCollections(memory_);
  result_.there = left.equal;
  result_.differing = left.different + left.missing + left.surplus;
  result_.cutOff = cutOff(memory_);
  changesBefore_ = programs_.changesOnChip();
}

Restarted Halfway::replayed() {
  result_.changes = programs_.changesOnChip() - changesBefore_;
  return result_;
}

}  // namespace Demo
