#include "BrioSharedMem/EntityManager.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string_view>
#include <system_error>

#include "BrioSharedMem/EntityPath.h"
#include "Quilt/FileError.h"
#include "Quilt/Seam.h"

namespace BrioSharedMem {
namespace {

constexpr mode_t kFolderMode = 0750;
constexpr char kDefaultRoot[] = "/dev/shm";

// Never destroyed: what is mounted stays mounted while statics are torn down.
std::map<Lumen::String, Lumen::String>& roots() {
  static auto* const made = new std::map<Lumen::String, Lumen::String>;
  return *made;
}

std::map<std::pair<Lumen::String, bool>, Lumen::Ptr<EntityManager>>& managers() {
  static auto* const made = new std::map<std::pair<Lumen::String, bool>, Lumen::Ptr<EntityManager>>;
  return *made;
}

EntityFactory factoryOf(const Lumen::String& path, const Lumen::String& typeName) {
  const EntityFactory factory = entityFactory(typeName);
  if (factory == nullptr) {
    throw StoreError(fmt::format(
        "{}: no type {} is known in this process; check the name, or load the library that has it",
        path, typeName));
  }
  return factory;
}

bool endsWith(std::string_view text, std::string_view end) {
  return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

// The path of the entity that the file `name`, below the manager's folder, is of. None if it is
// another kind of file.
std::optional<Lumen::String> entityOf(std::string_view name) {
  constexpr std::string_view kSuffix = Quilt::kFileSuffix;
  if (!endsWith(name, kSuffix)) {
    return std::nullopt;
  }
  return decodedPath(name.substr(0, name.size() - kSuffix.size()));
}

}  // namespace

void EntityManager::rootIs(const Lumen::String& managerName, const Lumen::String& root) {
  const auto known = roots().find(managerName);
  const Lumen::String before = known == roots().end() ? kDefaultRoot : known->second;
  if (before == root) {
    return;
  }
  const auto manager = managers().find({managerName, false});
  if (manager != managers().end() && !manager->second->mounted_.empty()) {
    throw StoreError(fmt::format(
        "{}: cannot take {} as its root folder, since it has entities mounted in {}; name the root "
        "before the first mount",
        managerName, root, before));
  }
  roots()[managerName] = root;
}

Lumen::Ptr<EntityManager> EntityManager::getEntityManager(const Lumen::String& name,
                                                          bool localMode) {
  Lumen::Ptr<EntityManager>& manager = managers()[{name, localMode}];
  if (!manager) {
    manager = Lumen::makeNode<EntityManager>(name, localMode);
  }
  return manager;
}

Lumen::String EntityManager::folder() const {
  const auto root = roots().find(name_);
  return (root == roots().end() ? Lumen::String(kDefaultRoot) : root->second) + '/' +
         encodedPart(name_);
}

Quilt::FilePlace EntityManager::placeOf(const Lumen::String& path) const {
  Quilt::FilePlace place;
  place.path = path;
  if (!localMode_) {
    place.fileBase = folder() + '/' + encodedPath(path);
  }
  return place;
}

Lumen::Ptr<MountGroup> EntityManager::getMountGroup() {
  return Lumen::makeNode<MountGroup>(Lumen::Ptr<EntityManager>(this));
}

Lumen::Ptr<Brio::Entity> EntityManager::getEntity(const Lumen::String& path) const {
  const auto found = mounted_.find(path);
  // A forked child has its parent's objects, but it is not the writer.
  if (found == mounted_.end() || found->second.process != ::getpid()) {
    return nullptr;
  }
  return found->second.entity;
}

void EntityManager::makeFolders(const Quilt::FilePlace& place) const {
  if (place.local()) {
    return;
  }
  for (std::size_t end = place.fileBase.find('/', 1); end != Lumen::String::npos;
       end = place.fileBase.find('/', end + 1)) {
    const Lumen::String part = place.fileBase.substr(0, end);
    struct stat status {};
    if (::stat(part.c_str(), &status) == 0) {
      continue;
    }
    Quilt::Seam::step();
    if (::mkdir(part.c_str(), kFolderMode) != 0) {
      if (errno == EEXIST) {
        continue;
      }
      throw Quilt::fileError(place.path, "make the folder", part, errno);
    }
    Quilt::Seam::step();
    ::chmod(part.c_str(), kFolderMode);
  }
}

Lumen::Ptr<BrioQuilt::QuiltEntity> EntityManager::opened(const Mount& mount) const {
  const EntityFactory factory = factoryOf(mount.path(), mount.typeName());
  if (mount.info().type() != BrioQuilt::BrioQuiltType::collection ||
      mount.info().collectionInfo().size() != 1) {
    throw StoreError(fmt::format(
        "{}: the mount declares {} collections; declare exactly one, of the type collection",
        mount.path(), mount.info().collectionInfo().size()));
  }
  const BrioQuilt::CollectionInfo& info = mount.info().collectionInfo().front();
  BrioQuilt::Opening opening{BrioQuilt::Opening::Mode::write,
                             placeOf(mount.path()),
                             mount.typeName(),
                             info.name(),
                             info.capacity(),
                             nullptr};
  makeFolders(opening.place);
  return factory(opening);
}

void EntityManager::entitiesMount(const std::vector<Lumen::Ptr<Mount>>& mounts) {
  std::map<Lumen::String, Mounted> made;
  for (const Lumen::Ptr<Mount>& mount : mounts) {
    const auto fresh = made.find(mount->path());
    const auto found = fresh == made.end() ? mounted_.find(mount->path()) : fresh;
    if (found != mounted_.end() || fresh != made.end()) {
      if (found->second.process != ::getpid()) {
        throw StoreError(
            fmt::format("{}: process {} writes this collection already, and this process is a fork "
                        "of it; start "
                        "a process of its own, or open the collection as a reader",
                        mount->path(), found->second.process));
      }
      if (found->second.entity->typeName() != mount->typeName()) {
        throw StoreError(
            fmt::format("{}: mounted already as a {}, not as a {}; use the type it has",
                        mount->path(), found->second.entity->typeName(), mount->typeName()));
      }
      continue;
    }
    made.emplace(mount->path(), Mounted{opened(*mount), ::getpid()});
  }
  mounted_.merge(made);
}

Lumen::Ptr<EntitiesFound> EntityManager::findEntities(const Lumen::String& path,
                                                      BrioSharedMemType type) const {
  std::set<Lumen::String> paths;
  Lumen::String below = path;
  if (!below.empty() && below.back() != '/') {
    below += '/';
  }
  const auto take = [&](Lumen::String found) {
    if (found.size() > below.size() && found.compare(0, below.size(), below) == 0) {
      paths.insert(std::move(found));
    }
  };
  if (type != BrioSharedMemType::quilt) {
    return Lumen::makeNode<EntitiesFound>(std::move(paths));
  }
  if (localMode_) {
    for (const auto& [mountedPath, mounted] : mounted_) {
      take(mountedPath);
    }
    return Lumen::makeNode<EntitiesFound>(std::move(paths));
  }
  const Lumen::String top = folder() + '/';
  // Folders are named after the parts of the path, so that only one of them need be looked through.
  const Lumen::String start =
      below.empty() ? top : top + encodedPath(std::string_view(below).substr(0, below.size() - 1));
  // A list that is cut short would make units look as if they were not there.
  const auto check = [&](const std::error_code& error) {
    if (error && error != std::errc::no_such_file_or_directory) {
      throw Quilt::fileError(path, "look through", start, error.value());
    }
  };
  std::error_code error;
  std::filesystem::recursive_directory_iterator at(
      start, std::filesystem::directory_options::skip_permission_denied, error);
  check(error);
  for (; !error && at != std::filesystem::recursive_directory_iterator();
       at.increment(error), check(error)) {
    std::error_code gone;
    if (!at->is_regular_file(gone)) {
      continue;
    }
    if (auto found = entityOf(std::string_view(at->path().native()).substr(top.size()))) {
      take(std::move(*found));
    }
  }
  return Lumen::makeNode<EntitiesFound>(std::move(paths));
}

Lumen::Ptr<Brio::Entity> EntityManager::openReader(const Lumen::String& path,
                                                   const Lumen::String& typeName) const {
  const EntityFactory factory = factoryOf(path, typeName);
  BrioQuilt::Opening opening{
      BrioQuilt::Opening::Mode::read, placeOf(path), typeName, {}, 0, nullptr};
  if (localMode_) {
    const auto found = mounted_.find(path);
    if (found == mounted_.end() || found->second.entity->typeName() != typeName) {
      throw StoreError(
          fmt::format("{}: no {} of this path is mounted in this process, and in local mode nobody "
                      "else has it; "
                      "mount it first",
                      path, typeName));
    }
    opening.local = found->second.entity->mapBase().file();
  }
  return factory(opening);
}

void EntityManager::entityDel(const Lumen::String& path) { mounted_.erase(path); }

void EntityManager::entityDelAll() { mounted_.clear(); }

}  // namespace BrioSharedMem
