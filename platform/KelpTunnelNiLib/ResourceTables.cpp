#include "KelpTunnelNiLib/ResourceTables.h"

#include "BrioSharedMem/EntityType.h"
#include "PactResourceTable/ResourceTableImpl.h"

template class PactResourceTable::ResourceTable<KelpTunnelNiLib::InLifIndexSpec>;
template class PactResourceTable::ResourceTable<KelpTunnelNiLib::EveResourceTableSpec>;

namespace KelpTunnelNiLib {
namespace {

template <class Spec>
using Registrar =
    BrioSharedMem::EntityTypeRegistrar<PactResourceTable::ResourceQuilt<typename Spec::Key>>;

const Registrar<InLifIndexSpec> inLif(InLifIndexSpec::quiltTypeName);
const Registrar<EveResourceTableSpec> eve(EveResourceTableSpec::quiltTypeName);

}  // namespace
}  // namespace KelpTunnelNiLib
