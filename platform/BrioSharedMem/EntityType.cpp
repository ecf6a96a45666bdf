#include "BrioSharedMem/EntityType.h"

#include <map>

namespace BrioSharedMem {
namespace {

// Never destroyed: entities may be opened while statics are made and torn down.
std::map<Lumen::String, EntityFactory>& factories() {
  static auto* const made = new std::map<Lumen::String, EntityFactory>;
  return *made;
}

}  // namespace

void entityFactoryIs(const Lumen::String& typeName, EntityFactory factory) {
  factories().emplace(typeName, factory);
}

EntityFactory entityFactory(const Lumen::String& typeName) {
  const auto found = factories().find(typeName);
  return found == factories().end() ? nullptr : found->second;
}

}  // namespace BrioSharedMem
