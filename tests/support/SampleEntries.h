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
    entry.rsrcKeys.remarkProfileKey.intf.value = 0x0100000000000000 + variant;
    entry.logEntry.outLif = static_cast<std::uint32_t>(variant + 7);
  } else if constexpr (requires { entry.logEntry.outLif; }) {
    entry.logEntry.outLif = static_cast<decltype(entry.logEntry.outLif)>(variant + 1);
  } else {
    entry.logEntry.inLif = static_cast<std::uint32_t>(variant + 1);
  }
  return entry;
}

}  // namespace TestSupport
