#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "demo/Child.h"
#include "demo/Folder.h"
#include "demo/Input.h"

namespace Demo {

// The two programs of a run.
class Programs {
 public:
  static constexpr const char* kStoreName = "demo";

  // What an agent does when it has read the file.
  enum class Then : std::uint8_t {
    end,  // when all is done, after what comes in through its standard input
    stay,
    endAgain,  // the same once more, of what has been asked for by now, all from files
  };

  // Starts the hardware side. Agents are inspected at `inspect`, unless it is empty. Throws
  // std::runtime_error, as all that start something.
  Programs(const Input& input, const Folder& folder, const std::string& inspect);

  void startAgent(Then then);
  void startChip();
  static void kill(Child& child);
  [[nodiscard]] Child& agent() noexcept { return *agent_; }
  [[nodiscard]] Child& chip() noexcept { return *chip_; }

  // Hands the agent's standard input what follows on the file, up to so many bytes of it and as
  // much as goes without waiting. Gives how many bytes it has been handed in all.
  std::uint64_t feed(std::uint64_t upTo);
  // The same for all of it, and closes it behind the last.
  std::uint64_t feedAndEnd();

  // Entries that have changed on the chip since it was started, by its own counters. Throws
  // std::runtime_error if it does not answer.
  [[nodiscard]] std::uint64_t changesOnChip();

  [[nodiscard]] std::string outcomesFile() const { return folder_.file("outcomes.jsonl"); }
  [[nodiscard]] std::string agentSummary() const { return folder_.file("agent.json"); }
  [[nodiscard]] std::string chipSummary() const { return folder_.file("chip.json"); }
  [[nodiscard]] std::string modelFile() const { return folder_.file("model.jsonl"); }

 private:
  const Input& input_;
  const Folder& folder_;
  std::string inspect_;
  std::string here_;  // where the programs lie
  std::unique_ptr<Child> chip_;
  std::unique_ptr<Child> agent_;
  std::uint64_t fed_ = 0;
  bool ended_ = false;  // the agent's standard input
};

}  // namespace Demo
