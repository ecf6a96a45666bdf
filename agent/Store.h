#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Asic/GroupInterface.h"
#include "Asic/OrderedTableInterface.h"
#include "BrioSharedMem/Bell.h"
#include "BrioSharedMem/EntityManager.h"
#include "KelpTunnelNiLib/ResourceTableSet.h"
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

  // What is gone at the end of a replay, over all units of a table.
  struct Removed {
    std::uint64_t swept = 0;         // entries that nobody wrote again
    std::uint64_t unitsCleared = 0;  // that an earlier run has left, and nobody asked for
  };
  // The features have written again what they want: clears the units that nobody asked for, and
  // sweeps the tables. By table number. Costs a walk of all tables.
  [[nodiscard]] std::vector<Removed> clearAndSweep() const;
  // The keys in the reader's view of a table. Costs a walk of it.
  [[nodiscard]] std::vector<Common::AnyKey> keysOf(const Common::AnyTable& table) const;

  [[nodiscard]] Asic::GroupInterface& group() const noexcept { return *group_; }
  // The shared memory of the store.
  [[nodiscard]] const BrioSharedMem::EntityManager& memory() const noexcept { return *memory_; }
  // Where its files lie.
  [[nodiscard]] std::string folder() const { return memory_->folder(); }
  // Rung for us. Only after makeTables().
  [[nodiscard]] BrioSharedMem::Bell& ownBell() const noexcept { return *ownBell_; }
  [[nodiscard]] const KelpTunnelNiLib::ResourceTableSet& resources() const noexcept {
    return resources_;
  }
  // Rings the hardware side, if anything was published for it.
  void ringIfPublished() const;

 private:
  Lumen::Ptr<Vault::EntityManager> vault_;
  Lumen::Ptr<Asic::OrderedTableInterface> agent_;
  Lumen::Ptr<BrioSharedMem::EntityManager> memory_;
  KelpTunnelNiLib::ResourceTableSet resources_;
  Lumen::Ptr<Asic::GroupInterface> group_;
  std::unique_ptr<BrioSharedMem::Bell> ownBell_;
  std::unique_ptr<BrioSharedMem::Bell> chipBell_;
};

}  // namespace Agent
