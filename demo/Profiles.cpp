#include "demo/Profiles.h"

#include <utility>

#include "common/StoreReader.h"

namespace Demo {
namespace {

// The entries that are asked to edit tags as nearly all services do.
std::uint64_t usersOfTheCommonEdit(const BrioSharedMem::EntityManager& memory) {
  using KelpEmServer::EsemFodoVd;
  std::uint64_t users = 0;
  for (const Asic::UnitId unit : Common::unitsOf<EsemFodoVd>(memory)) {
    const auto quilt = Common::openConfig<EsemFodoVd>(memory, unit);
    Common::forEachRecord(std::as_const(*quilt).swTableEntries(), [&](const auto& record) {
      const bool uses =
          record.isDeleted == 0 && record.entry.rsrcKeys.vlanEditProfileKey.isEq(commonVlanEdit());
      users += uses ? 1 : 0;
    });
  }
  return users;
}

}  // namespace

Profiles::Profiles(const Input& input, Programs& programs,
                   const BrioSharedMem::EntityManager& memory, Wait wait)
    : input_(input),
      programs_(programs),
      memory_(memory),
      wait_(std::move(wait)),
      outcomes_(input, programs.outcomesFile()) {}

void Profiles::feed(std::uint64_t upTo, const char* what, std::size_t from, std::size_t to) {
  wait_(what, [&] {
    outcomes_.read();
    return programs_.feed(upTo) >= upTo && outcomes_.count(from, to).ended == to - from;
  });
}

ProfileFigures Profiles::run() {
  const ProfileSteps& steps = *input_.profiles;
  ProfileFigures figures;
  feed(steps.bytesOfLife, "the life of the switch", 0, steps.change);
  figures.users = usersOfTheCommonEdit(memory_);
  const std::uint64_t before = programs_.changesOnChip();
  feed(steps.bytesOfChange, "the change of a profile", steps.change, steps.asked);
  figures.rewritten = programs_.changesOnChip() - before;

  feed(steps.bytesOfAsked, "the outcomes of more edits than there are profiles", steps.asked,
       steps.removed);
  figures.asked = steps.removed - steps.asked;
  figures.failed = outcomes_.count(steps.asked, steps.removed).failed;
  feed(input_.following.size(), "the end of some", steps.removed, input_.lines.size());
  wait_("the second tries of what found no profile", [&] {
    outcomes_.read();
    return outcomes_.count(steps.asked, steps.removed).failed == 0;
  });
  figures.cameThrough = outcomes_.count(steps.asked, steps.removed).cameThrough;
  return figures;
}

}  // namespace Demo
