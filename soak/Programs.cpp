#include "soak/Programs.h"

#include <csignal>
#include <filesystem>
#include <stdexcept>
#include <vector>

namespace Soak {
namespace {

constexpr std::chrono::seconds kEnds{60};

const char* nameOf(Programs::Which which) {
  return which == Programs::Which::agent ? "kelp-agent" : "kelp-chip";
}

}  // namespace

Programs::Programs(const Demo::Folder& folder, unsigned units)
    : folder_(folder),
      units_(std::to_string(units)),
      here_(std::filesystem::read_symlink("/proc/self/exe").parent_path().native()) {
  // A program that is asked for something before it listens must not die of it; who blocks a signal
  // gets it all the same.
  std::signal(SIGUSR1, SIG_IGN);
  start(Which::chip);
  start(Which::agent);
}

void Programs::start(Which which) {
  std::vector<std::string> arguments{"--name", kStoreName, "--root", folder_.path()};
  if (which == Which::agent) {
    for (const std::string& more :
         {std::string("--units"), units_, std::string("--socket"), socket()}) {
      arguments.push_back(more);
    }
  } else {
    for (const std::string& more :
         {std::string("--summary"), summaryFile(), std::string("--model"), modelFile()}) {
      arguments.push_back(more);
    }
  }
  Slot& at = slot(which);
  at.started = Clock::now();
  at.paused = false;
  at.child = std::make_unique<Demo::Child>(nameOf(which), here_ + "/" + nameOf(which), arguments,
                                           folder_.path());
}

bool Programs::runs(Which which) const {
  const Slot& at = slots_[static_cast<int>(which)];
  return at.child != nullptr && !at.paused;
}

void Programs::end(Which which, int signal, Clock::duration down) {
  Slot& at = slot(which);
  if (at.child == nullptr) {
    return;
  }
  resume(at);
  at.child->signal(signal);
  if (!at.child->waitFor(kEnds)) {
    throw std::runtime_error("it was told to end, and does not: " + at.child->obituary());
  }
  at.child.reset();
  at.back = Clock::now() + down;
}

void Programs::kill(Which which, Clock::duration down) { end(which, SIGKILL, down); }

void Programs::stop(Which which, Clock::duration down) { end(which, SIGTERM, down); }

void Programs::pause(Which which, Clock::duration time) {
  if (runs(which)) {
    Slot& at = slot(which);
    at.child->signal(SIGSTOP);
    at.paused = true;
    at.back = Clock::now() + time;
  }
}

void Programs::resume(Slot& slot) {
  if (slot.paused) {
    slot.child->signal(SIGCONT);
    slot.paused = false;
  }
}

void Programs::tend(bool all) {
  const auto now = Clock::now();
  for (const Which which : {Which::agent, Which::chip}) {
    Slot& at = slot(which);
    const bool back = all || now >= at.back;
    if (at.child == nullptr) {
      if (back) {
        start(which);
      }
      continue;
    }
    if (back) {
      resume(at);
    }
    if (at.child->ended()) {
      throw std::runtime_error("nobody has told it to: " + at.child->obituary());
    }
  }
}

void Programs::askForModel() {
  std::filesystem::remove(modelFile());
  slot(Which::chip).child->signal(SIGUSR1);
}

}  // namespace Soak
