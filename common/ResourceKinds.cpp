#include "common/ResourceKinds.h"

#include <fmt/format.h>

#include "common/RecordJson.h"

namespace Common {

void appendKey(std::string& out, const AnyResourceKey& key) {
  std::visit([&](const auto& of) { appendJson(out, of); }, key);
}

std::string_view stateText(Asic::EntryState state) noexcept {
  switch (state) {
    case Asic::EntryState::entryStateUnresolved:
      return "being prepared";
    case Asic::EntryState::entryStateInLog:
      return "being confirmed";
    case Asic::EntryState::entryStateSuccess:
      return "given out";
    case Asic::EntryState::entryStateFailed3:
      return "refused";
    case Asic::EntryState::entryStateFailed:
      return "no room";
    case Asic::EntryState::entryStateFailed6:
      return "late";
    case Asic::EntryState::entryStateReserved:
      break;
  }
  return "unknown";
}

AnyResourceKey MissingResource::key() const {
  AnyResourceKey key;
  withResourceKind(resource, [&](auto tag) {
    using Kind = typename decltype(tag)::type;
    using Handle =
        PactResourceTable::TypedResourceHandle<typename Kind::Key, typename Kind::Results>;
    key.emplace<resourceNumber<Kind>()>(static_cast<const Handle&>(*handle).key());
  });
  return key;
}

std::string MissingResource::text() const {
  const std::string_view name = kResourceNames[resource];
  switch (handle->entryState()) {
    case Asic::EntryState::entryStateFailed3:
      return fmt::format("{} is refused", name);
    case Asic::EntryState::entryStateFailed:
      return exhausted ? fmt::format("no {} is free", name)
                       : fmt::format(
                             "no {} is to be had: others wait for one first, or the store "
                             "has no room for its use",
                             name);
    case Asic::EntryState::entryStateFailed6:
      return fmt::format("{} was not ready in time", name);
    case Asic::EntryState::entryStateSuccess:
    case Asic::EntryState::entryStateReserved:
      return fmt::format("{} is there", name);
    case Asic::EntryState::entryStateUnresolved:
    case Asic::EntryState::entryStateInLog:
      break;
  }
  std::string text;
  appendKey(text, key());
  return fmt::format("waits for {} {}: {}", name, text, stateText(handle->entryState()));
}

}  // namespace Common
