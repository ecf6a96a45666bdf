#pragma once

#include <fmt/format.h>

#include <string>
#include <utility>
#include <vector>

#include "BrioSharedMem/StoreError.h"
#include "common/StoreReader.h"
#include "common/Tables.h"
#include "kelp/EntryFields.h"
#include "kelp/Session.h"

// What the commands on one table have in common.

namespace Kelp {

// The units to look at: the one asked for, or all. Throws CommandError if the table has none, or
// not this one.
template <KelpEmServer::TableSpec T>
[[nodiscard]] std::vector<Asic::UnitId> unitsAsked(const Session& session) {
  std::vector<Asic::UnitId> units = Common::unitsOf<T>(session.memory());
  if (units.empty()) {
    throw CommandError(kFailed, fmt::format("{} has no entries in {}: kelp-agent makes its "
                                            "collections when it starts",
                                            T::name.view(), session.folder()));
  }
  const auto asked = session.options().unit;
  if (!asked) {
    return units;
  }
  std::string has;
  for (const Asic::UnitId unit : units) {
    if (unit.value == *asked) {
      return {unit};
    }
    has += fmt::format("{}{}", has.empty() ? "" : ", ", unit);
  }
  throw CommandError(
      kFailed, fmt::format("{} has no unit {} in this store: write one of {}, or leave --unit "
                           "out for all",
                           T::name.view(), *asked, has));
}

// The log of T, or null if it can't be opened, which is told.
template <KelpEmServer::TableSpec T>
[[nodiscard]] Lumen::Ptr<typename T::EntryLogQuilt> logIfThere(Session& session) {
  try {
    return Common::openLog<T>(session.memory());
  } catch (const BrioSharedMem::StoreError& error) {
    session.notOpened(error);
    return nullptr;
  }
}

// Its control block, or null.
template <class Log>
[[nodiscard]] Lumen::Ptr<BrioQuilt::CollectionControl> controlOf(const Lumen::Ptr<Log>& log) {
  return log ? log->collectionControl() : Lumen::Ptr<BrioQuilt::CollectionControl>();
}

// Calls visit(record) for each whole record, and tells of all others.
template <class Record, class Entity, class Visit>
void forEachWhole(Session& session, const Entity& entity, Visit&& visit) {
  const Quilt::StoreFile& file = *entity.mapBase().file();
  static_cast<void>(Quilt::survey<Record>(
      file, visit, [&](const Quilt::Damage& damage) { session.damage(file, damage); }));
}

}  // namespace Kelp
