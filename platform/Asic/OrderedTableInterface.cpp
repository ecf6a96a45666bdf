#include "Asic/OrderedTableInterface.h"

#include <utility>

#include "Asic/Constants.h"
#include "Asic/SwTableInterfacesSingleton.h"
#include "Brio/InspectRegistry.h"

namespace Asic {

GroupInterfaceColl::~GroupInterfaceColl() = default;

Lumen::Ptr<GroupInterface> GroupInterfaceColl::groupIntf(const Lumen::String& canonicalName) const {
  const auto found = groups_.find(canonicalName);
  return found == groups_.end() ? Lumen::Ptr<GroupInterface>() : found->second;
}

void GroupInterfaceColl::groupIntfIs(const Lumen::Ptr<GroupInterface>& groupIntf) {
  groups_[groupIntf->canonicalName()] = groupIntf;
}

OrderedTableInterface::OrderedTableInterface(Lumen::Ptr<Vault::EntityManager> entityManager)
    : entityManager_(std::move(entityManager)),
      groupIntfColl_(Lumen::makeNode<GroupInterfaceColl>()) {
  Brio::InspectRoots::rootIs(kRoot, this);
}

OrderedTableInterface::~OrderedTableInterface() { Brio::InspectRoots::rootDel(kRoot, this); }

Lumen::Ptr<GroupInterface> OrderedTableInterface::makeGroupIntf(const Lumen::String& groupName,
                                                                const Lumen::String& agentName,
                                                                std::uint16_t agentAndGroupId) {
  const Lumen::String name = Constants::canonicalizeGroupName(agentName, groupName);
  Lumen::Ptr<GroupInterface> group = groupIntfColl_->groupIntf(name);
  if (!group) {
    group = Lumen::makeNode<GroupInterface>(name, entityManager_, agentAndGroupId);
    groupIntfColl_->groupIntfIs(group);
  }
  return group;
}

void OrderedTableInterface::stop() {
  const auto singleton = SwTableInterfacesSingleton::instance();
  for (const auto& [key, intf] : std::map(interfaces_)) {
    if (singleton->swTableIntf(key).get() == intf) {
      singleton->swTableIntfDel(key);
    }
  }
  for (const auto& [name, group] : groupIntfColl_->groupIntfs()) {
    group->stop();
  }
}

void OrderedTableInterface::swTableIntfIs(const Lumen::String& key, TableInterfaceBase* intf) {
  interfaces_[key] = intf;
}

void OrderedTableInterface::swTableIntfDel(const Lumen::String& key) { interfaces_.erase(key); }

TableInterfaceBase* OrderedTableInterface::swTableIntf(const Lumen::String& key) const {
  const auto found = interfaces_.find(key);
  return found == interfaces_.end() ? nullptr : found->second;
}

void OrderedTableInterface::resourceTableIs(const Lumen::Ptr<NamedSwTable>& table) {
  resourceTables_[table->canonicalName()->name()] = table;
}

Lumen::Ptr<NamedSwTable> OrderedTableInterface::resourceTable(
    const Lumen::String& canonicalName) const {
  const auto found = resourceTables_.find(canonicalName);
  return found == resourceTables_.end() ? Lumen::Ptr<NamedSwTable>() : found->second;
}

}  // namespace Asic
