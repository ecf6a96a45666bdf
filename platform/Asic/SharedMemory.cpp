#include "Asic/SharedMemory.h"

#include <cstdlib>

namespace Asic {

Lumen::Ptr<BrioSharedMem::EntityManager> writableSharedMemory(
    const Vault::EntityManager& entityManager) {
  auto manager = BrioSharedMem::EntityManager::getEntityManager(entityManager.name(),
                                                                entityManager.localMode());
  if (std::getenv("NOT_LOCAL_EM") != nullptr) {
    manager = BrioSharedMem::EntityManager::getEntityManager(entityManager.name(), false);
  }
  return manager;
}

}  // namespace Asic
