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
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "BrioSharedMem/EntityManager.h"
#include "common/Json.h"
#include "demo/Child.h"
#include "demo/Expected.h"
#include "demo/Folder.h"
#include "demo/Report.h"
#include "demo/Watch.h"

namespace Demo {
namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kStoreName = "demo";
// How long nothing may move before the agent gives up.
constexpr const char* kPatienceSeconds = "30";
constexpr std::chrono::seconds kChipEnds{120};
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

// The intents of a run, as a file and as values. A line that is none is an empty value: the agent
// tells of it.
struct Input {
  std::string file;
  std::vector<std::optional<Common::Intent>> lines;
  std::vector<std::uint64_t> ends;  // of the lines that hold intents, in bytes
  unsigned units = 1;
};

Input generated(const Plan& plan, const std::string& file) {
  Input input;
  input.file = file;
  input.units = plan.units;
  std::string text;
  for (Common::Intent& intent : metroEdge(plan)) {
    Common::appendIntent(text, intent);
    text += '\n';
    input.ends.push_back(text.size());
    input.lines.emplace_back(std::move(intent));
  }
  std::ofstream out(file, std::ios::binary);
  out << text;
  out.close();
  if (!out) {
    throw std::runtime_error(file + ": cannot be written; make room on its file system");
  }
  return input;
}

Input readFile(const std::string& file, unsigned units) {
  Input input;
  input.file = file;
  input.units = units;
  std::ifstream in(file, std::ios::binary);
  if (!in || std::filesystem::is_directory(file)) {
    throw std::runtime_error(file + ": cannot be read; name a file of intents, one on a line");
  }
  std::uint64_t bytes = 0;
  for (std::string line; std::getline(in, line);) {
    bytes += line.size() + 1;
    input.lines.emplace_back();
    if (Common::isBlankOrComment(line)) {
      continue;
    }
    input.ends.push_back(bytes);
    try {
      Common::Intent intent = Common::parseIntent(line);
      // The agent refuses lines of units that it cannot have.
      if (intent.unit.value < Common::kMostUnits) {
        input.units = std::max<unsigned>(input.units, intent.unit.value + 1U);
      }
      input.lines.back() = std::move(intent);
    } catch (const Common::InputError&) {
      // The agent says what is wrong with it.
    }
  }
  return input;
}

// The two programs, and what becomes of them on the way.
class Programs {
 public:
  Programs(const Input& input, const Folder& folder) : input_(input), folder_(folder) {
    const std::string self = std::filesystem::read_symlink("/proc/self/exe").parent_path().native();
    agentProgram_ = self + "/kelp-agent";
    chipProgram_ = self + "/kelp-chip";
    startChip();
    startAgent();
  }

  void startAgent() {
    agent_ = std::make_unique<Child>(
        "kelp-agent", agentProgram_,
        std::vector<std::string>{
            "--name", kStoreName, "--root", folder_.path(), "--units", std::to_string(input_.units),
            "--intents", input_.file, "--outcomes", folder_.file("outcomes.jsonl"), "--summary",
            folder_.file("agent.json"), "--exit-when-done", "--timeout", kPatienceSeconds},
        folder_.path());
  }
  void startChip() {
    chip_ = std::make_unique<Child>(
        "kelp-chip", chipProgram_,
        std::vector<std::string>{"--name", kStoreName, "--root", folder_.path(), "--check",
                                 "--summary", folder_.file("chip.json"), "--model",
                                 folder_.file("model.jsonl")},
        folder_.path());
  }
  static void kill(Child& child) {
    child.signal(SIGKILL);
    static_cast<void>(child.waitFor(std::chrono::seconds(30)));
  }
  [[nodiscard]] Child& agent() noexcept { return *agent_; }
  [[nodiscard]] Child& chip() noexcept { return *chip_; }

