#pragma once

#include <functional>

#include "Asic/SharedMemory.h"
#include "BrioQuilt/CollectionControl.h"
#include "BrioQuilt/MountInfo.h"
#include "BrioSharedMem/EntityManager.h"
#include "Lumen/Ptr.h"
#include "Lumen/String.h"
#include "Vault/EntityManager.h"

namespace KelpEmServer {

// Where the relaunch generation of an agent is kept.
[[nodiscard]] inline Lumen::String relaunchPath(const Lumen::String& agentName) {
  return "hardware/tinsel/agent/relaunch/config/" + agentName;
}

// Raises the relaunch generation of an agent by one; nothing if it has none. A state database that
// can't be read or written is told at trace level 1 and holds up nobody: the report of what was
// lost is worth more than the hint to the hardware side.
void raiseRelaunchGeneration(const Vault::EntityManager& entityManager,
                             const Lumen::String& agentName);

// Mounts a collection of the manager for writing, or finds it mounted. Null if the entity is not a
// T. Throws BrioSharedMem::StoreError if it can't be mounted.
template <class T>
[[nodiscard]] Lumen::Ptr<T> mountQuilt(
    const Lumen::Ptr<BrioSharedMem::EntityManager>& manager, const Lumen::String& typeName,
    const Lumen::String& path, const std::function<void(BrioQuilt::MountInfo&)>& mountInfoFiller) {
  const auto mountGroup = manager->getMountGroup();
  BrioQuilt::MountInfo mountInfo(BrioQuilt::BrioQuiltType::collection);
  mountInfoFiller(mountInfo);
  (void)mountGroup->mount(path, typeName, mountInfo);
  mountGroup->doClose();
  return Lumen::dynamicPtrCast<T>(manager->getEntity(path));
}

// Mounts a collection for writing. `mountInfoFiller` declares it, `controlGetter` yields the
// control block of the mounted entity. A collection whose former content was lost is reported
// through `wipedHandler`, and raises the agent's relaunch generation by one. Null if the entity is
// not a T. Throws BrioSharedMem::StoreError if it can't be mounted.
template <class T>
[[nodiscard]] Lumen::Ptr<T> checkAndwriteMountQuilt(
    const Lumen::Ptr<Vault::EntityManager>& entityManager, const Lumen::String& typeName,
    const Lumen::String& path, const Lumen::String& agentName,
    const std::function<void(BrioQuilt::MountInfo&)>& mountInfoFiller,
    const std::function<Lumen::Ptr<BrioQuilt::CollectionControl>(Lumen::Ptr<T>&)>& controlGetter,
    const std::function<void()>& wipedHandler) {
  Lumen::Ptr<T> quilt =
      mountQuilt<T>(Asic::writableSharedMemory(*entityManager), typeName, path, mountInfoFiller);
  if (!quilt) {
    return quilt;
  }
  const Lumen::Ptr<BrioQuilt::CollectionControl> control = controlGetter(quilt);
  if (control->wiped()) {
    wipedHandler();
    raiseRelaunchGeneration(*entityManager, agentName);
    control->clearWiped();
  }
  return quilt;
}

}  // namespace KelpEmServer
