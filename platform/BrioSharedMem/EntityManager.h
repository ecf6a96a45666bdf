#pragma once

#include <cstddef>
#include <map>
#include <set>
#include <utility>
#include <vector>

#include "Brio/Entity.h"
#include "BrioSharedMem/EntityType.h"
#include "BrioSharedMem/MountGroup.h"
#include "BrioSharedMem/StoreError.h"
#include "Lumen/Node.h"
#include "Lumen/Ptr.h"
#include "Lumen/String.h"

namespace BrioSharedMem {

// The entities that a search has found, by path, in the order of the paths.
class EntitiesFound final : public Lumen::Node {
 public:
  explicit EntitiesFound(std::set<Lumen::String> paths) : paths_(std::move(paths)) {}

  [[nodiscard]] std::size_t count() const noexcept { return paths_.size(); }
  [[nodiscard]] const std::set<Lumen::String>& paths() const noexcept { return paths_; }

 private:
  std::set<Lumen::String> paths_;
};

// The entities of one manager name: files in a folder of that name below a root folder, which any
// process may open as a reader, and one process at a time for writing. In local mode they are
// private memory of this process. There is one object per name and mode, which lives as long as the
// process, and keeps what it has mounted. For one thread.
class EntityManager final : public Lumen::Node {
 public:
  // Says where the folder of a manager lies: in /dev/shm unless this was called. Throws StoreError
  // if the manager has entities mounted in another root.
  static void rootIs(const Lumen::String& managerName, const Lumen::String& root);
  [[nodiscard]] static Lumen::Ptr<EntityManager> getEntityManager(const Lumen::String& name,
                                                                  bool localMode);

  // For getEntityManager.
  EntityManager(Lumen::String name, bool localMode)
      : name_(std::move(name)), localMode_(localMode) {}

  [[nodiscard]] const Lumen::String& name() const noexcept { return name_; }
  [[nodiscard]] bool localMode() const noexcept { return localMode_; }
  // The folder of the entities' files, whether it is there or not. In local mode nothing lies in
  // it.
  [[nodiscard]] Lumen::String folder() const;

  // A new group for mounts. See there.
  [[nodiscard]] Lumen::Ptr<MountGroup> getMountGroup();
  // What this process has mounted at `path`, or null.
  [[nodiscard]] Lumen::Ptr<Brio::Entity> getEntity(const Lumen::String& path) const;
  // The entities below `path`, that is "path/...", of all processes; of the type quilt all, of
  // others none. Set-aside files and foreign files are none. An empty path finds every entity.
  [[nodiscard]] Lumen::Ptr<EntitiesFound> findEntities(const Lumen::String& path,
                                                       BrioSharedMemType type) const;
  // Opens an entity for reading, beside a writer in this process or another. A new mapping each
  // time. Throws StoreError: absent, another layout, too short, not whole, an unknown type.
  [[nodiscard]] Lumen::Ptr<Brio::Entity> openReader(const Lumen::String& path,
                                                    const Lumen::String& typeName) const;

  // Gives up what this process has mounted at `path`: the writer's lock goes with the last pointer
  // to the entity, its file stays; private memory is gone. Nothing if it is not mounted.
  void entityDel(const Lumen::String& path);
  void entityDelAll();

  // For MountGroup.
  void entitiesMount(const std::vector<Lumen::Ptr<Mount>>& mounts);

 private:
  [[nodiscard]] Quilt::FilePlace placeOf(const Lumen::String& path) const;
  [[nodiscard]] Lumen::Ptr<BrioQuilt::QuiltEntity> opened(const Mount& mount) const;
  void makeFolders(const Quilt::FilePlace& place) const;

  struct Mounted {
    Lumen::Ptr<BrioQuilt::QuiltEntity> entity;
    int process;
  };

  Lumen::String name_;
  bool localMode_;
  std::map<Lumen::String, Mounted> mounted_;
};

}  // namespace BrioSharedMem
