#include "agent/Waiting.h"

#include <fmt/format.h>

#include <algorithm>

namespace Agent {
namespace {

using Asic::EntryState;
using Json = nlohmann::ordered_json;

std::string keyText(const Common::AnyKey& key) {
  std::string text;
  Common::appendKey(text, key);
  return text;
}

Waiting::Reason entryReason(const Common::AnyTable& table, const Common::AnyKey& key, bool isFirst,
                            std::string_view what) {
  const std::string text = keyText(key);
  return {"entry",
          {{"table", table.name()},
           {"unit", table.unit().value},
           {"key", Json::parse(text)},
           {"before", isFirst}},
          fmt::format("waits for {}, unit {}, key {}, {}", table.name(), table.unit(), text, what)};
}

Waiting::Reason hardwareReason(const Common::AnyTable& table, std::uint64_t version) {
  const std::uint64_t reported = table.lastCleanedVersion();
  return {"hardware",
          {{"version", version}, {"reported", reported}},
          fmt::format("in the log at version {}, the hardware side has reported {}", version,
                      reported)};
}

Waiting::Reason resourceReason(const Common::MissingResource& missing) {
  std::string key;
  Common::appendKey(key, missing.key());
  return {"resource",
          {{"resource", Common::kResourceNames[missing.resource]},
           {"key", Json::parse(key)},
           {"state", Common::stateText(missing.handle->entryState())}},
          missing.failed() ? fmt::format("{} {}: {}", Common::kResourceNames[missing.resource], key,
                                         missing.text())
                           : missing.text()};
}

}  // namespace

Waiting::Waiting(const Intake& intake) : intake_(intake), lacks_(intake.tables().size()) {}

const std::string& Waiting::lackOfRoom(std::size_t place) {
  auto& lack = lacks_[place];
  if (!lack) {
    lack = intake_.tables()[place]->lackOfRoom(nullptr);
  }
  return *lack;
}

std::vector<Waiting::Reason> Waiting::reasonsOf(const Intake::Slot& slot) {
  const Common::AnyTable& table = *intake_.tables()[slot.place];
  std::vector<Reason> reasons;
  if (slot.handle && slot.handle->entryState() == EntryState::entryStateInLog) {
    reasons.push_back(hardwareReason(table, slot.handle->logVersion().value));
  } else if (const auto version = intake_.versionOfRemoveAll(slot)) {
    reasons.push_back(hardwareReason(table, *version));
  } else if (const std::size_t left = intake_.removesLeft(slot)) {
    reasons.push_back({"removeAll", {{"left", left}}, fmt::format("{} of its removes", left)});
  } else {
    addQueueReasons(slot, reasons);
  }
  if (reasons.empty()) {
    reasons.push_back({"pass", Json::object(), "the agent takes it on at its next turn"});
  }
  return reasons;
}

// Of an operation that is not committed.
void Waiting::addQueueReasons(const Intake::Slot& slot, std::vector<Reason>& reasons) {
  const Common::AnyTable& table = *intake_.tables()[slot.place];
  if (const std::string& lack = lackOfRoom(slot.place); !lack.empty()) {
    reasons.push_back({"room", {{"lack", lack}}, "no room for changes: " + lack});
  }
  if (slot.dependency && slot.dependency->entryState() == EntryState::entryStateUnresolved) {
    const Common::AnyTable& other = *intake_.tables()[slot.dependencyPlace];
    reasons.push_back(
        entryReason(other, other.keyOf(slot.dependency), false, "which `after` names"));
  }
  if (slot.handle && slot.write) {
    for (const Common::MissingResource& one : table.awaitedResources(slot.key, slot.handle)) {
      reasons.push_back(resourceReason(one));
    }
  }
  const auto front = table.front();
  if (!front || (slot.handle && front->handle.get() == slot.handle.get())) {
    return;
  }
  if (!front->isRemoveAll) {
    reasons.push_back(entryReason(table, front->key, true, "which is before it in the queue"));
  } else if (slot.handle) {
    reasons.push_back({"removeAll",
                       {{"table", table.name()}, {"unit", table.unit().value}, {"before", true}},
                       "waits for a removeAll that is before it in the queue"});
  }
}

std::vector<Waiting::Reason> Waiting::reasonsOf(const Retries::Missing& missing) {
  std::vector<Reason> reasons;
  for (const Common::MissingResource& one : missing) {
    reasons.push_back(resourceReason(one));
  }
  return reasons;
}

std::vector<Waiting::Pending> Waiting::oldest(std::size_t most) {
  std::vector<const Intake::Slot*> oldest;
  for (const Intake::Slot& slot : intake_.slots()) {
    if (slot.source) {
      oldest.push_back(&slot);
    }
  }
  const auto end = oldest.begin() + static_cast<std::ptrdiff_t>(std::min(most, oldest.size()));
  std::partial_sort(oldest.begin(), end, oldest.end(),
                    [](const auto* a, const auto* b) { return a->number < b->number; });
  std::vector<Pending> pending;
  for (auto one = oldest.begin(); one != end; ++one) {
    const Intake::Slot& slot = **one;
    const Common::AnyTable& table = *intake_.tables()[slot.place];
    Pending text;
    text.intent = fmt::format("{}:{}: {} {}, unit {}", slot.source->name(), slot.line,
                              name(slot.op), table.name(), table.unit());
    if (slot.op != Common::IntentOp::removeAll) {
      text.intent += ", key " + keyText(slot.key);
    }
    text.reason = reasonsOf(slot).front().text;
    pending.push_back(std::move(text));
  }
  return pending;
}

}  // namespace Agent
