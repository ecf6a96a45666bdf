#include "common/Intent.h"

#include <fmt/format.h>

#include <initializer_list>

#include "common/EntryJson.h"

namespace Common {
namespace {

constexpr std::uint64_t kMostUnit = 0xffff;
const std::vector<std::string_view> kOpNames = {"write", "remove", "removeAll"};

const Json& member(const Json& json, const Place* outer, std::string_view name,
                   std::string_view remedy) {
  const auto found = json.find(name);
  if (found == json.end()) {
    failAt(Place{name, outer}, "missing", remedy);
  }
  return *found;
}

IntentOp readOp(const Json& json) {
  const std::string remedy = R"(write "write", "remove", "removeAll" or "resource")";
  const Json& value = member(json, nullptr, "op", remedy);
  for (std::size_t i = 0; i < kOpNames.size(); ++i) {
    if (value == kOpNames[i]) {
      return static_cast<IntentOp>(i);
    }
  }
  failValue(Place{"op"}, value, remedy);
}

std::size_t readTable(const Json& json, const Place* outer) {
  const std::string remedy = "write " + choiceText(tableNames());
  const Json& value = member(json, outer, "table", remedy);
  if (value.is_string()) {
    if (const auto table = findTable(value.get_ref<const std::string&>())) {
      return *table;
    }
  }
  failValue(Place{"table", outer}, value, remedy);
}

Asic::UnitId readUnit(const Json& json, const Place* outer) {
  const Json& value = member(json, outer, "unit", "write the number of a chip unit, such as 0");
  return Asic::UnitId{
      static_cast<std::uint16_t>(readNumber(value, Place{"unit", outer}, kMostUnit))};
}

template <KelpEmServer::TableSpec T>
std::string keyRemedy() {
  std::string example = "write an object such as ";
  appendKey<T>(example, typename T::Entry::Key{});
  return example;
}

EntryName readAfter(const Json& json) {
  const Place place{"after"};
  checkObject(json, place);
  checkNames(json, {"table", "unit", "key"}, place);
  const std::size_t table = readTable(json, &place);
  EntryName name;
  name.unit = readUnit(json, &place);
  withTable(table, [&](auto tag) {
    using T = typename decltype(tag)::Table;
    KeyOf<T> of;
    const Json& key = member(json, &place, "key", keyRemedy<T>());
    readKey<T>(key, of.key, Place{"key", &place});
    name.key = of;
  });
  return name;
}

template <KelpEmServer::TableSpec T>
void readWrite(const Json& json, typename T::Entry& entry) {
  if (const auto resources = json.find("resources"); resources != json.end()) {
    const Place place{"resources"};
    if constexpr (kFieldCount<typename T::Entry::ResourceKeys> == 0) {
      checkObject(*resources, place);
      if (!resources->empty()) {
        failAt(place, "not empty",
               fmt::format("leave it out, {} names no resources", T::name.view()));
      }
    } else {
      readJson(*resources, entry.rsrcKeys, place, 0);
    }
  }
  if (const auto payload = json.find("payload"); payload != json.end()) {
    readPayload<T>(*payload, entry.logEntry, Place{"payload"});
  }
  // The tables would take it, and every reader would take it for an entry that is not there.
  if (entry.isEq(typename T::Entry())) {
    throw InputError(
        fmt::format("the entry equals the default entry of {}, which means that there is none: "
                    "give it another value, or remove the key",
                    T::name.view()));
  }
}

template <KelpEmServer::TableSpec T>
void readEntry(const Json& json, IntentOp op, typename T::Entry& entry) {
  if (op == IntentOp::removeAll) {
    return;
  }
  const Json& key = member(json, nullptr, "key", keyRemedy<T>());
  readKey<T>(key, entry.logEntry.key, Place{"key"});
  if (op == IntentOp::write) {
    readWrite<T>(json, entry);
  }
}

// What may stand in an intent, by its operation.
const std::vector<std::string_view>& membersOf(IntentOp op) {
  static const std::vector<std::string_view> members[] = {
      {"op", "table", "unit", "key", "resources", "payload", "after"},
      {"op", "table", "unit", "key", "after"},
      {"op", "table", "unit", "after"}};
  return members[static_cast<std::size_t>(op)];
}

void checkMembers(const Json& json, IntentOp op) {
  const auto& allowed = membersOf(op);
  for (const auto& [memberName, value] : json.items()) {
    if (std::find(allowed.begin(), allowed.end(), memberName) == allowed.end()) {
      throw InputError(fmt::format("\"{}\" is no part of a {}, which has {}: leave it out",
                                   memberName, name(op), listText(allowed)));
    }
  }
}

}  // namespace

std::string_view name(IntentOp op) noexcept { return kOpNames[static_cast<std::size_t>(op)]; }

bool isBlankOrComment(std::string_view line) noexcept {
  const std::size_t first = line.find_first_not_of(" \t\r");
  return first == std::string_view::npos || line[first] == '#';
}

Intent parseIntent(std::string_view line) {
  // The operation first: it says what else may stand in the line, so that a misspelt name is said
  // to be one before something else is said to be missing.
  const Json json = parseLine(line);
  Intent intent;
  intent.op = readOp(json);
  checkMembers(json, intent.op);
  const std::size_t table = readTable(json, nullptr);
  intent.unit = readUnit(json, nullptr);
  withTable(table, [&](auto tag) {
    using T = typename decltype(tag)::Table;
    readEntry<T>(json, intent.op, intent.entry.emplace<EntryOf<T>>().entry);
  });
  if (const auto after = json.find("after"); after != json.end()) {
    intent.after = readAfter(*after);
  }
  return intent;
}

void appendIntent(std::string& out, const Intent& intent) {
  fmt::format_to(std::back_inserter(out), R"({{"op":"{}","table":"{}","unit":{})", name(intent.op),
                 tableName(intent.table()), intent.unit.value);
  std::visit(
      [&](const auto& of) {
        using T = typename std::decay_t<decltype(of)>::Table;
        if (intent.op == IntentOp::removeAll) {
          return;
        }
        out += ",\"key\":";
        appendKey<T>(out, of.entry.logEntry.key);
        if (intent.op != IntentOp::write) {
          return;
        }
        if constexpr (kFieldCount<typename T::Entry::ResourceKeys> != 0) {
          out += ",\"resources\":";
          appendJson(out, of.entry.rsrcKeys);
        }
        const auto& payload = payloadFields<T>();
        if (std::find(payload.begin(), payload.end(), true) != payload.end()) {
          out += ",\"payload\":";
          appendPayload<T>(out, of.entry.logEntry);
        }
      },
      intent.entry);
  if (intent.after) {
    fmt::format_to(std::back_inserter(out), R"(,"after":{{"table":"{}","unit":{},"key":)",
                   tableName(intent.after->table()), intent.after->unit.value);
    appendKey(out, intent.after->key);
    out += '}';
  }
  out += '}';
}

void appendKey(std::string& out, const AnyKey& key) {
  std::visit(
      [&](const auto& of) { appendKey<typename std::decay_t<decltype(of)>::Table>(out, of.key); },
      key);
}

AnyKey keyOf(const AnyEntry& entry) {
  return std::visit(
      [](const auto& of) -> AnyKey {
        using T = typename std::decay_t<decltype(of)>::Table;
        return KeyOf<T>{of.entry.logEntry.key};
      },
      entry);
}

}  // namespace Common