 private:
  const Input& input_;
  const Folder& folder_;
  std::string agentProgram_;
  std::string chipProgram_;
  std::unique_ptr<Child> chip_;
  std::unique_ptr<Child> agent_;
};

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
      programs.startAgent();
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

// Watches the programs until the agent has ended by itself. Throws if one fails.
void watchToTheEnd(Programs& programs, Watch& watch, Killer& killer, ProgressLine& line,
                   std::uint64_t intents) {
  const auto start = Clock::now();
  for (;;) {
    const bool ended = programs.agent().ended();
    Watch::Progress progress = watch.look(programs.agent().pid());
    if (ended && !killer.done()) {
      programs.startAgent();  // it was too fast for the killer
    } else if (ended) {
      progress = watch.look(programs.agent().pid());
      const auto status = programs.agent().exitStatus();
      // Some intents may be wrong or fail: all others were carried out.
      if (status == 0 || status == kAgentSkippedLines || status == kAgentFailedIntents) {
        progress.read = intents;  // its file is closed
        line.show(progress, Clock::now() - start, true);
        return;
      }
      line.tell("");
      throw std::runtime_error(programs.agent().obituary());
    }
    killer.strikeIfDue(programs, progress, line);
    if (programs.chip().ended()) {
      line.tell("");
      throw std::runtime_error(programs.chip().obituary());
    }
    if (interruptedBy != 0) {
      line.tell("");
      throw std::runtime_error("interrupted");
    }
    line.show(progress, Clock::now() - start, false);
    std::this_thread::sleep_for(std::chrono::milliseconds(killer.done() ? 10 : 1));
  }
}

// Folds the intents that the agent says it has carried out.
void fold(const Input& input, const std::string& outcomes, Expected& expected, Outcomes& counts) {
  std::ifstream file(outcomes);
  std::vector<bool> done(input.lines.size(), false);
  for (std::string text; std::getline(file, text);) {
    const Common::Json line = Common::parseLine(text);
    const auto number = line.at("line").get<std::size_t>();
    if (number == 0 || number > done.size() || done[number - 1]) {
      throw std::runtime_error(outcomes + ": an outcome of no intent, or a second one: " + text);
    }
    if (line.at("outcome") == "success") {
      done[number - 1] = true;
      ++counts.succeeded;
    } else {
      ++counts.failed;
    }
  }
  for (std::size_t i = 0; i < done.size(); ++i) {
    if (done[i]) {
      expected.apply(input.lines[i].value());
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
  const Input input = settings.file.empty() ? generated(settings.plan, folder.file("intents.jsonl"))
                                            : readFile(settings.file, 1);
  BrioSharedMem::EntityManager::rootIs(kStoreName, folder.path());
  const auto memory = BrioSharedMem::EntityManager::getEntityManager(kStoreName, false);

  Report report;
  const auto start = Clock::now();
  Programs programs(input, folder);
  Watch watch(memory, input.file, input.ends);
  ProgressLine line(input.ends.size(), settings.quiet);
  Killer killer(settings.kills, settings.plan.seed, input.ends.size());
  watchToTheEnd(programs, watch, killer, line, input.ends.size());
  report.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  report.agentStatus = programs.agent().exitStatus().value();

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
  Expected expected;
  fold(input, folder.file("outcomes.jsonl"), expected, report.outcomes);
  report.expectedEntries = expected.entries();
  report.chipAndIntents = expected.compareChip(folder.file("model.jsonl"));
  report.collectionsAndIntents = expected.compareCollections(*memory);
  report.readSummaries(folder.file("agent.json"), folder.file("chip.json"));
  fmt::print("{}", report.text());
  if (report.agentStatus != 0) {
    fmt::print("{}\n", programs.agent().obituary());
  }
  if (!report.good() && !settings.keep) {
    folder.keep();
    fmt::print("all that the programs wrote is kept in {}\n", folder.path());
  }
  return report.good() ? 0 : 1;
}

}  // namespace Demo
