#pragma once

#include <array>
#include <string>
#include <type_traits>
#include <utility>

#include "Brio/Fields.h"
#include "KelpEmServer/TableSpec.h"
#include "common/RecordJson.h"
#include "common/Tables.h"

// The three parts of an entry as JSON, for any table:
//
//   key        an object; a plain number stands under the name that the log entry gives it:
//              {"port":3}
//   resources  the resource keys; a table of a single resource has that resource's fields here
//   payload    the fields of the log entry that are neither the key nor filled in from resources
//
// Every function throws InputError for input that does not fit.

namespace Common {

template <class LogEntry, class Member>
[[nodiscard]] constexpr bool isKeyField(const Brio::Field<LogEntry, Member>& field) {
  if constexpr (std::is_same_v<Member, decltype(LogEntry::key)>) {
    return field.member == &LogEntry::key;
  } else {
    return false;
  }
}

// Which fields of the log entry are payload, by position. Those that are filled in from resources
// are told by filling them in: without any resource they become 0.
template <KelpEmServer::TableSpec T>
[[nodiscard]] const auto& payloadFields() {
  using LogEntry = typename T::Entry::LogEntry;
  static const auto payload = [] {
    LogEntry logEntry;
    Brio::forEachField<LogEntry>([&](const auto& field) {
      using Member = std::remove_cvref_t<decltype(logEntry.*field.member)>;
      if constexpr (std::is_integral_v<Member>) {
        logEntry.*field.member = 1;
      }
    });
    const typename T::WrapperResources none{};
    none.setResolvedFields(logEntry);
    std::array<bool, kFieldCount<LogEntry>> is{};
    std::size_t at = 0;
    Brio::forEachField<LogEntry>([&](const auto& field) {
      using Member = std::remove_cvref_t<decltype(logEntry.*field.member)>;
      bool resolved = false;
      if constexpr (std::is_integral_v<Member>) {
        resolved = logEntry.*field.member == 0;
      }
      is[at++] = !isKeyField(field) && !resolved;
    });
    return is;
  }();
  return payload;
}

// Calls `visit` for each payload field of T's log entry.
template <KelpEmServer::TableSpec T, class Visit>
void forEachPayloadField(Visit&& visit) {
  std::size_t at = 0;
  Brio::forEachField<typename T::Entry::LogEntry>([&](const auto& field) {
    if (payloadFields<T>()[at++]) {
      visit(field);
    }
  });
}

// Whether two log entries of one key hold the same but for what resources resolve to.
template <KelpEmServer::TableSpec T>
[[nodiscard]] bool samePayload(const typename T::Entry::LogEntry& a,
                               const typename T::Entry::LogEntry& b) {
  bool same = true;
  forEachPayloadField<T>(
      [&](const auto& field) { same = same && a.*field.member == b.*field.member; });
  return same;
}

// The same for two entries: payload and resource keys.
template <KelpEmServer::TableSpec T>
[[nodiscard]] bool asksForTheSame(const typename T::Entry& a, const typename T::Entry& b) {
  return samePayload<T>(a.logEntry, b.logEntry) && a.rsrcKeys.isEq(b.rsrcKeys);
}

template <KelpEmServer::TableSpec T>
void appendKey(std::string& out, const typename T::Entry::Key& key) {
  using Key = typename T::Entry::Key;
  if constexpr (std::is_integral_v<Key>) {
    Brio::forEachField<typename T::Entry::LogEntry>([&](const auto& field) {
      if (isKeyField(field)) {
        out += '{';
        appendString(out, field.name);
        out += ':';
        appendJson(out, key);
        out += '}';
      }
    });
  } else {
    appendJson(out, key);
  }
}

// Every field of the key must be there.
template <KelpEmServer::TableSpec T>
void readKey(const Json& json, typename T::Entry::Key& key, const Place& place) {
  using Key = typename T::Entry::Key;
  if constexpr (std::is_integral_v<Key>) {
    checkObject(json, place);
    Brio::forEachField<typename T::Entry::LogEntry>([&](const auto& field) {
      if (!isKeyField(field)) {
        return;
      }
      checkNames(json, {field.name}, place);
      const Place inner{field.name, &place};
      const auto found = json.find(field.name);
      if (found == json.end()) {
        failAt(inner, "missing", remedyFor<Key>(field.most));
      }
      readJson(*found, key, inner, field.most);
    });
  } else {
    readFields(json, key, place, Absent::refused);
  }
}

template <KelpEmServer::TableSpec T>
void appendPayload(std::string& out, const typename T::Entry::LogEntry& logEntry) {
  out += '{';
  bool first = true;
  forEachPayloadField<T>([&](const auto& field) {
    out += first ? "" : ",";
    first = false;
    appendString(out, field.name);
    out += ':';
    appendJson(out, logEntry.*field.member);
  });
  out += '}';
}

// A field that is left out keeps its value.
template <KelpEmServer::TableSpec T>
void readPayload(const Json& json, typename T::Entry::LogEntry& logEntry, const Place& place) {
  checkObject(json, place);
  std::vector<std::string_view> names;
  forEachPayloadField<T>([&](const auto& field) { names.push_back(field.name); });
  Brio::forEachField<typename T::Entry::LogEntry>([&](const auto& field) {
    if (json.contains(field.name) &&
        std::find(names.begin(), names.end(), field.name) == names.end()) {
      failAt(Place{field.name, &place}, "no payload",
             isKeyField(field) ? "it belongs in the key"
                               : "leave it out, it is filled in from the resources");
    }
  });
  checkNames(json, names, place);
  forEachPayloadField<T>([&](const auto& field) {
    if (const auto found = json.find(field.name); found != json.end()) {
      readJson(*found, logEntry.*field.member, Place{field.name, &place}, field.most);
    }
  });
}

}  // namespace Common
