#include "Asic/SwTableInterfacesSingleton.h"

#include "Brio/InspectRegistry.h"

namespace Asic {

SwTableInterfacesSingleton::SwTableInterfacesSingleton() : Brio::Entity(kTypeName) {
  Brio::InspectRoots::rootIs(kTypeName, this);
}

SwTableInterfacesSingleton::~SwTableInterfacesSingleton() {
  Brio::InspectRoots::rootDel(kTypeName, this);
}

Lumen::Ptr<SwTableInterfacesSingleton> SwTableInterfacesSingleton::instance() {
  Lumen::Ptr<Brio::Entity> found = Brio::Entity::singletonExists(kTypeName);
  if (!found) {
    found = Brio::Entity::singletonIs(kTypeName,
                                      Lumen::Ptr<Brio::Entity>(new SwTableInterfacesSingleton));
  }
  return Lumen::staticPtrCast<SwTableInterfacesSingleton>(found);
}

bool SwTableInterfacesSingleton::swTableIntfHas(const Lumen::String& key) const {
  return interfaces_.contains(key);
}

Lumen::Ptr<TableInterfaceBase> SwTableInterfacesSingleton::swTableIntf(
    const Lumen::String& key) const {
  const auto found = interfaces_.find(key);
  return found == interfaces_.end() ? Lumen::Ptr<TableInterfaceBase>() : found->second;
}

void SwTableInterfacesSingleton::swTableIntfIs(const Lumen::String& key,
                                               const Lumen::Ptr<TableInterfaceBase>& intf) {
  interfaces_[key] = intf;
}

void SwTableInterfacesSingleton::swTableIntfDel(const Lumen::String& key) {
  // Out of the map before its destructor runs, which looks at the singleton's owner.
  auto gone = interfaces_.extract(key);
}

void SwTableInterfacesSingleton::swTableIntfDelAll() {
  while (!interfaces_.empty()) {
    auto gone = interfaces_.extract(interfaces_.begin());
  }
}

}  // namespace Asic
