#include "BrioSharedMem/MountGroup.h"

#include "BrioSharedMem/EntityManager.h"

namespace BrioSharedMem {

MountGroup::MountGroup(Lumen::Ptr<EntityManager> manager) : manager_(std::move(manager)) {}

MountGroup::~MountGroup() = default;

Lumen::Ptr<Mount> MountGroup::mount(const Lumen::String& path, const Lumen::String& typeName,
                                    const BrioQuilt::MountInfo& info) {
  return mounts_.emplace_back(Lumen::makeNode<Mount>(path, typeName, info));
}

void MountGroup::doClose() {
  const std::vector<Lumen::Ptr<Mount>> mounts = std::exchange(mounts_, {});
  manager_->entitiesMount(mounts);
}

}  // namespace BrioSharedMem
