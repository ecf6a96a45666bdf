#pragma once

#include <fmt/format.h>

#include <compare>
#include <cstdint>

#include "Brio/Hash.h"
#include "Lumen/String.h"

namespace Netkit {

// A network interface as one 64-bit value: kind (8 bits), two port numbers (16 bits each) and a
// sub-interface (24 bits), from the top. The default, and the id of the empty name, is 0.
//
// Names are KIND, NUMBER, optionally /NUMBER, optionally .SUBINTERFACE: "Ethernet3/1.100", "Lag5",
// "Vlan100", "Tunnel7".
struct IntfId {
  std::uint64_t value = 0;

  // The id of a name. Throws std::invalid_argument that says what is wrong with it.
  [[nodiscard]] static IntfId fromName(const Lumen::String& name) {
    IntfId id;
    id.handleInitialized(name);
    return id;
  }
  void handleInitialized(const Lumen::String& name);
  // The name; empty for the default.
  [[nodiscard]] Lumen::String name() const;

  [[nodiscard]] bool isEq(const IntfId& other) const noexcept { return value == other.value; }
  [[nodiscard]] std::uint32_t hash(std::uint32_t seed) const noexcept {
    return Brio::hashSingleAttr(seed, value);
  }
  friend constexpr auto operator<=>(IntfId, IntfId) = default;
};

}  // namespace Netkit

template <>
struct fmt::formatter<Netkit::IntfId> : fmt::formatter<Lumen::String> {
  template <class Context>
  auto format(const Netkit::IntfId& id, Context& context) const {
    return fmt::formatter<Lumen::String>::format(id.name(), context);
  }
};
