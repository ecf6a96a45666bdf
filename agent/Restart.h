#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "agent/Intake.h"
#include "agent/Store.h"

namespace Agent {

// The start over what an earlier run has left, from the making of the tables to the end of the
// replay, and what came of it. Until the replay is complete the tables mark what is written; then
// units that nobody asked for are cleared, and entries that nobody wrote again are swept.
class Restart {
 public:
  // The tables have just been made.
  Restart(Store& store, const Intake& intake);
  Restart(const Restart&) = delete;
  Restart& operator=(const Restart&) = delete;

  // Whether nobody has ever written to the tables, so that there is nothing to compare with.
  [[nodiscard]] bool nothingThere() const noexcept { return nothingThere_; }

  // The features have written again what they want. Does nothing the second time.
  void complete();
  [[nodiscard]] bool isComplete() const noexcept { return complete_; }

  // Says once on stderr what came of a start that had something to restore: when all that was
  // queued at its completion has been committed, and at the latest with `last`.
  void tell(bool last);
  // The same for the summary, by table.
  [[nodiscard]] nlohmann::ordered_json summary() const;

 private:
  // Over all units of a table.
  struct Figures {
    std::uint64_t restored = 0;      // entries that an earlier run has left
    std::uint64_t suppressed = 0;    // writes that were identical
    std::uint64_t rewritten = 0;     // writes that were not
    std::uint64_t swept = 0;         // entries that nobody wrote again
    std::uint64_t unitsCleared = 0;  // that nobody asked for
  };

  [[nodiscard]] std::vector<Figures> figures() const;

  Store& store_;
  const Intake& intake_;
  bool nothingThere_ = true;
  bool complete_ = false;
  bool told_ = false;
  std::vector<std::uint64_t> restored_;  // by table number, all of them
  std::vector<std::uint64_t> written_;   // until the replay was complete
  std::vector<Store::Removed> removed_;
};

}  // namespace Agent
