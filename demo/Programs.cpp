#include "demo/Programs.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string_view>
#include <thread>
#include <vector>

namespace Demo {
namespace {

// How long nothing may move before the agent gives up.
constexpr const char* kPatienceSeconds = "30";
constexpr std::chrono::seconds kChipAnswers{30};

}  // namespace

Programs::Programs(const Input& input, const Folder& folder, const std::string& inspect)
    : input_(input),
      folder_(folder),
      inspect_(inspect.empty() ? inspect : std::filesystem::absolute(inspect).native()),
      here_(std::filesystem::read_symlink("/proc/self/exe").parent_path().native()) {
  // A program that is asked for a summary before it listens must not die of it; who blocks the
  // signal gets it all the same.
  std::signal(SIGUSR1, SIG_IGN);
  startChip();
}

void Programs::startAgent(Then then) {
  const bool again = then == Then::endAgain;
  std::vector<std::string> arguments{"--name",     kStoreName,
                                     "--root",     folder_.path(),
                                     "--units",    std::to_string(input_.units),
                                     "--intents",  again ? input_.allFile : input_.file,
                                     "--outcomes", again ? "none" : outcomesFile()};
  if (!again) {
    arguments.insert(arguments.end(), {"--summary", agentSummary()});
  }
  if (!inspect_.empty()) {
    arguments.insert(arguments.end(), {"--inspect", inspect_});
  }
  const bool follows = then == Then::end && !input_.following.empty();
  if (follows) {
    arguments.insert(arguments.end(), {"--intents", "-"});
  }
  if (then != Then::stay) {
    arguments.insert(arguments.end(), {"--exit-when-done", "--timeout", kPatienceSeconds});
  }
  fed_ = 0;
  ended_ = false;
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

std::uint64_t Programs::feed(std::uint64_t upTo) {
  const auto all = std::string_view(input_.following).substr(0, upTo);
  if (fed_ < all.size()) {
    fed_ += agent_->feed(all.substr(fed_));
  }
  return fed_;
}

std::uint64_t Programs::feedAndEnd() {
  if (!input_.following.empty() && !ended_ &&
      feed(input_.following.size()) == input_.following.size()) {
    agent_->endInput();
    ended_ = true;
  }
  return fed_;
}

std::uint64_t Programs::changesOnChip() {
  const std::string last = modelFile();  // written behind the summary
  std::filesystem::remove(last);
  chip_->signal(SIGUSR1);
  const auto end = std::chrono::steady_clock::now() + kChipAnswers;
  while (!std::filesystem::exists(last)) {
    if (std::chrono::steady_clock::now() > end || chip_->ended()) {
      throw std::runtime_error("no summary comes: " + chip_->obituary());
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  std::ifstream in(chipSummary());
  const auto summary = nlohmann::json::parse(in);
  std::uint64_t changes = 0;
  for (const auto& table : summary.at("tables")) {
    for (const auto& unit : table.at("units")) {
      for (const char* counter : {"programmed", "overwritten", "deleted"}) {
        changes += unit.at(counter).get<std::uint64_t>();
      }
    }
  }
  return changes;
}

}  // namespace Demo
