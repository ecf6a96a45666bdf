#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Asic/UnitId.h"
#include "common/Json.h"
#include "common/Tables.h"

namespace Common {

// Chip units that an agent may have, from unit 0 on.
inline constexpr unsigned kMostUnits = 1024;

enum class IntentOp : std::uint8_t { write, remove, removeAll };

// "write", "remove" or "removeAll".
[[nodiscard]] std::string_view name(IntentOp op) noexcept;

// An entry by what names it.
struct EntryName {
  Asic::UnitId unit;
  AnyKey key;

  [[nodiscard]] std::size_t table() const noexcept { return key.index(); }
};

// What a feature wants of one table of one unit. docs/intents.md tells how it is written:
//
//   {"op":"write","table":"Isem1Tag","unit":0,"key":{"port":3,"vlan":100},
//    "resources":{"attachmentCircuit":7},
//    "after":{"table":"LemVpwsAc","unit":0,"key":{...}}}
//   {"op":"remove","table":"EsemFodo","unit":0,"key":{"fodo":5}}
//   {"op":"removeAll","table":"IsemMpls","unit":1}
struct Intent {
  IntentOp op = IntentOp::write;
  Asic::UnitId unit;
  AnyEntry entry;                  // of a remove only the key counts, of a remove-all nothing
  std::optional<EntryName> after;  // the entry that must be in the log first

  [[nodiscard]] std::size_t table() const noexcept { return entry.index(); }
};

// Whether a line holds no intent: only blanks, or a comment that begins with '#'.
[[nodiscard]] bool isBlankOrComment(std::string_view line) noexcept;

// Reads one line. Throws InputError: what is wrong, and what to write instead. An entry that equals
// its table's default entry is refused, for such an entry means that there is none.
[[nodiscard]] Intent parseIntent(std::string_view line);

// Adds an intent as a line without its end. What was added reads back as the same intent.
void appendIntent(std::string& out, const Intent& intent);

// Adds a key in the form that intents have: {"port":3,"vlan":100}.
void appendKey(std::string& out, const AnyKey& key);
// The key of an entry.
[[nodiscard]] AnyKey keyOf(const AnyEntry& entry);

}  // namespace Common
