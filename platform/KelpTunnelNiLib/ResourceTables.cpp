#include "KelpTunnelNiLib/ResourceTables.h"

#include "BrioSharedMem/EntityType.h"
#include "PactResourceTable/ResourceTableImpl.h"

template class PactResourceTable::ResourceTable<KelpTunnelNiLib::InLifIndexKind>;
template class PactResourceTable::ResourceTable<KelpTunnelNiLib::EveResourceTableKind>;

namespace KelpTunnelNiLib {
namespace {

template <class Kind>
using Registrar =
    BrioSharedMem::EntityTypeRegistrar<PactResourceTable::ResourceQuilt<typename Kind::Key>>;

const Registrar<InLifIndexKind> inLif(InLifIndexKind::quiltTypeName);
const Registrar<EveResourceTableKind> eve(EveResourceTableKind::quiltTypeName);

}  // namespace
}  // namespace KelpTunnelNiLib
