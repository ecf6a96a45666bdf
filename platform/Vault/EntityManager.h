#pragma once

#include <map>
#include <mutex>
#include <vector>

#include "Brio/Entity.h"
#include "Lumen/Node.h"
#include "Lumen/Ptr.h"
#include "Lumen/String.h"
#include "Vault/Entity.h"
#include "Vault/EntityType.h"
#include "Vault/Store.h"

namespace Vault {

// The agent's entity manager: the state database of a system, by the system's name. Its entities
// lie in the file that fileOf() names (see Store for the table), and outlive the process. In local
// mode they lie in private memory: all managers of one name in the process share them, and they are
// gone with the process.
//
// Every operation on the database throws VaultError. Not to be carried across fork().
class EntityManager final : public Lumen::Node {
 public:
  // `name` is a single path component. The folder is made (mode 0750) unless it is there. The
  // name's shared-memory collections lie below the same root.
  EntityManager(Lumen::String name, bool localMode, Lumen::String root = "/dev/shm");
  ~EntityManager() override;

  [[nodiscard]] const Lumen::String& name() const noexcept { return name_; }
  [[nodiscard]] bool localMode() const noexcept { return localMode_; }
  [[nodiscard]] const Lumen::String& root() const noexcept { return root_; }
  // The database's file; ":memory:" in local mode.
  [[nodiscard]] const Lumen::String& file() const noexcept { return store_->file(); }

  // Where the state database of a system lies, whether it is there or not. The name is encoded like
  // a part of an entity's path, so that database and collections share a folder.
  [[nodiscard]] static Lumen::String fileOf(const Lumen::String& name, const Lumen::String& root);

  // The entity at `path`, of the class that its type names; null if there is none. The same object
  // for the same path as long as the entity is there.
  [[nodiscard]] Lumen::Ptr<Brio::Entity> getEntity(const Lumen::String& path) const;
  // The entity at `path`, made with its type's initial value if there is none. Throws VaultError if
  // the path holds an entity of another type, or nobody registered `typeName`.
  Lumen::Ptr<Brio::Entity> entityIs(const Lumen::String& path, const Lumen::String& typeName);
  template <class T>
  Lumen::Ptr<T> entityIs(const Lumen::String& path) {
    return Lumen::staticPtrCast<T>(entityIs(path, T::kTypeName));
  }
  // False if there was none.
  bool entityDel(const Lumen::String& path);
  // The paths of all entities, in ascending order.
  [[nodiscard]] std::vector<Lumen::String> entityPaths() const { return store_->paths(); }

 private:
  [[nodiscard]] Lumen::Ptr<Brio::Entity> object(const Lumen::String& path,
                                                const Lumen::String& typeName) const;

  struct Live {
    Lumen::String type;
    Lumen::Ptr<Entity> entity;
  };

  Lumen::String name_;
  bool localMode_;
  Lumen::String root_;
  Lumen::Ptr<Store> store_;
  mutable std::mutex mutex_;
  mutable std::map<Lumen::String, Live> live_;
};

}  // namespace Vault
