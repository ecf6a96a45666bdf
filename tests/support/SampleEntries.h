#pragma once

#include <cstdint>
#include <type_traits>

#include "Brio/Fields.h"
#include "KelpTunnelNiLib/TableQuilts.h"

// Keys and entries for tests of any table: different numbers give different ones.

namespace TestSupport {

// Spreads `number` over the integer fields of a value, the first field fastest.
template <class Value>
void spread(Value& value, std::uint64_t number) {
  Brio::forEachField<Value>([&](const auto& field) {
    using Member = std::remove_reference_t<decltype(value.*field.member)>;
    if constexpr (std::is_integral_v<Member>) {
      const std::uint64_t values = field.most + 1;  // 0 stands for all of 64 bits
      value.*field.member = static_cast<Member>(values == 0 ? number : number % values);
      number = values == 0 ? 0 : number / values;
    }
  });
}

// Keys 0 to 4094 (and far more on most tables) are different, and none is the default key.
template <class Key>
Key sampleKey(std::uint64_t number) {
  Key key{};
  if constexpr (std::is_integral_v<Key>) {
    key = static_cast<Key>(number + 1);
  } else {
    spread(key, number + 1);
  }
  return key;
}

// An entry of the given key. `variant` tells entries of one key apart: by their resource keys where
// the table has some, else by their payload.
template <class Entry>
Entry sampleEntry(const typename Entry::Key& key, std::uint64_t variant) {
  Entry entry;
  entry.logEntry.key = key;
  if constexpr (requires { entry.rsrcKeys.inLifIdxKey; }) {
    entry.rsrcKeys.inLifIdxKey.attachmentCircuit = static_cast<std::uint32_t>(variant + 1);
  } else if constexpr (requires { entry.rsrcKeys.remarkProfileType; }) {
    // There are few profiles.
    entry.rsrcKeys.remarkProfileKey.intf.value = 0x0100000000000000 + variant % 100;
    entry.logEntry.outLif = static_cast<std::uint32_t>(variant + 7);
  } else if constexpr (requires { entry.logEntry.outLif; }) {
    entry.logEntry.outLif = static_cast<decltype(entry.logEntry.outLif)>(variant + 1);
  } else {
    entry.logEntry.inLif = static_cast<std::uint32_t>(variant + 1);
  }
  return entry;
}

// A log entry that was asked for, with what the resources of another have resolved to.
template <class LogEntry>
LogEntry resolvedAs(LogEntry asked, const LogEntry& has) {
  if constexpr (requires { asked.inLif0Index; }) {
    asked.inLif0Index = has.inLif0Index;
  }
  if constexpr (requires { asked.inLif1Index; }) {
    asked.inLif1Index = has.inLif1Index;
  }
  if constexpr (requires { asked.inLif23Index; }) {
    asked.inLif23Index = has.inLif23Index;
  }
  if constexpr (requires { asked.vlanEditProfile; }) {
    asked.vlanEditProfile = has.vlanEditProfile;
    asked.remarkProfile = has.remarkProfile;
  }
  return asked;
}

// Whether an entry, or a log entry, is what was asked for, whatever its resources resolve to.
template <class Entry>
bool isAsked(const Entry& has, const Entry& asked) {
  if constexpr (requires { has.logEntry; }) {
    return isAsked(has.logEntry, asked.logEntry) && has.rsrcKeys.isEq(asked.rsrcKeys);
  } else {
    return has.isEq(resolvedAs(asked, has));
  }
}

}  // namespace TestSupport
