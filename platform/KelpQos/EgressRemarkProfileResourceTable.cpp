#include "KelpQos/EgressRemarkProfileResourceTable.h"

#include "BrioSharedMem/EntityType.h"
#include "PactResourceTable/ResourceTableImpl.h"

template class PactResourceTable::ResourceTable<KelpQos::EgressRemarkProfileSpec>;

namespace KelpQos {
namespace {

const BrioSharedMem::EntityTypeRegistrar<
    PactResourceTable::ResourceQuilt<EgressRemarkProfileSpec::Key>>
    remark(EgressRemarkProfileSpec::quiltTypeName);

}  // namespace
}  // namespace KelpQos
