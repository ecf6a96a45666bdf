#include "demo/Programs.h"

#include <chrono>
#include <csignal>
#include <filesystem>
#include <string_view>
#include <vector>

namespace Demo {
namespace {

// How long nothing may move before the agent gives up.
constexpr const char* kPatienceSeconds = "30";

}  // namespace

Programs::Programs(const Input& input, const Folder& folder)
    : input_(input),
      folder_(folder),
      here_(std::filesystem::read_symlink("/proc/self/exe").parent_path().native()) {
  // A program that is asked for a summary before it listens must not die of it; who blocks the
  // signal gets it all the same.
  std::signal(SIGUSR1, SIG_IGN);
  startChip();
}

void Programs::startAgent(Then then) {
  std::vector<std::string> arguments{"--name",       kStoreName,  "--root",
                                     folder_.path(), "--units",   std::to_string(input_.units),
                                     "--intents",    input_.file, "--outcomes",
                                     outcomesFile(), "--summary", agentSummary()};
  const bool follows = then == Then::end && !input_.following.empty();
  if (follows) {
    arguments.insert(arguments.end(), {"--intents", "-"});
  }
  if (then == Then::end) {
    arguments.insert(arguments.end(), {"--exit-when-done", "--timeout", kPatienceSeconds});
  }
  fed_ = 0;
  agent_.reset();
  agent_ = std::make_unique<Child>("kelp-agent", here_ + "/kelp-agent", arguments, folder_.path(),
                                   follows ? Child::Input::pipe : Child::Input::none);
}

void Programs::startChip() {
  chip_.reset();
  chip_ = std::make_unique<Child>(
      "kelp-chip", here_ + "/kelp-chip",
      std::vector<std::string>{"--name", kStoreName, "--root", folder_.path(), "--check",
                               "--summary", chipSummary(), "--model", modelFile()},
      folder_.path());
}

void Programs::kill(Child& child) {
  child.signal(SIGKILL);
  static_cast<void>(child.waitFor(std::chrono::seconds(30)));
}

std::uint64_t Programs::feed() {
  if (fed_ < input_.following.size()) {
    fed_ += agent_->feed(std::string_view(input_.following).substr(fed_));
    if (fed_ == input_.following.size()) {
      agent_->endInput();
    }
  }
  return fed_;
}

}  // namespace Demo
