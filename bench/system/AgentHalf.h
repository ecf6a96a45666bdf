#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Asic/GroupInterface.h"
#include "Asic/OrderedTableInterface.h"
#include "BrioSharedMem/Bell.h"
#include "KelpEmServer/AllTables.h"
#include "Lumen/Ptr.h"
#include "Vault/EntityManager.h"

// An agent without intents, files and sockets: what is left is the library, its loop and the bells.
class AgentHalf {
 public:
  using T = KelpEmServer::Isem1Tag;
  using Table = KelpEmServer::KelpSwTable<T>;
  using Clock = std::chrono::steady_clock;

  AgentHalf(const std::string& name, const std::string& root, unsigned units);
  ~AgentHalf();
  AgentHalf(const AgentHalf&) = delete;
  AgentHalf& operator=(const AgentHalf&) = delete;

  // Writes `count` entries, no more than `window` of them on the way at a time, over all units in
  // turn, and waits for the last handler. Keys come round; no write repeats the one before it.
  void write(std::uint64_t count, std::uint64_t window);

  // Nanoseconds from entryWrite to the handler, of one entry alone.
  std::uint64_t writeOne();

  // Lets everything be reported by this process itself, as soon as it is published: the same work
  // without another process.
  void reportsItselfIs(bool itself) noexcept { reportsItself_ = itself; }

  // Nanoseconds that this side had nothing to do but wait, since the last call.
  [[nodiscard]] std::uint64_t takeWaited() noexcept { return std::exchange(waited_, 0); }

 private:
  static constexpr std::uint64_t kKeys = 50'000;      // of a unit
  static constexpr std::uint64_t kCircuits = 99'991;  // shared by the keys, another at each round

  void writeNext();
  void pass();
  void poll();
  void sleep();
  [[nodiscard]] Asic::GroupInterface& group() const noexcept { return *group_; }

  Lumen::Ptr<Vault::EntityManager> vault_;
  Lumen::Ptr<Asic::OrderedTableInterface> agent_;
  Lumen::Ptr<Asic::GroupInterface> group_;
  std::vector<Lumen::Ptr<Table>> tables_;
  std::optional<BrioSharedMem::Bell> bell_;
  std::optional<BrioSharedMem::Bell> chipBell_;
  Lumen::Ptr<Asic::StatusQuilt> ownStatus_;
  bool reportsItself_ = false;
  std::uint64_t written_ = 0;
  std::uint64_t ended_ = 0;
  std::uint64_t waited_ = 0;
  Asic::OrderedSwTable::ResponseHandler handler_;
};
