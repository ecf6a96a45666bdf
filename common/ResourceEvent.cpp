#include "common/ResourceEvent.h"

#include <fmt/format.h>

#include <algorithm>

#include "common/RecordJson.h"

namespace Common {
namespace {

constexpr std::string_view kOp = "resource";
const std::vector<std::string_view> kEventNames = {"change",  "refuse",  "allow",
                                                   "prepare", "confirm", "ready"};
const std::vector<std::string_view> kMembers = {"op", "resource", "key", "event"};

// The number of the name that stands in `member`.
std::size_t readChoice(const Json& json, std::string_view member,
                       const std::vector<std::string_view>& names) {
  const std::string remedy = "write " + choiceText(names);
  const auto value = json.find(member);
  if (value == json.end()) {
    failAt(Place{member}, "missing", remedy);
  }
  for (std::size_t i = 0; i < names.size(); ++i) {
    if (*value == names[i]) {
      return i;
    }
  }
  failValue(Place{member}, *value, remedy);
}

template <class Key>
std::string_view keyExample() {
  if constexpr (std::is_same_v<Key, KelpTunnelNiLib::InLifIndexKind::Key>) {
    return R"(write an object such as {"attachmentCircuit":7})";
  } else if constexpr (std::is_same_v<Key, KelpQos::EgressRemarkProfileKind::Key>) {
    return R"(write an interface name such as "Ethernet3/1.100")";
  } else {
    return R"(write an object such as {"untagged":{"outerAction":"push","outerVlan":100}})";
  }
}

template <class Key>
Key readResourceKey(const Json& json) {
  const Place place{"key"};
  const auto value = json.find("key");
  if (value == json.end()) {
    failAt(place, "missing", keyExample<Key>());
  }
  Key key{};
  readJson(*value, key, place, 0);
  if (key.isEq(Key{})) {
    failAt(place, "the key that names no resource", keyExample<Key>());
  }
  return key;
}

}  // namespace

std::string_view name(ResourceEventKind kind) noexcept {
  return kEventNames[static_cast<std::size_t>(kind)];
}

AnyResourceKey readResource(const Json& json) {
  AnyResourceKey key;
  withResourceKind(readChoice(json, "resource", {kResourceNames.begin(), kResourceNames.end()}),
                   [&](auto tag) {
                     using Kind = typename decltype(tag)::type;
                     key.emplace<resourceNumber<Kind>()>(readResourceKey<typename Kind::Key>(json));
                   });
  return key;
}

bool isResourceEvent(std::string_view line) {
  // Nearly every line is an intent, and parsed as one later. A letter may be written as an escape.
  if (line.find("\"resource\"") == std::string_view::npos &&
      line.find('\\') == std::string_view::npos) {
    return false;
  }
  const Json json = parseLine(line);
  const auto op = json.find("op");
  return op != json.end() && *op == kOp;
}

ResourceEvent parseResourceEvent(std::string_view line) {
  const Json json = parseLine(line);
  for (const auto& [memberName, value] : json.items()) {
    if (std::find(kMembers.begin(), kMembers.end(), memberName) == kMembers.end()) {
      throw InputError(
          fmt::format("\"{}\" is no part of an event of a resource, which has {}: leave it out",
                      memberName, listText(kMembers)));
    }
  }
  ResourceEvent event;
  event.key = readResource(json);
  event.kind = static_cast<ResourceEventKind>(readChoice(json, "event", kEventNames));
  return event;
}

}  // namespace Common
