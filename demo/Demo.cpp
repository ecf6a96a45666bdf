#include "demo/Demo.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <stdexcept>
#include <thread>
#include <vector>

#include "BrioSharedMem/EntityManager.h"
#include "demo/Child.h"
#include "demo/Expected.h"
#include "demo/Folder.h"
#include "demo/Halfway.h"
#include "demo/Input.h"
#include "demo/OutcomeTail.h"
#include "demo/Profiles.h"
#include "demo/Programs.h"
#include "demo/Report.h"
#include "demo/Watch.h"

namespace Demo {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kChipEnds{120};
// How long a restarted agent may need until nothing moves any more.
constexpr std::chrono::seconds kReplayEnds{120};
// After so long without a change an agent has done what it can.
constexpr std::chrono::milliseconds kIdle{200};
// Exit statuses of the programs after which there is something to report.
constexpr int kChipDiffers = 2;
constexpr int kAgentSkippedLines = 2;
constexpr int kAgentFailedIntents = 3;
// A generous guess at what a run stores: an intent's line, outcome, records and model line.
constexpr std::uint64_t kBytesPerIntent = 3000;
constexpr std::uint64_t kBytesAnyway = 256 << 20;

// What ended the demo from outside; 0 if nothing did.
std::atomic<int> interruptedBy{0};
static_assert(std::atomic<int>::is_always_lock_free, "a signal handler stores it");
void interrupt(int number) { interruptedBy = number; }

// One line that is written over again and again on a terminal, and now and then elsewhere.
class ProgressLine {
 public:
  ProgressLine(std::uint64_t intents, bool quiet)
      : intents_(intents), quiet_(quiet), onScreen_(::isatty(STDERR_FILENO) == 1) {}

  void show(const Watch::Progress& progress, Clock::duration since, bool last) {
    const auto now = Clock::now();
    if (quiet_ || (!last && now < next_)) {
      return;
    }
    next_ = now + (onScreen_ ? std::chrono::milliseconds(50) : std::chrono::milliseconds(1000));
    fmt::print(stderr,
               "{}intents read {:>9} of {}   committed {:>9}   on chip {:>9}   pending {:>7}"
               "   {:5.1f} s{}",
               onScreen_ ? "\r" : "", progress.read, intents_, progress.committed, progress.onChip,
               progress.pending(), std::chrono::duration<double>(since).count(),
               onScreen_ && !last ? "" : "\n");
    std::fflush(stderr);
  }
  void tell(const std::string& text) {
    if (!quiet_) {
      fmt::print(stderr, "{}{}\n", onScreen_ ? "\n" : "", text);
    }
  }

 private:
  std::uint64_t intents_;
  bool quiet_;
  bool onScreen_;
  Clock::time_point next_;
};

// Kills one of the programs, or both, somewhere on the way, and starts them again.
class Killer {
 public:
  Killer(unsigned kills, std::uint64_t seed, std::uint64_t intents)
      : left_(kills), random_(seed), intents_(intents) {
    aim();
  }

  [[nodiscard]] bool done() const noexcept { return left_ == 0; }
  void strikeIfDue(Programs& programs, const Watch::Progress& progress, ProgressLine& line) {
    if (done() || progress.read < at_) {
      return;
    }
    const bool agent = which_ % 3 != 1;
    const bool chip = which_ % 3 != 0;
    ++which_;
    --left_;
    aim();
    line.tell(fmt::format("killing {}{}{} and starting again", agent ? "kelp-agent" : "",
                          agent && chip ? " and " : "", chip ? "kelp-chip" : ""));
    if (agent) {
      Programs::kill(programs.agent());
    }
    if (chip) {
      Programs::kill(programs.chip());
      programs.startChip();
    }
    if (agent) {
      programs.startAgent(Programs::Then::end);
    }
  }

 private:
  // Where in its file the agent is then; a new agent starts over.
  void aim() { at_ = 1 + random_() % std::max<std::uint64_t>(intents_, 1); }

  unsigned left_;
  unsigned which_ = 0;
  std::mt19937_64 random_;
  std::uint64_t intents_;
  std::uint64_t at_ = 0;
};

// What all that follows looks at while it waits.
struct Scene {
  const Input& input;
  Programs& programs;
  Watch& watch;
  ProgressLine& line;
  Clock::time_point start;

