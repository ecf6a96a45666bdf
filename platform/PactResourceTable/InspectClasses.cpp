#include "PactResourceTable/InspectClasses.h"

#include "Brio/TypeModule.h"
#include "PactResourceTable/ResourceHandle.h"
#include "PactResourceTable/TableCore.h"

namespace PactResourceTable {

extern "C" constinit const Brio::TypeModule
    _PactResourceTableInspectClasses_a1755594c27e1bab_brioModule =
        Brio::TypeModuleOf<"PactResourceTable::", ResourceHandle, TableCore>::module();
static_assert(kInspectModule.view() ==
              "_PactResourceTableInspectClasses_a1755594c27e1bab_brioModule");
static const Lumen::ModuleInspectData::Loaded inspectClassesLoaded =
    _PactResourceTableInspectClasses_a1755594c27e1bab_brioModule.loaded(
        "_PactResourceTableInspectClasses_a1755594c27e1bab_brioModule");

}  // namespace PactResourceTable
