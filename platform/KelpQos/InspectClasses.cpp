#include "KelpQos/InspectClasses.h"

#include "Brio/TypeModule.h"
#include "KelpQos/EgressRemarkProfileResourceTable.h"

namespace KelpQos {

using RemarkHandle = EgressRemarkProfileResourceTable::ResourceHandle;

extern "C" constinit const Brio::TypeModule _KelpQosInspectClasses_d0055ad54cc08f2e_brioModule =
    Brio::TypeModuleOf<"KelpQos::", RemarkHandle, EgressRemarkProfileResourceTable,
                       EgressRemarkProfileResourceTable::ClientInstance,
                       EgressRemarkProfileResourceTable::Resource>::module();
static_assert(kInspectModule.view() == "_KelpQosInspectClasses_d0055ad54cc08f2e_brioModule");
static const Lumen::ModuleInspectData::Loaded inspectClassesLoaded =
    _KelpQosInspectClasses_d0055ad54cc08f2e_brioModule.loaded(
        "_KelpQosInspectClasses_d0055ad54cc08f2e_brioModule");

}  // namespace KelpQos
