#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "demo/Child.h"
#include "demo/Folder.h"

namespace Soak {

// The two programs, what is done to them, and when they come back.
class Programs {
 public:
  using Clock = std::chrono::steady_clock;

  static constexpr const char* kStoreName = "soak";

  enum class Which : std::uint8_t { agent, chip };

  // Starts both. Throws std::runtime_error.
  Programs(const Demo::Folder& folder, unsigned units);

  [[nodiscard]] std::string socket() const { return folder_.file("agent.sock"); }
  [[nodiscard]] std::string modelFile() const { return folder_.file("model.jsonl"); }
  [[nodiscard]] std::string summaryFile() const { return folder_.file("chip.json"); }

  // What can be done to a program; nothing is done to one that is not running.
  void kill(Which which, Clock::duration down);  // with SIGKILL, for so long
  void stop(Which which, Clock::duration down);  // with SIGTERM, as an operator would
  void pause(Which which, Clock::duration time);
  [[nodiscard]] bool runs(Which which) const;
  // Brings back what has been away for long enough, or with `all` whatever is away. Throws if a
  // program has ended by itself, with the last that it said.
  void tend(bool all);
  // When the agent was started last.
  [[nodiscard]] Clock::time_point agentStarted() const noexcept { return slots_[0].started; }

  // Asks the hardware side for its model and its own check. It answers with the files above.
  void askForModel();

 private:
  struct Slot {
    std::unique_ptr<Demo::Child> child;  // null while it is down
    Clock::time_point back;              // while it is down or paused
    bool paused = false;
    Clock::time_point started;
  };

  [[nodiscard]] Slot& slot(Which which) noexcept { return slots_[static_cast<int>(which)]; }
  void start(Which which);
  void resume(Slot& slot);
  void end(Which which, int signal, Clock::duration down);

  const Demo::Folder& folder_;
  std::string units_;
  std::string here_;  // where the programs lie
  Slot slots_[2];
};

}  // namespace Soak
