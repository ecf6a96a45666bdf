#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "common/Intent.h"

namespace Demo {

struct Plan {
  unsigned units = 2;
  std::size_t intents = 100'000;
  std::uint64_t seed = 1;
};

// The life of a metro-edge switch, as intents: attachment circuits on tagged and untagged ports
// with their cross-connects, pseudowires, what comes out of tunnels, and the encapsulations on the
// way out, with VLAN edits and remark profiles. Services are set up and changed, written again as
// they are, and taken down; what hangs together is ordered with `after`. Late in that life every
// table is emptied at once on one of the units, one table after the other, and partly filled again.
// All tables take part, on all units. The same plan gives the same intents, as many as asked for.
[[nodiscard]] std::vector<Common::Intent> metroEdge(const Plan& plan);

// The VLAN edit that half of all tagged services have.
[[nodiscard]] KelpTunnelNiLib::VlanEditResourceKey commonVlanEdit();
// Writes of `count` encapsulations on unit 0 that no service has, each with a VLAN edit of its own,
// or their removes.
[[nodiscard]] std::vector<Common::Intent> ownVlanEdits(Common::IntentOp op, std::uint32_t count);

}  // namespace Demo
