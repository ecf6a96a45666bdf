#include "Brio/Entity.h"

#include <map>

namespace Brio {
namespace {

// Never destroyed: what a singleton owns may still be used while statics are torn down.
std::map<Lumen::String, Lumen::Ptr<Entity>>& singletons() {
  static auto* const made = new std::map<Lumen::String, Lumen::Ptr<Entity>>;
  return *made;
}

}  // namespace

Entity::~Entity() = default;

void Entity::handleParent(const Lumen::Ptr<Entity>&) {}

Lumen::Ptr<Entity> Entity::singletonExists(const Lumen::String& typeName) {
  const auto found = singletons().find(typeName);
  return found == singletons().end() ? Lumen::Ptr<Entity>() : found->second;
}

Lumen::Ptr<Entity> Entity::singletonIs(const Lumen::String& typeName,
                                       const Lumen::Ptr<Entity>& entity) {
  if (!entity) {
    // Out of the map first: its destructor may ask for singletons.
    auto gone = singletons().extract(typeName);
    return {};
  }
  singletons()[typeName] = entity;
  return entity;
}

}  // namespace Brio
