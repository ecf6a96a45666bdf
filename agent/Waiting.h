#pragma once

#include <cstddef>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/Intake.h"

namespace Agent {

// What intents that have no outcome wait for, at one moment: made for a look, and gone before the
// loop goes on. Changes nothing. A look costs little and as much for each intent.
class Waiting {
 public:
  // One thing that an intent waits for. The kinds:
  //
  //   entry      another operation: the one that `after` names, or one that is before it in the
  //              queue of its table and unit
  //   resource   one that its entry names
  //   room       in the log of its table, or in the file system
  //   hardware   the hardware side has not reported its version
  //   removeAll  a remove-all that is before it in the queue, or its own removes
  //   pass       nothing: the next turn of the agent takes it on
  struct Reason {
    std::string_view kind;
    nlohmann::ordered_json details;  // what the kind says, as members of an object
    std::string text;                // the same for people
  };

  explicit Waiting(const Intake& intake);

  // All that an intent waits for, its own reasons first; never empty.
  [[nodiscard]] std::vector<Reason> reasonsOf(const Intake::Slot& slot);
  // The same for a write that has failed and is tried again.
  [[nodiscard]] static std::vector<Reason> reasonsOf(const Retries::Missing& missing);

  struct Pending {
    std::string intent;  // `FILE:12: write Isem1Tag, unit 0, key {...}`
    std::string reason;  // the first one
  };
  // The oldest intents in flight, at most `most`. Costs a look at all of them.
  [[nodiscard]] std::vector<Pending> oldest(std::size_t most);

 private:
  void addQueueReasons(const Intake::Slot& slot, std::vector<Reason>& reasons);
  [[nodiscard]] const std::string& lackOfRoom(std::size_t place);

  const Intake& intake_;
  std::vector<std::optional<std::string>> lacks_;  // of room, by place, once looked at
};

}  // namespace Agent
