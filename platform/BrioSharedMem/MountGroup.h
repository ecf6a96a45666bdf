#pragma once

#include <utility>
#include <vector>

#include "BrioQuilt/MountInfo.h"
#include "Lumen/Node.h"
#include "Lumen/Ptr.h"
#include "Lumen/String.h"

namespace BrioSharedMem {

class EntityManager;

// One mount that a group was asked for. Need not be kept.
class Mount final : public Lumen::Node {
 public:
  Mount(Lumen::String path, Lumen::String typeName, BrioQuilt::MountInfo info)
      : path_(std::move(path)), typeName_(std::move(typeName)), info_(std::move(info)) {}

  [[nodiscard]] const Lumen::String& path() const noexcept { return path_; }
  [[nodiscard]] const Lumen::String& typeName() const noexcept { return typeName_; }
  [[nodiscard]] const BrioQuilt::MountInfo& info() const noexcept { return info_; }

 private:
  Lumen::String path_;
  Lumen::String typeName_;
  BrioQuilt::MountInfo info_;
};

// Mounts entities for writing, as one: all that it was asked for, or nothing.
class MountGroup final : public Lumen::Node {
 public:
  explicit MountGroup(Lumen::Ptr<EntityManager> manager);
  ~MountGroup() override;

  // Asks for an entity. `typeName` is a registered one, and `info` declares one collection. Nothing
  // happens before doClose().
  Lumen::Ptr<Mount> mount(const Lumen::String& path, const Lumen::String& typeName,
                          const BrioQuilt::MountInfo& info);
  // Mounts what was asked for since the last call. What this process has mounted already stays as
  // it is. Throws StoreError, which names the path and the remedy: another writer (with its process
  // id), an unknown type, no room, no permission. None of the group's new entities is mounted then.
  void doClose();

 private:
  Lumen::Ptr<EntityManager> manager_;
  std::vector<Lumen::Ptr<Mount>> mounts_;
};

}  // namespace BrioSharedMem
