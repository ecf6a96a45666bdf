#include <fmt/format.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "AgentHalf.h"
#include "chip/HardwareSide.h"

// Agent and hardware side as two processes: how many entries a second go all the way from
// entryWrite to the response handler, and how long one takes alone. Beside the times stand what the
// same work costs without a second process, and what it costs two processes merely to wake each
// other over a pair of pipes.

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kName = "bench";
constexpr std::uint64_t kEntries = 2'000'000;
constexpr std::uint64_t kWindow = 10'000;
constexpr int kRounds = 5;
constexpr int kSingles = 2000;
constexpr std::chrono::microseconds kIdle{300};

// The other program of this file: the hardware side, until it is told to end.
int hardwareSide(const std::string& root) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  ::sigprocmask(SIG_BLOCK, &set, nullptr);
  const int signals = ::signalfd(-1, &set, SFD_CLOEXEC);
  Chip::Options options;
  options.name = kName;
  options.root = root;
  options.say = [](std::string_view) {};
  Chip::HardwareSide side(options);
  while (side.turn(signals, std::chrono::seconds(60)) != Chip::HardwareSide::Turn::interrupted) {
  }
  const Chip::CheckResult check = side.check();
  if (!check.same()) {
    fmt::print(stderr, "{}", check.text());
    return 1;
  }
  return 0;
}

