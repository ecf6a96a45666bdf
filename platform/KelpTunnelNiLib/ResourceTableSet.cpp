#include "KelpTunnelNiLib/ResourceTableSet.h"

namespace KelpTunnelNiLib {

ResourceTableSet ResourceTableSet::make(const Lumen::Ptr<Asic::OrderedTableInterface>& agent) {
  ResourceTableSet made;
  made.inLifIndex = Lumen::makeNode<InLifIndexResourceTable>(agent);
  made.vlanEditProfile = Lumen::makeNode<EveResourceTableResourceTable>(agent);
  made.remarkProfile = Lumen::makeNode<KelpQos::EgressRemarkProfileResourceTable>(agent);
  agent->resourceTableIs(made.inLifIndex);
  agent->resourceTableIs(made.vlanEditProfile);
  agent->resourceTableIs(made.remarkProfile);
  return made;
}

}  // namespace KelpTunnelNiLib
