#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "Asic/GroupQuilts.h"
#include "BrioQuilt/QuiltEntity.h"
#include "BrioSharedMem/EntityManager.h"
#include "Lumen/Ptr.h"

namespace Demo {

// How far two programs are, seen from outside: from the store that they share, and from how far one
// has read its file. Asks neither of them.
class Watch {
 public:
  struct Progress {
    std::uint64_t read = 0;       // intents that the agent has read
    std::uint64_t committed = 0;  // changes in the logs, all tables, since the logs were made
    std::uint64_t onChip = 0;     // of these, reported by the hardware side

    [[nodiscard]] std::uint64_t pending() const noexcept {
      return committed > onChip ? committed - onChip : 0;
    }
  };

  // `lineEnds`: where each intent of the file ends, in bytes, rising.
  Watch(Lumen::Ptr<BrioSharedMem::EntityManager> memory, std::string intentFile,
        std::vector<std::uint64_t> lineEnds);

  [[nodiscard]] Progress look(pid_t agent);

 private:
  void open();
  [[nodiscard]] std::uint64_t intentsRead(pid_t agent) const;

  Lumen::Ptr<BrioSharedMem::EntityManager> memory_;
  std::string intentFile_;
  std::vector<std::uint64_t> lineEnds_;
  std::vector<Lumen::Ptr<BrioQuilt::QuiltEntity>> logs_;  // by table number; null until there
  Lumen::Ptr<Asic::StatusQuilt> status_;
};

}  // namespace Demo