class Child {
 public:
  explicit Child(const std::string& root) {
    const std::string self = std::filesystem::read_symlink("/proc/self/exe").native();
    pid_ = ::fork();
    if (pid_ == 0) {
      ::execl(self.c_str(), self.c_str(), "--hardware-side", root.c_str(), nullptr);
      ::_exit(127);
    }
  }
  ~Child() {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  // Processor time so far, in seconds.
  [[nodiscard]] double processorTime() const {
    std::FILE* const file = std::fopen(fmt::format("/proc/{}/schedstat", pid_).c_str(), "r");
    unsigned long long nanoseconds = 0;
    if (file != nullptr) {
      static_cast<void>(!std::fscanf(file, "%llu", &nanoseconds));
      std::fclose(file);
    }
    return static_cast<double>(nanoseconds) / 1e9;
  }
  void end() {
    ::kill(pid_, SIGTERM);
    int status = 0;
    ::waitpid(std::exchange(pid_, -1), &status, 0);
    if (status != 0) {
      throw std::runtime_error("the chip does not hold what was written");
    }
  }

 private:
  pid_t pid_ = -1;
};

double seconds(Clock::duration time) { return std::chrono::duration<double>(time).count(); }

struct Distribution {
  double median = 0;
  double most = 0;  // of 99 in 100
};

Distribution distribution(std::vector<std::uint64_t> times) {
  std::sort(times.begin(), times.end());
  return {static_cast<double>(times[times.size() / 2]) / 1000,
          static_cast<double>(times[times.size() * 99 / 100]) / 1000};
}

// Two processes wake each other by a byte each way: what any answer of a sleeping process costs.
Distribution pipeRoundTrips() {
  int there[2];
  int back[2];
  if (::pipe(there) != 0 || ::pipe(back) != 0) {
    throw std::runtime_error("no pipe");
  }
  const pid_t peer = ::fork();
  if (peer == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    char byte = 0;
    pollfd wait{there[0], POLLIN, 0};
    while (::poll(&wait, 1, -1) == 1 && ::read(there[0], &byte, 1) == 1 && byte != 'q') {
      static_cast<void>(!::write(back[1], &byte, 1));
    }
    ::_exit(0);
  }
  std::vector<std::uint64_t> times;
  char byte = 'x';
  for (int i = 0; i < kSingles; ++i) {
    std::this_thread::sleep_for(kIdle);
    const auto start = Clock::now();
    static_cast<void>(!::write(there[1], &byte, 1));
    pollfd wait{back[0], POLLIN, 0};
    static_cast<void>(::poll(&wait, 1, -1));
    static_cast<void>(!::read(back[0], &byte, 1));
    times.push_back(
        static_cast<std::uint64_t>((Clock::now() - start) / std::chrono::nanoseconds(1)));
  }
  byte = 'q';
  static_cast<void>(!::write(there[1], &byte, 1));
  ::waitpid(peer, nullptr, 0);
  return distribution(std::move(times));
}

std::string scratchFolder() {
  std::string folder = std::filesystem::is_directory("/dev/shm") ? "/dev/shm" : "/tmp";
  folder += "/kelp-system-bench-XXXXXX";
  if (::mkdtemp(folder.data()) == nullptr) {
    throw std::runtime_error("cannot make " + folder);
  }
  return folder;
}

// What one number of units comes to, best of the rounds.
struct Result {
  double alone = 1e30;     // seconds an entry, one process
  double together = 1e30;  // the same, two processes
  double waited = 0;       // share of that time that the agent's half had nothing to do
  double chipTime = 0;     // processor time of the hardware side, seconds an entry, all rounds
  Distribution single;
};

// Runs a measurement in a process of its own, since a store belongs to a process for its life.
template <class Run>
Result inAProcess(Run&& run) {
  void* const shared =
      ::mmap(nullptr, sizeof(Result), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (shared == MAP_FAILED) {
    throw std::runtime_error("no shared memory");
  }
  const std::string folder = scratchFolder();
  std::fflush(stdout);
  const pid_t child = ::fork();
  if (child == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    try {
      const Result result = run(folder);
      std::memcpy(shared, &result, sizeof(result));
      ::_exit(0);
    } catch (const std::exception& error) {
      fmt::print(stderr, "system_bench: {}\n", error.what());
      ::_exit(1);
    }
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  std::error_code ignored;
  std::filesystem::remove_all(folder, ignored);
  if (status != 0) {
    throw std::runtime_error("a measurement failed");
  }
  Result result;
  std::memcpy(&result, shared, sizeof(result));
  ::munmap(shared, sizeof(Result));
  return result;
}

Result alone(const std::string& folder, unsigned units) {
  Result result;
  AgentHalf agent(kName, folder, units);
  agent.reportsItselfIs(true);
  agent.write(kEntries, kWindow);  // from here on pages and slots are there
  for (int round = 0; round < kRounds; ++round) {
    const auto start = Clock::now();
    agent.write(kEntries, kWindow);
    result.alone = std::min(result.alone, seconds(Clock::now() - start) / kEntries);
  }
  return result;
}

Result together(const std::string& folder, unsigned units) {
  Result result;
  AgentHalf agent(kName, folder, units);
  Child chip(folder);
  agent.write(kEntries, kWindow);
  const double chipBefore = chip.processorTime();
  for (int round = 0; round < kRounds; ++round) {
    static_cast<void>(agent.takeWaited());
    const auto start = Clock::now();
    agent.write(kEntries, kWindow);
    const double took = seconds(Clock::now() - start);
    if (took / kEntries < result.together) {
      result.together = took / kEntries;
      result.waited = static_cast<double>(agent.takeWaited()) / 1e9 / took;
    }
  }
  result.chipTime = (chip.processorTime() - chipBefore) / (kRounds * kEntries);
  std::vector<std::uint64_t> times;
  for (int i = 0; i < kSingles; ++i) {
    std::this_thread::sleep_for(kIdle);
    times.push_back(agent.writeOne());
  }
  result.single = distribution(std::move(times));
  chip.end();
  return result;
}

void measureAll() {
  const Distribution pipes = pipeRoundTrips();
  fmt::print(
      "Two processes wake each other over pipes: median {:.1f} us, 99 in 100 below {:.1f} us\n\n",
      pipes.median, pipes.most);
  fmt::print("{:>5}  {:>12}  {:>12} {:>9} {:>12} {:>8}  {:>9} {:>9} {:>9}\n", "units",
             "one process", "two", "of one", "chip's cpu", "agent", "single", "", "of pipes");
  fmt::print("{:>5}  {:>12}  {:>12} {:>9} {:>12} {:>8}  {:>9} {:>9} {:>9}\n", "", "entries/s",
             "entries/s", "process", "ns an entry", "waits", "median us", "99 % us", "median");
  for (const unsigned units : {1U, 2U, 8U}) {
    const double one =
        inAProcess([&](const std::string& folder) { return alone(folder, units); }).alone;
    const Result result =
        inAProcess([&](const std::string& folder) { return together(folder, units); });
    fmt::print(
        "{:>5}  {:>12.0f}  {:>12.0f} {:>9.2f} {:>12.0f} {:>7.0f}%  {:>9.1f} {:>9.1f} {:>9.2f}\n",
        units, 1 / one, 1 / result.together, one / result.together, result.chipTime * 1e9,
        result.waited * 100, result.single.median, result.single.most,
        result.single.median / pipes.median);
    std::fflush(stdout);
  }
  fmt::print("\nGoals: 1,000,000 entries/s; a single entry in less than 50 us in the median.\n");
}

}  // namespace

int main(int argc, char** argv) {
  try {
    if (argc == 3 && std::strcmp(argv[1], "--hardware-side") == 0) {
      return hardwareSide(argv[2]);
    }
    measureAll();
    return 0;
  } catch (const std::exception& error) {
    fmt::print(stderr, "system_bench: {}\n", error.what());
    return 1;
  }
}
