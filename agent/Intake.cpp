#include "agent/Intake.h"

#include <fmt/format.h>

#include <algorithm>
#include <ctime>
#include <iterator>
#include <utility>

#include "agent/Order.h"

namespace Agent {
namespace {

std::string reasonOf(const Retries::Missing& missing) {
  std::string reason;
  for (const Common::MissingResource& one : missing) {
    if (one.failed()) {
      reason += (reason.empty() ? "" : "; ") + one.text();
    }
  }
  return reason;
}

}  // namespace

using Common::AnyKey;
using Common::InputError;
using Common::Intent;
using Common::IntentOp;

Intake::Intake(const Store& store, std::vector<std::unique_ptr<Common::AnyTable>> tables,
               unsigned units, std::size_t limit)
    : store_(store),
      tables_(std::move(tables)),
      units_(units),
      limit_(limit),
      places_(tables_.size()),
      retries_(tables_),
      events_(store) {}

Intake::~Intake() = default;

std::size_t Intake::placeOf(std::size_t table, Asic::UnitId unit, std::string_view where) const {
  if (unit.value >= units_) {
    throw InputError(
        fmt::format("{}unit {} is not there: write 0{}, or start the agent with more --units",
                    where, unit, units_ == 1 ? std::string() : fmt::format(" to {}", units_ - 1)));
  }
  return table * units_ + unit.value;
}

std::uint64_t Intake::failed(const Common::AnyTable& table) const {
  return places_[placeOf(table.table(), table.unit())].failed;
}

std::uint64_t Intake::failedWrites(const Common::AnyTable& table) const {
  return places_[placeOf(table.table(), table.unit())].failedWrites;
}

Intake::Dependency Intake::dependencyOf(const Intent& intent) const {
  if (!intent.after) {
    return {};
  }
  const Common::EntryName& after = *intent.after;
  const std::size_t at = placeOf(after.table(), after.unit, "after.");
  const Place& place = places_[at];
  const auto found = place.known.find(after.key);
  // An operation before a remove-all counts for nothing, whether or not it has ended meanwhile.
  if (found != place.known.end() && found->second.number > place.lastRemoveAll) {
    return {found->second.newest, at};
  }
  // Left by an earlier run, whose order the log has kept.
  if (tables_[at]->has(after.key)) {
    return {};
  }
  failAfter(after);
}

void Intake::failAfter(const Common::EntryName& after) {
  std::string key;
  Common::appendKey(key, after.key);
  throw InputError(
      fmt::format("after names an entry that nobody wrote, {} of {}, unit {}: write that entry on "
                  "an earlier line, or leave `after` out",
                  key, Common::tableName(after.table()), after.unit));
}

Intake::Slot& Intake::freeSlot() {
  if (free_.empty()) {
    return slots_.emplace_back();
  }
  Slot& slot = *free_.back();
  free_.pop_back();
  return slot;
}

void Intake::takeLine(std::string_view text, const std::shared_ptr<Source>& source,
                      std::uint64_t line) {
  if (isReplayComplete(text)) {
    completeReplay_(source, line);
  } else if (Common::isResourceEvent(text)) {
    events_.take(Common::parseResourceEvent(text), *source, line);
  } else {
    take(Common::parseIntent(text), source, line);
  }
}

void Intake::take(const Intent& intent, const std::shared_ptr<Source>& source, std::uint64_t line) {
  const std::size_t at = placeOf(intent.table(), intent.unit);
  Slot& slot = accept(intent, at, source, line, dependencyOf(intent));
  if (kept_ != nullptr && source->isKept()) {
    Common::appendIntent(slot.text, intent);
  }
  if (intent.op != IntentOp::removeAll) {
    operate(slot, intent);
    return;
  }
  retries_.dropAll(at);
  Place& place = places_[at];
  if (place.removeAlls.empty()) {
    withRemoveAlls_.push_back(at);
  }
  place.lastRemoveAll = slot.number;
  place.removeAlls.push_back({&slot, false, 0});
  tables_[at]->removeAll(slot.dependency, [this, &slot](const Handle&) { removeAllFailed(slot); });
}

void Intake::replay(const Intent& intent, const std::shared_ptr<Source>& source, std::uint64_t line,
                    std::vector<Replaced> replaces,
                    const std::function<bool(const AnyKey&)>& stays) {
  Dependency dependency;
  try {
    dependency = dependencyOf(intent);
  } catch (const InputError&) {
    // It was there when the intent first came.
  }
  Slot& slot =
      accept(intent, placeOf(intent.table(), intent.unit), source, line, std::move(dependency));
  totals_.accepted += replaces.size();
  slot.replaces = std::move(replaces);
  if (intent.op == IntentOp::removeAll) {
    retries_.dropAll(slot.place);
    removeRest(slot, stays);
  } else {
    operate(slot, intent);
  }
}

Intake::Slot& Intake::accept(const Intent& intent, std::size_t at,
                             const std::shared_ptr<Source>& source, std::uint64_t line,
                             Dependency dependency) {
  ++totals_.accepted;
  Slot& slot = occupy(intent.op, at, source, line);
  slot.since = roughlyNow();
  slot.dependency = std::move(dependency.handle);
  slot.dependencyPlace = dependency.place;
  return slot;
}

// A clock that steps with the kernel's tick, and costs a fraction of one that does not.
Intake::Clock::time_point Intake::roughlyNow() noexcept {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return Clock::time_point(std::chrono::seconds(now.tv_sec) +
                           std::chrono::nanoseconds(now.tv_nsec));
}

Intake::Slot& Intake::occupy(IntentOp op, std::size_t at, const std::shared_ptr<Source>& source,
                             std::uint64_t line) {
  Slot& slot = freeSlot();
  slot.source = source;
  slot.line = line;
  slot.number = nextNumber_++;
  slot.op = op;
  slot.place = at;
  slot.again = false;
  source->inFlightInc();
  return slot;
}

// A write, or a remove of one key.
void Intake::operate(Slot& slot, const Intent& intent) {
  const Common::AnyTable& table = *tables_[slot.place];
  slot.key = Common::keyOf(intent.entry);
  retries_.drop(slot.place, slot.key);
  if (intent.op == IntentOp::write && table.namesResources(intent.entry)) {
    slot.write = std::make_unique<Intent>(intent);
  }
  writeOrRemove(slot, intent);
}

void Intake::writeOrRemove(Slot& slot, const Intent& intent) {
  Common::AnyTable& table = *tables_[slot.place];
  slot.known = &places_[slot.place].known[slot.key];
  // Two words, so that a ResponseHandler holds them without an allocation. A slot is free again
  // only after its handler has run.
  const auto handler = [this, &slot](const Handle& handle) { ended(slot, handle); };
  slot.handle = intent.op == IntentOp::write ? table.write(intent.entry, slot.dependency, handler)
                                             : table.remove(slot.key, slot.dependency, handler);
  slot.known->newest = slot.handle;
  slot.known->number = slot.number;
  ++slot.known->inFlight;
}

void Intake::removeRest(Slot& slot, const std::function<bool(const AnyKey&)>& stays) {
  Common::AnyTable& table = *tables_[slot.place];
  std::vector<AnyKey> rest = store_.keysOf(table);
  std::erase_if(rest, stays);
  if (rest.empty()) {
    end(slot, {true, 0, {}, false});
    return;
  }
  Rest& removes = rests_.emplace_back(Rest{&slot, rest.size(), false});
  for (const AnyKey& key : rest) {
    (void)table.remove(key, slot.dependency, [this, &removes](const Handle& handle) {
      restEnded(removes, handle->entryState() == Asic::EntryState::entryStateSuccess);
    });
  }
}

void Intake::restEnded(Rest& rest, bool success) {
  rest.failed = rest.failed || !success;
  if (--rest.left == 0) {
    end(*rest.slot, {!rest.failed, 0, {}, false});
    rests_.remove_if([&](const Rest& one) { return &one == &rest; });
  }
}

void Intake::ended(Slot& slot, const Handle& handle) {
  // A failed operation stays the newest one of its key, so that whatever names it fails alike,
  // whether it comes before the failure or long after it.
  const bool success = handle->entryState() == Asic::EntryState::entryStateSuccess;
  if (success && slot.known->newest == handle) {
    slot.known->newest = nullptr;
  }
  Retries::Missing missing;
  if (!success) {
    rooms_.look(*tables_[slot.place], &slot.key);
    missing = whyFailed(slot);
  }
  // Something newer may have come for the key while it was in flight.
  const bool isNewest =
      slot.known->number == slot.number && slot.number > places_[slot.place].lastRemoveAll;
  if (--slot.known->inFlight == 0) {
    keyIsIdle(slot.place, slot.key, *slot.known);
  }
  if (missing.empty()) {
    end(slot, {success, handle->logVersion().value, {}, slot.again});
    return;
  }
  if (isNewest) {
    remember(slot, missing);
  }
  if (slot.again) {
    // Its source knows.
    ++places_[slot.place].failedWrites;
    free(slot);
  } else {
    end(slot, {false, 0, reasonOf(missing), false});
  }
}

// Forgets the key, if the table answers for it; else remembers it for a while.
void Intake::keyIsIdle(std::size_t at, const AnyKey& key, const Known& known) {
  if (!known.newest && tables_[at]->has(key)) {
    places_[at].known.erase(key);
    return;
  }
  remembered_.push_back({at, key, known.number});
  if (remembered_.size() > kMostRemembered) {
    const Remembered& oldest = remembered_.front();
    KnownKeys& keys = places_[oldest.place].known;
    const auto found = keys.find(oldest.key);
    if (found != keys.end() && found->second.inFlight == 0 &&
        found->second.number == oldest.number) {
      keys.erase(found);
    }
    remembered_.pop_front();
  }
}

void Intake::tellLackOfRoom() {
  // To look is to take room ahead: only for those that need it.
  std::vector<bool> waits(tables_.size());
  for (const Slot& slot : slots_) {
    const bool queued = slot.handle ? slot.handle->entryState() < Asic::EntryState::entryStateInLog
                                    : slot.op == IntentOp::removeAll;
    if (slot.source && queued && !waits[slot.place]) {
      waits[slot.place] = true;
      rooms_.look(*tables_[slot.place], nullptr);
    }
  }
}

void Intake::removeAllFailed(Slot& slot) {
  Place& place = places_[slot.place];
  std::erase_if(place.removeAlls, [&](const RemoveAll& one) { return one.slot == &slot; });
  ++place.removeAllsFailed;
  if (place.removeAlls.empty()) {
    std::erase(withRemoveAlls_, slot.place);
  }
  end(slot, {});
}

void Intake::removeAllsSettle() {
  for (std::size_t i = 0; i < withRemoveAlls_.size();) {
    const std::size_t at = withRemoveAlls_[i];
    Place& place = places_[at];
    Common::AnyTable& table = *tables_[at];
    // They commit in the order of their acceptance. One that failed is counted by the table for
    // good.
    std::uint64_t waiting = table.removeAllsInFlight() - place.removeAllsFailed;
    for (auto one = place.removeAlls.rbegin(); one != place.removeAlls.rend(); ++one) {
      if (waiting != 0) {
        --waiting;
      } else if (!one->committed) {
        one->committed = true;
        one->version = table.tableVersion();
      }
    }
    while (!place.removeAlls.empty() && place.removeAlls.front().committed &&
           place.removeAlls.front().version <= table.lastCleanedVersion()) {
      Slot& slot = *place.removeAlls.front().slot;
      place.removeAlls.pop_front();
      end(slot, {true, 0, {}, false});
    }
    if (place.removeAlls.empty()) {
      std::erase(withRemoveAlls_, at);
    } else {
      ++i;
    }
  }
}

// What a write that failed could not have; nothing if it failed for another reason.
Retries::Missing Intake::whyFailed(const Slot& slot) const {
  const Common::AnyTable& table = *tables_[slot.place];
  const bool otherwise = !slot.write ||
                         (slot.dependency && Asic::isFailed(slot.dependency->entryState())) ||
                         !table.lackOfRoom(&slot.key).empty();
  if (otherwise) {
    return {};
  }
  Retries::Missing missing = table.missingResources(slot.write->entry);
  const bool failed = std::any_of(missing.begin(), missing.end(),
                                  [](const auto& resource) { return resource.failed(); });
  return failed ? missing : Retries::Missing();
}

void Intake::remember(Slot& slot, const Retries::Missing& missing) {
  HeldWrite held;
  held.place = slot.place;
  held.key = slot.key;
  held.intent = std::move(slot.write);
  held.source = LaterSource(slot.source);
  held.line = slot.line;
  held.replaces = slot.replaces;
  if (slot.dependency && slot.dependency->entryState() != Asic::EntryState::entryStateSuccess) {
    held.dependency = slot.dependency;
    held.dependencyPlace = slot.dependencyPlace;
  }
  held.since = slot.since;
  retries_.add(std::move(held), missing);
}

void Intake::writeAgain(unsigned most) {
  retries_.step(
      most, [this] { return hasRoom(); }, [this](HeldWrite& held) { writeAgain(held); });
}

void Intake::writeAgain(HeldWrite& held) {
  Slot& slot = occupy(IntentOp::write, held.place, held.source.get(), held.line);
  slot.again = true;
  slot.key = held.key;
  slot.replaces = std::move(held.replaces);
  slot.write = std::move(held.intent);
  slot.since = held.since;
  slot.dependency = std::move(held.dependency);
  slot.dependencyPlace = held.dependencyPlace;
  if (kept_ != nullptr && slot.source->isKept()) {
    Common::appendIntent(slot.text, *slot.write);
  }
  writeOrRemove(slot, *slot.write);
}

void Intake::end(Slot& slot, const End& how) {
  const Common::AnyTable& table = *tables_[slot.place];
  const std::uint64_t lines = 1 + slot.replaces.size();
  if (how.success) {
    (how.again ? totals_.cameThroughAgain : totals_.succeeded) += lines;
  } else {
    if (!how.again) {
      totals_.failed += lines;
      places_[slot.place].failed += lines;
    }
    places_[slot.place].failedWrites += slot.op == IntentOp::write ? 1 : 0;
  }
  if (how.success && !slot.text.empty()) {
    kept_->add(slot.number, slot.op, table, slot.key, std::move(slot.text));
  }
  for (const Replaced& line : slot.replaces) {
    tell(*line.source, line.line, line.op, line.key, table, how);
  }
  tell(*slot.source, slot.line, slot.op, slot.key, table, how);
  free(slot);
}

void Intake::free(Slot& slot) {
  slot.source->inFlightDec();
  slot.source = nullptr;
  slot.handle = nullptr;
  slot.known = nullptr;
  slot.text.clear();
  slot.write = nullptr;
  slot.dependency = nullptr;
  slot.replaces.clear();
  free_.push_back(&slot);
}

void Intake::tell(Source& source, std::uint64_t line, IntentOp op, const AnyKey& key,
                  const Common::AnyTable& table, const End& how) {
  text_.clear();
  fmt::format_to(std::back_inserter(text_), R"({{"source":{},"line":{},"op":"{}","table":"{}")",
                 source.quotedName(), line, name(op), table.name());
  fmt::format_to(std::back_inserter(text_), R"(,"unit":{})", table.unit().value);
  if (op != IntentOp::removeAll) {
    text_ += ",\"key\":";
    Common::appendKey(text_, key);
  }
  text_ += how.success ? R"(,"outcome":"success")" : R"(,"outcome":"failed")";
  if (op != IntentOp::removeAll) {
    fmt::format_to(std::back_inserter(text_), R"(,"version":{})", how.version);
  }
  if (!how.reason.empty()) {
    text_ += ",\"reason\":";
    Common::appendString(text_, how.reason);
  }
  if (how.again) {
    text_ += ",\"again\":true";
  }
  text_ += "}\n";
  source.outcomeIs(text_);
}

void Intake::tellOrder(Source& source, std::uint64_t line, std::string_view op, bool success) {
  source.outcomeIs(fmt::format(R"({{"source":{},"line":{},"op":"{}","outcome":"{}"}})"
                               "\n",
                               source.quotedName(), line, op, success ? "success" : "failed"));
}

void Intake::keepInLog() {
  for (Slot& slot : slots_) {
    if (slot.source && slot.handle && !slot.text.empty() &&
        slot.handle->entryState() == Asic::EntryState::entryStateInLog) {
      kept_->add(slot.number, slot.op, *tables_[slot.place], slot.key, std::move(slot.text));
      slot.text.clear();
    }
  }
}

bool Intake::logsTakenIn() const {
  return std::all_of(tables_.begin(), tables_.end(), [](const auto& table) {
    return table->lastCleanedVersion() >= table->tableVersion();
  });
}

std::optional<std::uint64_t> Intake::versionOfRemoveAll(const Slot& slot) const {
  for (const RemoveAll& one : places_[slot.place].removeAlls) {
    if (one.slot == &slot && one.committed) {
      return one.version;
    }
  }
  return std::nullopt;
}

std::size_t Intake::removesLeft(const Slot& slot) const {
  const auto rest = std::find_if(rests_.begin(), rests_.end(),
                                 [&](const Rest& one) { return one.slot == &slot; });
  return rest == rests_.end() ? 0 : rest->left;
}

}  // namespace Agent
