#include <fmt/format.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <optional>
#include <stdexcept>
#include <string>

#include "chip/HardwareSide.h"
#include "chip/Summary.h"

// kelp-chip: the hardware side of a kelp-agent, with a model of the chip in place of one.

namespace {

using Clock = std::chrono::steady_clock;

// How the process ends.
enum ExitStatus : int {
  kDone = 0,         // and the model is right, if --check asked for that
  kCouldNotRun = 1,  // the store can't be opened or is of another layout, a file not written
  kDiffers = 2,      // --check: the model is not what the collections hold, or there is no log
};

// The signals that the program answers to, as a descriptor.
class Signals {
 public:
  Signals() {
    sigset_t set;
    sigemptyset(&set);
    for (const int number : {SIGTERM, SIGINT, SIGUSR1}) {
      sigaddset(&set, number);
    }
    sigprocmask(SIG_BLOCK, &set, nullptr);
    fd_ = ::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    if (fd_ < 0) {
      throw std::runtime_error(fmt::format("cannot wait for signals: {}", std::strerror(errno)));
    }
  }
  ~Signals() { ::close(fd_); }
  Signals(const Signals&) = delete;
  Signals& operator=(const Signals&) = delete;

  [[nodiscard]] int fd() const noexcept { return fd_; }
  // The next signal that has come, or nothing.
  [[nodiscard]] std::optional<int> next() const {
    signalfd_siginfo info;
    if (::read(fd_, &info, sizeof(info)) != static_cast<ssize_t>(sizeof(info))) {
      return std::nullopt;
    }
    return static_cast<int>(info.ssi_signo);
  }

 private:
  int fd_ = -1;
};

struct Settings {
  Chip::Options chip;
  std::int64_t delayPerRecord = 0;
  std::int64_t delayPerBatch = 0;
  std::optional<std::int64_t> untilIdle;
  bool check = false;
  std::string summaryFile;
  std::string modelFile;
};

// Writes what was asked for; true unless a check was asked for and has found a difference.
bool conclude(Chip::HardwareSide& side, const Settings& settings, bool check) {
  std::optional<Chip::CheckResult> result;
  if (check) {
    result = side.check();
    fmt::print("{}", result->text());
    std::fflush(stdout);
  }
  if (!settings.summaryFile.empty()) {
    Chip::writeWhole(settings.summaryFile, Chip::summaryJson(side, result ? &*result : nullptr));
  }
  if (!settings.modelFile.empty()) {
    Chip::writeWhole(settings.modelFile, Chip::modelJsonLines(side));
  }
  return !result || result->same();
}

// Runs until a signal ends it, or nothing has been left to do for a while.
void run(Chip::HardwareSide& side, const Signals& signals, const Settings& settings) {
  auto lastWork = Clock::now();
  for (;;) {
    std::chrono::milliseconds most(60'000);
    if (settings.untilIdle && side.caughtUp()) {
      const auto end = lastWork + std::chrono::milliseconds(*settings.untilIdle);
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
      if (left.count() <= 0) {
        return;
      }
      most = left;
    }
    const auto turn = side.turn(signals.fd(), most);
    if (turn == Chip::HardwareSide::Turn::worked) {
      lastWork = Clock::now();
    }
    while (const auto signal = turn == Chip::HardwareSide::Turn::interrupted
                                   ? signals.next()
                                   : std::optional<int>()) {
      if (*signal != SIGUSR1) {
        return;
      }
      static_cast<void>(conclude(side, settings, true));
    }
  }
}

int kelpChip(Settings settings) {
  const Signals signals;
  settings.chip.delayPerRecord = std::chrono::microseconds(settings.delayPerRecord);
  settings.chip.delayPerBatch = std::chrono::microseconds(settings.delayPerBatch);
  Chip::HardwareSide side(settings.chip);
  run(side, signals, settings);
  return conclude(side, settings, settings.check) ? kDone : kDiffers;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app(
      "The hardware side of a kelp-agent: follows the logs of its tables, programs a model of the "
      "chip and reports how far it has come. SIGTERM and SIGINT end it; SIGUSR1 makes it compare "
      "the model with the configuration collections and print the result.");
  Settings settings;
  const auto most = CLI::Range(std::int64_t{0}, std::int64_t{60'000'000});
  app.add_option("--name", settings.chip.name, "Name of the agent's system")->capture_default_str();
  app.add_option("--root", settings.chip.root, "Folder in which the systems lie")
      ->capture_default_str();
  app.add_option("--delay-record", settings.delayPerRecord,
                 "Slow hardware: microseconds that a change of an entry takes")
      ->check(most)
      ->capture_default_str();
  app.add_option("--delay-batch", settings.delayPerBatch,
                 "Slow hardware: microseconds that a report takes")
      ->check(most)
      ->capture_default_str();
  app.add_option("--until-idle,--exit-on-idle", settings.untilIdle,
                 "End once all that is published has been on the chip for this many milliseconds")
      ->check(most);
  app.add_flag("--check", settings.check,
               "At the end compare the model with the configuration collections, entry by entry");
  app.add_option("--summary", settings.summaryFile,
                 "File for what was done, in JSON: at the end and at each SIGUSR1");
  app.add_option("--model", settings.modelFile,
                 "File for the entries on the chip, in JSON lines: at the end and at each SIGUSR1");
  app.footer(
      "Exit status: 0 after a signal or --until-idle; 1 if the store can't be opened or a file not "
      "written; 2 if --check found a difference, or no log to compare with.");
  CLI11_PARSE(app, argc, argv);

  try {
    return kelpChip(std::move(settings));
  } catch (const std::exception& error) {
    fmt::print(stderr, "kelp-chip: {}\n", error.what());
    return kCouldNotRun;
  }
}
