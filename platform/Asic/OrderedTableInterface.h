#pragma once

#include <cstdint>
#include <map>

#include "Asic/GroupInterface.h"
#include "Asic/InspectClasses.h"
#include "Asic/NamedSwTable.h"
#include "Asic/TableInterfaceBase.h"
#include "Brio/Attributes.h"
#include "Lumen/Node.h"
#include "Lumen/String.h"
#include "Vault/EntityManager.h"

namespace Asic {

// The groups of an agent, by canonical group name.
class GroupInterfaceColl final : public Lumen::Node {
 public:
  static constexpr const char* className() { return "GroupInterfaceColl"; }
  static constexpr auto attributes() {
    return Brio::attributeList(130, Brio::collection("groupIntf", &GroupInterfaceColl::groups_));
  }
  static constexpr const Lumen::TypeData& classData() {
    return kInspectClass<15, "GroupInterfaceColl">;
  }
  [[nodiscard]] const Lumen::TypeData& typeData() const override { return classData(); }

  ~GroupInterfaceColl() override;

  // Null if there is none.
  [[nodiscard]] Lumen::Ptr<GroupInterface> groupIntf(const Lumen::String& canonicalName) const;
  void groupIntfIs(const Lumen::Ptr<GroupInterface>& groupIntf);
  [[nodiscard]] const std::map<Lumen::String, Lumen::Ptr<GroupInterface>>& groupIntfs()
      const noexcept {
    return groups_;
  }

 private:
  std::map<Lumen::String, Lumen::Ptr<GroupInterface>> groups_;
};

// What an agent gives to the tables that it loads.
class OrderedTableInterface final : public Lumen::Node {
 public:
  static constexpr const char* className() { return "OrderedTableInterface"; }
  static constexpr auto attributes() {
    using I = OrderedTableInterface;
    return Brio::attributeList(130,
                               Brio::stored("skipMarkOnRestore", &I::skipMarkOnRestore_)
                                   .writtenBy(&I::skipMarkOnRestoreIs),
                               Brio::stored("groupIntfColl", &I::groupIntfColl_),
                               Brio::collection("swTableIntf", &I::interfaces_),
                               Brio::collection("resourceTable", &I::resourceTables_));
  }
  static constexpr const Lumen::TypeData& classData() {
    return kInspectClass<14, "OrderedTableInterface">;
  }
  // The root of paths to it; of the last one made, should there be several.
  static constexpr const char* kRoot = "Asic::OrderedTableInterface";
  [[nodiscard]] const Lumen::TypeData& typeData() const override { return classData(); }

  explicit OrderedTableInterface(Lumen::Ptr<Vault::EntityManager> entityManager);
  ~OrderedTableInterface() override;

  // True: a table that is made does not begin to mark, and a sweep removes nothing from it. False
  // unless the agent sets it before it makes its tables.
  [[nodiscard]] bool skipMarkOnRestore() const noexcept { return skipMarkOnRestore_; }
  void skipMarkOnRestoreIs(bool skip) noexcept { skipMarkOnRestore_ = skip; }

  [[nodiscard]] const Lumen::Ptr<Vault::EntityManager>& entityManager() const noexcept {
    return entityManager_;
  }
  [[nodiscard]] const Lumen::Ptr<GroupInterfaceColl>& groupIntfColl() const noexcept {
    return groupIntfColl_;
  }

  // Makes the group, or finds it, under its canonical name.
  Lumen::Ptr<GroupInterface> makeGroupIntf(const Lumen::String& groupName,
                                           const Lumen::String& agentName,
                                           std::uint16_t agentAndGroupId);

  // The end of the agent's tables: the interfaces of this agent leave the process's list, and the
  // groups let go of their tables. What is queued is dropped; shared memory stays as it is.
  void stop();

  // The agent's list of table interfaces; holds no reference.
  void swTableIntfIs(const Lumen::String& key, TableInterfaceBase* intf);
  void swTableIntfDel(const Lumen::String& key);
  // Null if there is none.
  [[nodiscard]] TableInterfaceBase* swTableIntf(const Lumen::String& key) const;

  // The agent's resource tables, by canonical name.
  void resourceTableIs(const Lumen::Ptr<NamedSwTable>& table);
  // Null if there is none.
  [[nodiscard]] Lumen::Ptr<NamedSwTable> resourceTable(const Lumen::String& canonicalName) const;
  [[nodiscard]] const std::map<Lumen::String, Lumen::Ptr<NamedSwTable>>& resourceTables()
      const noexcept {
    return resourceTables_;
  }

 private:
  bool skipMarkOnRestore_ = false;
  Lumen::Ptr<Vault::EntityManager> entityManager_;
  Lumen::Ptr<GroupInterfaceColl> groupIntfColl_;
  std::map<Lumen::String, TableInterfaceBase*> interfaces_;
  std::map<Lumen::String, Lumen::Ptr<NamedSwTable>> resourceTables_;
};

}  // namespace Asic