  // Throws if somebody has ended who must not, or the demo is to end.
  void mind() const {
    std::string why;
    if (programs.chip().ended()) {
      why = programs.chip().obituary();
    } else if (interruptedBy != 0) {
      why = "interrupted";
    }
    if (!why.empty()) {
      fail(why);
    }
  }
  [[noreturn]] void fail(const std::string& why) const {
    line.tell("");
    throw std::runtime_error(why);
  }
  [[nodiscard]] Watch::Progress look(std::uint64_t fed) const {
    Watch::Progress progress = watch.look(programs.agent().pid());
    if (fed != 0) {
      const auto& ends = input.ends;
      const auto read = std::upper_bound(ends.begin(), ends.end(), input.fileBytes + fed);
      progress.read = static_cast<std::uint64_t>(read - ends.begin());
    }
    return progress;
  }
  void show(const Watch::Progress& progress, bool last) const {
    line.show(progress, Clock::now() - start, last);
  }
};

// Watches the programs until the agent has ended by itself, and hands it what follows on its file.
// Throws if one fails.
void watchToTheEnd(const Scene& scene, Killer& killer) {
  Programs& programs = scene.programs;
  for (;;) {
    const bool ended = programs.agent().ended();
    Watch::Progress progress = scene.look(programs.feedAndEnd());
    if (ended && !killer.done()) {
      programs.startAgent(Programs::Then::end);  // it was too fast for the killer
    } else if (ended) {
      const auto status = programs.agent().exitStatus();
      // Some intents may be wrong or fail: all others were carried out.
      if (status == 0 || status == kAgentSkippedLines || status == kAgentFailedIntents) {
        progress.read = scene.input.ends.size();  // its file is closed
        scene.show(progress, true);
        return;
      }
      scene.fail(programs.agent().obituary());
    }
    killer.strikeIfDue(programs, progress, scene.line);
    scene.mind();
    scene.show(progress, false);
    std::this_thread::sleep_for(std::chrono::milliseconds(killer.done() ? 10 : 1));
  }
}

// Waits until `holds` for what can be seen. Throws if it does not come true in time.
void watchUntil(const Scene& scene, const char* what,
                const std::function<bool(const Watch::Progress&)>& holds) {
  const auto end = Clock::now() + kReplayEnds;
  for (;;) {
    const Watch::Progress progress = scene.look(0);
    if (holds(progress)) {
      return;
    }
    if (Clock::now() > end) {
      scene.fail(fmt::format("{} does not come: {}", what, scene.programs.agent().obituary()));
    }
    scene.mind();
    scene.show(progress, false);
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

// Has an agent begin, kills it while it is at work on the first half, and has the next one replay
// that half, before the features go on.
Restarted restartHalfway(const Scene& scene, const BrioSharedMem::EntityManager& memory) {
  Programs& programs = scene.programs;
  const std::uint64_t half = scene.input.inFile;
  const std::uint64_t enough = half - half / 8;
  std::uint64_t most = 0;
  bool closed = false;
  std::uint64_t onChip = 0;
  auto moved = Clock::now();
  programs.startAgent(Programs::Then::stay);
  watchUntil(scene, "the first half", [&](const Watch::Progress& progress) {
    if (programs.agent().ended()) {
      scene.fail(programs.agent().obituary());
    }
    // It closes a file that it has read.
    closed = closed || progress.read < most;
    most = std::max(most, progress.read);
    if (progress.onChip != onChip) {
      onChip = progress.onChip;
      moved = Clock::now();
    }
    // A short file may be read before anybody looks.
    const bool idle = Clock::now() - moved > kIdle;
    // There must be something to leave alone.
    return (closed || idle || most >= enough) && onChip * 2 >= enough;
  });
  Programs::kill(programs.agent());
  scene.line.tell(fmt::format("killed kelp-agent with SIGKILL after about {} intents", most));
  const auto settled = [](const Watch::Progress& progress) { return progress.pending() == 0; };
  watchUntil(scene, "the chip's report", settled);
  Halfway halfway(scene.input, programs, memory);
  halfway.killed();

  programs.startAgent(Programs::Then::end);
  watchUntil(scene, "the end of the replay", [&](const Watch::Progress& progress) {
    if (programs.agent().ended()) {
      scene.fail(programs.agent().obituary());
    }
    return settled(progress) && !programs.agent().said("replay complete: ").empty();
  });
  scene.line.tell("started again: " + programs.agent().said("replay complete: "));
  return halfway.replayed();
}

// Has profiles change, run out and come free, behind the life of the switch.
ProfileFigures takeProfiles(const Scene& scene, const BrioSharedMem::EntityManager& memory) {
  Programs& programs = scene.programs;
  Profiles profiles(scene.input, programs, memory, [&](const char* what, const auto& holds) {
    watchUntil(scene, what, [&](const Watch::Progress& progress) {
      if (programs.agent().ended()) {
        scene.fail(programs.agent().obituary());
      }
      return holds() && progress.pending() == 0;
    });
  });
  return profiles.run();
}

// Starts the agent once more on all that was asked for. Gives the changes that reach the chip.
std::uint64_t startOnceMore(const Scene& scene) {
  Programs& programs = scene.programs;
  const std::uint64_t before = programs.changesOnChip();
  programs.startAgent(Programs::Then::endAgain);
  watchUntil(scene, "the end of the last start",
             [&](const Watch::Progress&) { return programs.agent().ended(); });
  if (programs.agent().exitStatus() != 0) {
    scene.fail(programs.agent().obituary());
  }
  return programs.changesOnChip() - before;
}

// Folds the intents that the agent says it has carried out.
void fold(const Input& input, const std::string& outcomesFile, Expected& expected,
          Outcomes& counts) {
  OutcomeTail outcomes(input, outcomesFile);
  outcomes.read();
  for (std::size_t i = 0; i < input.lines.size(); ++i) {
    if (!input.lines[i]) {
      continue;
    }
    const OutcomeTail::Count count = outcomes.count(i, i + 1);
    counts.failed += count.failed;
    counts.cameThrough += count.cameThrough;
    if (outcomes.isDone(i)) {
      ++counts.succeeded;
      expected.apply(*input.lines[i]);
    }
  }
}

}  // namespace

int runDemo(const Settings& settings) {
  std::uint64_t size = settings.plan.intents * kBytesPerIntent;
  if (!settings.file.empty()) {
    std::error_code absent;
    size = std::filesystem::file_size(settings.file, absent) * 10;
  }
  Folder folder(size + kBytesAnyway);
  if (settings.keep) {
    folder.keep();
    fmt::print("all that the programs write is kept in {}\n", folder.path());
  }
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    std::signal(number, interrupt);
  }
  // With kills at random there is no telling how much a restart may change.
  const bool halves = settings.file.empty() && settings.kills == 0 && settings.plan.intents >= 2;
  const Input input = settings.file.empty()
                          ? generateInput(settings.plan, folder.file("intents.jsonl"), halves)
                          : readInput(settings.file);
  BrioSharedMem::EntityManager::rootIs(Programs::kStoreName, folder.path());
  const auto memory = BrioSharedMem::EntityManager::getEntityManager(Programs::kStoreName, false);

  Report report;
  const auto start = Clock::now();
  Programs programs(input, folder, settings.inspect);
  Watch watch(memory, input.file, input.ends);
  ProgressLine line(input.ends.size(), settings.quiet);
  Killer killer(settings.kills, settings.plan.seed, input.ends.size());
  const Scene scene{input, programs, watch, line, start};
  if (halves) {
    report.restarted = restartHalfway(scene, *memory);
    if (input.profiles) {
      report.profiles = takeProfiles(scene, *memory);
    }
  } else {
    programs.startAgent(Programs::Then::end);
  }
  watchToTheEnd(scene, killer);
  report.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  report.agentStatus = programs.agent().exitStatus().value();
  const std::string agentSays = programs.agent().obituary();
  Expected expected;
  fold(input, programs.outcomesFile(), expected, report.outcomes);
  if (report.profiles) {
    report.profiles->changes = startOnceMore(scene);
  }

  programs.chip().signal(SIGTERM);
  if (!programs.chip().waitFor(kChipEnds)) {
    throw std::runtime_error("kelp-chip does not end: " + programs.chip().obituary());
  }
  const auto chipStatus = programs.chip().exitStatus();
  if (chipStatus != 0 && chipStatus != kChipDiffers) {
    throw std::runtime_error(programs.chip().obituary());
  }
  report.chipEqual = chipStatus == 0;
  report.intents = input.ends.size();
  report.expectedEntries = expected.entries();
  report.chipAndIntents = expected.compareChip(programs.modelFile());
  report.collectionsAndIntents = expected.compareCollections(*memory);
  report.readSummaries(programs.agentSummary(), programs.chipSummary());
  fmt::print("{}", report.text());
  if (report.agentStatus != 0 && !(report.profiles && report.good())) {
    fmt::print("{}\n", agentSays);
  }
  if (!report.good() && !settings.keep) {
    folder.keep();
    fmt::print("all that the programs wrote is kept in {}\n", folder.path());
  }
  return report.good() ? 0 : 1;
}

}  // namespace Demo
