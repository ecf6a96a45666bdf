#include "KelpTunnelNiLib/InspectClasses.h"

#include "Brio/TypeModule.h"
#include "KelpTunnelNiLib/ResourceTables.h"
#include "KelpTunnelNiLib/TableBases.h"

namespace KelpTunnelNiLib {

extern "C" constinit const Brio::TypeModule
    _KelpTunnelNiLibInspectClasses_b78f08f2009a8809_brioModule = Brio::TypeModuleOf<
        "KelpTunnelNiLib::", EsemFodoSwTableBase, EsemFodoSwTableBase::EntryHandle,
        EsemFodoSwTableIteratorState, EsemFodoVdSwTableBase, EsemFodoVdSwTableBase::EntryHandle,
        EsemFodoVdSwTableIteratorState, Isem1TagSwTableBase, Isem1TagSwTableBase::EntryHandle,
        Isem1TagSwTableIteratorState, Isem2TagSwTableBase, Isem2TagSwTableBase::EntryHandle,
        Isem2TagSwTableIteratorState, IsemInnerEthSwTableBase, IsemInnerEthSwTableBase::EntryHandle,
        IsemInnerEthSwTableIteratorState, IsemMplsSwTableBase, IsemMplsSwTableBase::EntryHandle,
        IsemMplsSwTableIteratorState, IsemUntaggedSwTableBase, IsemUntaggedSwTableBase::EntryHandle,
        IsemUntaggedSwTableIteratorState, LemVpwsAcSwTableBase, LemVpwsAcSwTableBase::EntryHandle,
        LemVpwsAcSwTableIteratorState, InLifIndexResourceHandle, VlanEditProfileResourceHandle,
        InLifIndexResourceTable, InLifIndexResourceTable::ClientInstance,
        InLifIndexResourceTable::Resource, EveResourceTableResourceTable,
        EveResourceTableResourceTable::ClientInstance,
        EveResourceTableResourceTable::Resource>::module();
static_assert(kInspectModule.view() ==
              "_KelpTunnelNiLibInspectClasses_b78f08f2009a8809_brioModule");
static const Lumen::ModuleInspectData::Loaded inspectClassesLoaded =
    _KelpTunnelNiLibInspectClasses_b78f08f2009a8809_brioModule.loaded(
        "_KelpTunnelNiLibInspectClasses_b78f08f2009a8809_brioModule");

}  // namespace KelpTunnelNiLib
