#include "Vault/EntityManager.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <string_view>
#include <utility>

#include "BrioSharedMem/EntityManager.h"
#include "BrioSharedMem/EntityPath.h"
#include "Quilt/Seam.h"

namespace Vault {
namespace {

// Registries are never destroyed: entities may be used while statics are torn down.
struct TypeRegistry {
  std::mutex mutex;
  std::map<Lumen::String, EntityType, std::less<>> types;
};

TypeRegistry& typeRegistry() {
  static auto* const made = new TypeRegistry;
  return *made;
}

Lumen::Ptr<Store> localStore(const Lumen::String& name) {
  struct Stores {
    std::mutex mutex;
    std::map<Lumen::String, Lumen::Ptr<Store>> byName;
  };
  static auto* const stores = new Stores;
  const std::lock_guard lock(stores->mutex);
  Lumen::Ptr<Store>& found = stores->byName[name];
  if (!found) {
    found = Lumen::makeNode<Store>(":memory:");
  }
  return found;
}

const Lumen::String& checkedName(const Lumen::String& name) {
  if (name.empty() || name == "." || name == ".." || name.find('/') != Lumen::String::npos ||
      name.find('\0') != Lumen::String::npos) {
    throw VaultError(fmt::format(
        "manager name \"{}\": it names a folder, so give one path component without '/'", name));
  }
  return name;
}

void folderIs(const Lumen::String& folder) {
  Quilt::Seam::step();
  if (::mkdir(folder.c_str(), 0750) == 0) {
    return;
  }
  const int reason = errno;
  struct stat found {};
  if (reason == EEXIST && ::stat(folder.c_str(), &found) == 0 && S_ISDIR(found.st_mode)) {
    return;
  }
  throw VaultError(fmt::format(
      "{}: cannot make the folder: {}; make the folder above it, and let this user write to it",
      folder, std::strerror(reason)));
}

Lumen::Ptr<Store> storeFor(const Lumen::String& name, bool localMode, const Lumen::String& root) {
  checkedName(name);
  if (localMode) {
    return localStore(name);
  }
  folderIs(root + '/' + BrioSharedMem::encodedPart(name));
  return Lumen::makeNode<Store>(EntityManager::fileOf(name, root));
}

}  // namespace

Entity::~Entity() = default;

const EntityType* EntityType::find(std::string_view name) {
  TypeRegistry& all = typeRegistry();
  const std::lock_guard lock(all.mutex);
  const auto found = all.types.find(name);
  return found == all.types.end() ? nullptr : &found->second;
}

void Impl::entityTypeIs(const EntityType& type) {
  TypeRegistry& all = typeRegistry();
  const std::lock_guard lock(all.mutex);
  all.types.insert_or_assign(type.name, type);
}

EntityManager::EntityManager(Lumen::String name, bool localMode, Lumen::String root)
    : name_(std::move(name)),
      localMode_(localMode),
      root_(std::move(root)),
      store_(storeFor(name_, localMode_, root_)) {
  BrioSharedMem::EntityManager::rootIs(name_, root_);
}

EntityManager::~EntityManager() = default;

Lumen::String EntityManager::fileOf(const Lumen::String& name, const Lumen::String& root) {
  return root + '/' + BrioSharedMem::encodedPart(name) + "/vault.sqlite";
}

Lumen::Ptr<Brio::Entity> EntityManager::object(const Lumen::String& path,
                                               const Lumen::String& typeName) const {
  const std::lock_guard lock(mutex_);
  Live& live = live_[path];
  if (!live.entity || live.type != typeName) {
    const EntityType* type = EntityType::find(typeName);
    live = {typeName,
            type == nullptr ? Lumen::makeNode<Entity>(store_, path) : type->make(store_, path)};
  }
  return live.entity;
}

Lumen::Ptr<Brio::Entity> EntityManager::getEntity(const Lumen::String& path) const {
  const auto row = store_->row(path);
  if (!row) {
    const std::lock_guard lock(mutex_);
    live_.erase(path);
    return {};
  }
  return object(path, row->type);
}

Lumen::Ptr<Brio::Entity> EntityManager::entityIs(const Lumen::String& path,
                                                 const Lumen::String& typeName) {
  const EntityType* type = EntityType::find(typeName);
  if (type == nullptr) {
    throw VaultError(fmt::format(
        "{}: cannot make \"{}\": no class of this program is registered for the type \"{}\"",
        file(), path, typeName));
  }
  const Store::Row row = store_->rowAdd(path, {typeName, type->initialValue});
  if (row.type != typeName) {
    throw VaultError(fmt::format(
        "{}: \"{}\" is of type \"{}\", not \"{}\"; take another path, or delete the entity first",
        file(), path, row.type, typeName));
  }
  return object(path, typeName);
}

bool EntityManager::entityDel(const Lumen::String& path) {
  const bool deleted = store_->rowDel(path);
  const std::lock_guard lock(mutex_);
  live_.erase(path);
  return deleted;
}

}  // namespace Vault
