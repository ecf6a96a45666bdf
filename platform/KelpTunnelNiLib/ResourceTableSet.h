#pragma once

#include "Asic/OrderedTableInterface.h"
#include "KelpQos/EgressRemarkProfileResourceTable.h"
#include "KelpTunnelNiLib/ResourceTables.h"
#include "Lumen/Ptr.h"

namespace KelpTunnelNiLib {

// Calls visit(ResourceKindTag<Kind>) for each kind of resource table.
template <class Kind>
struct ResourceKindTag {
  using type = Kind;
};
template <class Visit>
constexpr void forEachResourceKind(Visit&& visit) {
  visit(ResourceKindTag<InLifIndexKind>{});
  visit(ResourceKindTag<EveResourceTableKind>{});
  visit(ResourceKindTag<KelpQos::EgressRemarkProfileKind>{});
}

// The resource tables that the tables of an agent ask, made together: they must be there before the
// first software table is.
struct ResourceTableSet {
  Lumen::Ptr<InLifIndexResourceTable> inLifIndex;
  Lumen::Ptr<EveResourceTableResourceTable> vlanEditProfile;
  Lumen::Ptr<KelpQos::EgressRemarkProfileResourceTable> remarkProfile;

  // Makes them over what an earlier run left, and enters them in the agent. Throws
  // BrioSharedMem::StoreError.
  [[nodiscard]] static ResourceTableSet make(const Lumen::Ptr<Asic::OrderedTableInterface>& agent);

  // Calls visit(table) for each; null ones are passed over.
  template <class Visit>
  void forEach(Visit&& visit) const {
    if (inLifIndex) {
      visit(*inLifIndex);
    }
    if (vlanEditProfile) {
      visit(*vlanEditProfile);
    }
    if (remarkProfile) {
      visit(*remarkProfile);
    }
  }
  // What the tables of the same name do, for all. True if anything has moved.
  bool work() const {
    bool moved = false;
    forEach([&](auto& table) { moved = table.work() || moved; });
    return moved;
  }
  void replayComplete() const {
    forEach([](auto& table) { table.replayComplete(); });
  }
};

}  // namespace KelpTunnelNiLib
