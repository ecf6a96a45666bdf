#include "KelpEmServer/MountQuilt.h"

#include "Asic/GenId.h"
#include "Brio/TraceHandle.h"
#include "Lumen/Trace.h"
#include "Vault/Store.h"

namespace KelpEmServer {
namespace {

const Brio::TraceHandle& _defaultTraceHandle() {
  static const Brio::TraceHandle handle("MountQuilt", false);
  return handle;
}

}  // namespace

void raiseRelaunchGeneration(const Vault::EntityManager& entityManager,
                             const Lumen::String& agentName) {
  try {
    if (const auto relaunch =
            Lumen::dynamicPtrCast<Asic::GenId>(entityManager.getEntity(relaunchPath(agentName)))) {
      relaunch->majorIdInc(1);
    }
  } catch (const Vault::VaultError& error) {
    LUMEN_TRACE(_defaultTraceHandle(), 1, "", "The relaunch generation was not raised: {}",
                error.what());
  }
}

}  // namespace KelpEmServer
