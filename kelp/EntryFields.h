#pragma once

#include <functional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "common/EntryJson.h"
#include "common/RecordJson.h"

// The fields of any table's entries by the paths that they have in JSON: "key.port",
// "payload.outLif", "resolved.inLif0Index", "resources.vlanEditProfileKey.untagged.outerVlan".

namespace Kelp {

// One field of a Record.
template <class Record>
struct FieldOf {
  using Holds = std::function<bool(const Record&)>;

  std::string path;
  // Whether a record has this value in the field. Throws Common::InputError if no record could.
  std::function<Holds(const Common::Json&)> equals;
};

template <class T>
inline constexpr bool kIsLeaf =
    std::is_integral_v<T> || std::is_enum_v<T> || std::is_same_v<T, Netkit::IntfId>;

// The text of a leaf for people: as in JSON, but without quotes.
template <class T>
void appendPlain(std::string& out, const T& leaf) {
  if constexpr (std::is_integral_v<T>) {
    fmt::format_to(std::back_inserter(out), "{}", leaf);
  } else if constexpr (std::is_enum_v<T>) {
    out += name(leaf);
  } else {
    out += leaf.name();
  }
}

// Adds " path=value" for each leaf of `value`; with `normal`, for those that differ from it.
template <class T>
void appendPairs(std::string& out, const std::string& path, const T& value, const T* normal) {
  const auto inner = [&](std::string_view name) {
    return path.empty() ? std::string(name) : path + "." + std::string(name);
  };
  if constexpr (kIsLeaf<T>) {
    if (normal == nullptr || !(value == *normal)) {
      out += out.empty() ? "" : " ";
      out += path;
      out += '=';
      appendPlain(out, value);
    }
  } else if constexpr (Common::ArrayOf<T>::is) {
    using Element = typename Common::ArrayOf<T>::Element;
    static const Element none{};
    for (std::size_t i = 0; i < T::size(); ++i) {
      if (!(value.elements[i] == none)) {
        appendPairs(out, inner(Common::ArrayOf<T>::nameOf(i)), value.elements[i], &none);
      }
    }
  } else {
    Brio::forEachField<T>([&](const auto& field) {
      using Member = std::remove_cvref_t<decltype(value.*field.member)>;
      // A record of a single field is that field.
      const Member* usual = normal == nullptr ? nullptr : &(normal->*field.member);
      appendPairs(out, Common::kFieldCount<T> == 1 && !path.empty() ? path : inner(field.name),
                  value.*field.member, usual);
    });
  }
}

// Adds the field at `path`, which `get` gets from a record, and all within it.
template <class Record, class T, class Get>
void addFields(std::vector<FieldOf<Record>>& fields, const std::string& path, std::uint64_t most,
               Get get) {
  if constexpr (kIsLeaf<T> || Common::ArrayOf<T>::is) {
    fields.push_back({path, [=](const Common::Json& json) -> typename FieldOf<Record>::Holds {
                        T wanted{};
                        Common::readJson(json, wanted, Common::Place{path}, most);
                        return [=](const Record& record) { return get(record) == wanted; };
                      }});
  }
  if constexpr (Common::ArrayOf<T>::is) {
    using Element = typename Common::ArrayOf<T>::Element;
    for (std::size_t i = 0; i < T::size(); ++i) {
      addFields<Record, Element>(
          fields, path + "." + std::string(Common::ArrayOf<T>::nameOf(i)), 0,
          [=](const Record& record) -> const Element& { return get(record).elements[i]; });
    }
  } else if constexpr (!kIsLeaf<T>) {
    Brio::forEachField<T>([&](const auto& field) {
      using Member = std::remove_cvref_t<decltype(std::declval<T&>().*field.member)>;
      const std::string inner =
          Common::kFieldCount<T> == 1 ? path : path + "." + std::string(field.name);
      addFields<Record, Member>(
          fields, inner, field.most,
          [get, member = field.member](const Record& record) -> const Member& {
            return get(record).*member;
          });
    });
  }
}

// Where the fields of T's log entry stand in JSON.
enum class Part { key, payload, resolved };

// Calls visit(field, part) for each field of T's log entry.
template <KelpEmServer::TableSpec T, class Visit>
void forEachPart(Visit&& visit) {
  std::size_t at = 0;
  Brio::forEachField<typename T::Entry::LogEntry>([&](const auto& field) {
    const bool payload = Common::payloadFields<T>()[at++];
    visit(field, Common::isKeyField(field) ? Part::key : payload ? Part::payload : Part::resolved);
  });
}

// All fields of T's configuration records, the version among them.
template <KelpEmServer::TableSpec T>
[[nodiscard]] std::vector<FieldOf<typename T::ConfigQuilt::Record>> fieldsOf() {
  using Record = typename T::ConfigQuilt::Record;
  std::vector<FieldOf<Record>> fields;
  forEachPart<T>([&](const auto& field, Part part) {
    using LogEntry = typename T::Entry::LogEntry;
    using Member = std::remove_cvref_t<decltype(std::declval<LogEntry&>().*field.member)>;
    const auto get = [member = field.member](const Record& record) -> const Member& {
      return record.entry.logEntry.*member;
    };
    if (part == Part::key && !kIsLeaf<Member>) {
      addFields<Record, Member>(fields, "key", field.most, get);
    } else {
      const char* outer = part == Part::key       ? "key."
                          : part == Part::payload ? "payload."
                                                  : "resolved.";
      addFields<Record, Member>(fields, outer + std::string(field.name), field.most, get);
    }
  });
  if constexpr (Common::kFieldCount<typename T::Entry::ResourceKeys> != 0) {
    using Keys = typename T::Entry::ResourceKeys;
    addFields<Record, Keys>(fields, "resources", 0, [](const Record& record) -> const Keys& {
      return record.entry.rsrcKeys;
    });
  }
  addFields<Record, std::uint64_t>(
      fields, "version", std::numeric_limits<std::uint64_t>::max(),
      [](const Record& record) -> const std::uint64_t& { return record.version.value; });
  return fields;
}

// Adds `,"key":{...}` and, unless T has none, payload and resolved fields in the same way.
template <KelpEmServer::TableSpec T>
void appendLogEntryJson(std::string& out, const typename T::Entry::LogEntry& logEntry) {
  out += R"(,"key":)";
  Common::appendKey<T>(out, logEntry.key);
  for (const Part wanted : {Part::payload, Part::resolved}) {
    bool any = false;
    forEachPart<T>([&](const auto& field, Part part) {
      if (part == wanted) {
        out += any ? "," : wanted == Part::payload ? R"(,"payload":{)" : R"(,"resolved":{)";
        any = true;
        Common::appendString(out, field.name);
        out += ':';
        Common::appendJson(out, logEntry.*field.member);
      }
    });
    out += any ? "}" : "";
  }
}

// Adds the same and `,"resources":{...}`.
template <KelpEmServer::TableSpec T>
void appendEntryJson(std::string& out, const typename T::ConfigQuilt::Record& record) {
  appendLogEntryJson<T>(out, record.entry.logEntry);
  if constexpr (Common::kFieldCount<typename T::Entry::ResourceKeys> != 0) {
    out += R"(,"resources":)";
    Common::appendJson(out, record.entry.rsrcKeys);
  }
}

// "port=3 vlan=100" of one part of a log entry.
template <KelpEmServer::TableSpec T>
[[nodiscard]] std::string pairsOf(const typename T::Entry::LogEntry& logEntry, Part wanted) {
  std::string text;
  forEachPart<T>([&](const auto& field, Part part) {
    using Member = std::remove_cvref_t<decltype(logEntry.*field.member)>;
    if (part == wanted) {
      const bool nested = part == Part::key && !kIsLeaf<Member>;
      appendPairs<Member>(text, nested ? "" : std::string(field.name), logEntry.*field.member,
                          nullptr);
    }
  });
  return text;
}

// "attachmentCircuit=7": the resource keys that are not what they are by default.
template <KelpEmServer::TableSpec T>
[[nodiscard]] std::string resourcePairsOf(const typename T::ConfigQuilt::Record& record) {
  std::string text;
  if constexpr (Common::kFieldCount<typename T::Entry::ResourceKeys> != 0) {
    using Keys = typename T::Entry::ResourceKeys;
    static const Keys none{};
    Brio::forEachField<Keys>([&](const auto& field) {
      using Member = std::remove_cvref_t<decltype(none.*field.member)>;
      appendPairs<Member>(text, Common::kFieldCount<Keys> == 1 ? "" : std::string(field.name),
                          record.entry.rsrcKeys.*field.member, &(none.*field.member));
    });
  }
  return text;
}

}  // namespace Kelp
