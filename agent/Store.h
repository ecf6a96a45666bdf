#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Asic/GroupInterface.h"
#include "Asic/OrderedTableInterface.h"
#include "BrioSharedMem/Bell.h"
#include "BrioSharedMem/EntityManager.h"
#include "Lumen/Ptr.h"
#include "Vault/EntityManager.h"
#include "common/AnyTable.h"

namespace Agent {

// The agent's side of a store: the state database, the tables' group, and the bells of both sides.
class Store {
 public:
  // Opens the store, and makes it if it is new. Throws BrioSharedMem::StoreError and
  // Vault::VaultError, which name the place and the remedy; another agent on the store is one such.
  Store(const std::string& name, const std::string& root);
  // Lets go of the store; what is in flight is dropped. The tables must be gone.
  ~Store();
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  // Makes the tables of `units` units, by table number and then unit, and then the bells: whoever
  // hears ours finds the tables. Throws as the constructor, and BrioSharedMem::BellError.
  [[nodiscard]] std::vector<std::unique_ptr<Common::AnyTable>> makeTables(unsigned units);

  [[nodiscard]] Asic::GroupInterface& group() const noexcept { return *group_; }
  // Rung for us. Only after makeTables().
  [[nodiscard]] BrioSharedMem::Bell& ownBell() const noexcept { return *ownBell_; }
  // Rings the hardware side, if anything was published for it.
  void ringIfPublished() const;

 private:
  Lumen::Ptr<Vault::EntityManager> vault_;
  Lumen::Ptr<Asic::OrderedTableInterface> agent_;
  Lumen::Ptr<BrioSharedMem::EntityManager> memory_;
  Lumen::Ptr<Asic::GroupInterface> group_;
  std::unique_ptr<BrioSharedMem::Bell> ownBell_;
  std::unique_ptr<BrioSharedMem::Bell> chipBell_;
};

}  // namespace Agent
