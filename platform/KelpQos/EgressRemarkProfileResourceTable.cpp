#include "KelpQos/EgressRemarkProfileResourceTable.h"

#include "BrioSharedMem/EntityType.h"
#include "PactResourceTable/ResourceTableImpl.h"

template class PactResourceTable::ResourceTable<KelpQos::EgressRemarkProfileKind>;

namespace KelpQos {
namespace {

const BrioSharedMem::EntityTypeRegistrar<
    PactResourceTable::ResourceQuilt<EgressRemarkProfileKind::Key>>
    remark(EgressRemarkProfileKind::quiltTypeName);

}  // namespace
}  // namespace KelpQos
