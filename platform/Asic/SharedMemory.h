#pragma once

#include "BrioSharedMem/EntityManager.h"
#include "Lumen/Ptr.h"
#include "Vault/EntityManager.h"

namespace Asic {

// The manager of the shared-memory collections that belong to a state database: the one of its name
// and mode. The environment variable NOT_LOCAL_EM, set to anything, forbids the local mode.
[[nodiscard]] Lumen::Ptr<BrioSharedMem::EntityManager> writableSharedMemory(
    const Vault::EntityManager& entityManager);

}  // namespace Asic
