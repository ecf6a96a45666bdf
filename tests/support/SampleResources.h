#pragma once

#include <cstdint>
#include <optional>
#include <type_traits>

#include "KelpEmServer/LinkageKinds.h"
#include "KelpTunnelNiLib/ResourceTableSet.h"

// Resource keys for tests of any linkage, and what the log has of a resource.

namespace TestSupport {

// Different numbers give different keys; 0 gives the one that stands for no resource.
template <class Key>
Key sampleResource(std::uint64_t number) {
  Key key{};
  if (number == 0) {
    return key;
  }
  if constexpr (requires { key.attachmentCircuit; }) {
    key.attachmentCircuit = static_cast<std::uint32_t>(number);
  } else if constexpr (requires { key.intf; }) {
    key.intf.value = 0x0100000000000000 + number;
  } else {
    key.elements[3].outerVlan = static_cast<std::uint16_t>(number);
  }
  return key;
}

// The index of a resource of kind L that a log entry carries, 0 for none; nothing if its fields
// are of two indexes.
template <class L, class LogEntry>
std::optional<std::uint32_t> loggedIndex(const LogEntry& entry) {
  if constexpr (requires { entry.inLif0Index; }) {
    const auto second = [&] {
      if constexpr (requires { entry.inLif1Index; }) {
        return entry.inLif1Index;
      } else {
        return entry.inLif23Index;
      }
    }();
    const bool fits = second % 2 == 0 && entry.inLif0Index == (second == 0 ? 0 : second - 1);
    return fits ? std::optional<std::uint32_t>(second / 2) : std::nullopt;
  } else if constexpr (std::is_same_v<L, KelpEmServer::VlanEditProfileLinkageKind>) {
    return entry.vlanEditProfile;
  } else {
    return entry.remarkProfile;
  }
}

// The resource table of kind L.
template <class L>
typename L::ResourceTable& resourceTableOf(const KelpTunnelNiLib::ResourceTableSet& tables) {
  if constexpr (std::is_same_v<L, KelpEmServer::InLifIndexLinkageKind>) {
    return *tables.inLifIndex;
  } else if constexpr (std::is_same_v<L, KelpEmServer::VlanEditProfileLinkageKind>) {
    return *tables.vlanEditProfile;
  } else {
    return *tables.remarkProfile;
  }
}

// The linkage of kind L of a table.
template <class L, class Table>
const auto& linkageOf(const Table& table) {
  if constexpr (std::is_same_v<L, KelpEmServer::InLifIndexLinkageKind>) {
    return table.inLifIndexLinkage();
  } else if constexpr (std::is_same_v<L, KelpEmServer::VlanEditProfileLinkageKind>) {
    return table.vlanEditProfileLinkage();
  } else {
    return table.remarkProfileLinkage();
  }
}

}  // namespace TestSupport
