#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "Peer.h"
#include "TempRoot.h"

// The inspection socket of the real agent, beside the real hardware side: how long one attribute
// takes to be read, how long a table of 65,536 entries takes to be listed by pages, on an agent
// that has nothing else to do and on one that keeps committing, and what the latter loses by it.

namespace {

using Clock = std::chrono::steady_clock;
using InspectBench::Peer;

constexpr unsigned kEntries = 65536;
constexpr int kRounds = 7;
constexpr int kReads = 5000;
constexpr std::chrono::seconds kSpell{2};
const std::string kTable = "KelpEmServer::Isem1TagKelpInterface/swTableSet[0]";

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Writes of one entry each; a round differs from the one before it in every entry.
std::string writes(unsigned first, unsigned count, unsigned round) {
  std::string text;
  for (unsigned i = first; i < first + count; ++i) {
    text +=
        fmt::format(R"({{"op":"write","table":"Isem1Tag","unit":0,"key":{{"port":{},"vlan":{}}},)"
                    R"("resources":{{"attachmentCircuit":{}}}}})"
                    "\n",
                    i / 4000, 1 + i % 4000, 1 + (i + round) % 5000);
  }
  return text;
}

void fill(Peer& intents) {
  constexpr unsigned kPortion = 1024;
  for (unsigned first = 0; first < kEntries; first += kPortion) {
    intents.send(writes(first, kPortion, 0));
    for (unsigned left = kPortion; left != 0;) {
      left -= static_cast<unsigned>(intents.skipLines());
    }
  }
}

// The cursor of a page; empty at the end.
std::string_view cursorOf(std::string_view page) {
  const std::size_t at = page.rfind("\"cursor\":");
  if (at == std::string_view::npos) {
    throw std::runtime_error(std::string(page.substr(0, 300)));
  }
  const std::string_view cursor = page.substr(at + 9, page.find('}', at) - at - 9);
  return cursor == "null" ? std::string_view() : cursor;
}

std::size_t countOf(std::string_view text, std::string_view what) {
  std::size_t count = 0;
  for (std::size_t at = 0; (at = text.find(what, at)) != std::string_view::npos; ++at) {
    ++count;
  }
  return count;
}

// The entries as they are, and as a copy has them.
constexpr const char* kLive = "entries";
constexpr const char* kCopy = "getTableEntries_py/tableEntries";

// Seconds for a list of the whole table. Counts its members, if that is asked for.
double list(Peer& inspector, const char* collection, std::size_t* members) {
  const auto start = Clock::now();
  std::string request = fmt::format(R"({{"jsonrpc":"2.0","id":1,"method":"iterate",)"
                                    R"("params":{{"path":"{}/{}","limit":10000}}}})"
                                    "\n",
                                    kTable, collection);
  while (!request.empty()) {
    inspector.send(request);
    const std::string_view page = inspector.line();
    if (members != nullptr) {
      *members += countOf(page, "\"logEntry\":");
    }
    const std::string_view cursor = cursorOf(page);
    request = cursor.empty() ? std::string()
                             : fmt::format(R"({{"jsonrpc":"2.0","id":1,"method":"iterate",)"
                                           R"("params":{{"cursor":{},"limit":10000}}}})"
                                           "\n",
                                           cursor);
  }
  return secondsSince(start);
}

double fastestList(Peer& inspector, const char* collection, bool changes = false) {
  std::size_t members = 0;
  double best = list(inspector, collection, &members);
  // A walk of a table that changes may leave out what is written meanwhile, and show what is new.
  if (members != kEntries && !changes) {
    throw std::runtime_error(fmt::format("{} members are listed, not {}", members, kEntries));
  }
  for (int round = 0; round < kRounds; ++round) {
    best = std::min(best, list(inspector, collection, nullptr));
  }
  return best;
}

double medianRead(Peer& inspector) {
  const std::string request = fmt::format(
      R"({{"jsonrpc":"2.0","id":1,"method":"read","params":{{"path":"{}/stats/entryWriteCnt"}}}})"
      "\n",
      kTable);
  std::vector<double> times;
  for (int i = 0; i < kReads; ++i) {
    const auto start = Clock::now();
    inspector.send(request);
    (void)inspector.line();
    times.push_back(secondsSince(start));
  }
  std::sort(times.begin(), times.end());
  return times[times.size() / 2];
}

// Keeps an agent committing, from its making to its end.
class Load {
 public:
  explicit Load(const std::string& path) : peer_(path) {
    // Its text is made before: the agent is to be busy, not the bench.
    for (unsigned round = 1; round <= 2; ++round) {
      text_ += writes(0, kEntries, round);
    }
    sender_ = std::thread([this] { sendAll(); });
    receiver_ = std::thread([this] { receiveAll(); });
  }
  ~Load() {
    ends_ = true;
    peer_.end();
    sender_.join();
    receiver_.join();
  }
  Load(const Load&) = delete;
  Load& operator=(const Load&) = delete;

  // Entries a second, while `work` goes on.
  template <class Work>
  double rate(Work work) {
    const std::uint64_t before = ended_;
    const auto start = Clock::now();
    work();
    return double(ended_ - before) / secondsSince(start);
  }

 private:
  void sendAll() {
    try {
      while (!ends_) {
        peer_.send(text_);
      }
    } catch (const std::exception&) {
      // The end.
    }
  }
  void receiveAll() {
    while (const std::size_t lines = peer_.skipLines()) {
      ended_ += lines;
    }
  }

  Peer peer_;
  std::string text_;
  std::atomic<bool> ends_{false};
  std::atomic<std::uint64_t> ended_{0};
  std::thread sender_;
  std::thread receiver_;
};

void print(std::string_view what, double value, std::string_view unit, double goal) {
  fmt::print("{:<46} {:>9.1f} {:<2}  of {:>6.0f} {:<2}  {:>6.2f}\n", what, value, unit, goal, unit,
             value / goal);
  std::fflush(stdout);
}

void measure() {
  const TestSupport::TempRoot root;
  const std::string inspect = root.path() + "/inspect";
  const std::string socket = root.path() + "/socket";
  const InspectBench::Program agent(
      {KELP_AGENT, "--root", root.path(), "--socket", socket, "--inspect", inspect});
  Peer inspector(inspect);
  const InspectBench::Program chip({KELP_CHIP, "--root", root.path()});
  {
    Peer intents(socket);
    fill(intents);
  }
  fmt::print("{:<46} {:>12}  {:>12}  {:>6}\n", "", "measured", "goal", "ratio");
  print("read an attribute, median round trip", medianRead(inspector) * 1e6, "us", 100);
  print("list 65536 entries, idle agent", fastestList(inspector, kLive) * 1e3, "ms", 300);
  print("the same by a copy of the table", fastestList(inspector, kCopy) * 1e3, "ms", 300);
  Load load(socket);
  (void)load.rate([] { std::this_thread::sleep_for(kSpell); });
  print("list 65536 entries, agent that commits", fastestList(inspector, kLive, true) * 1e3, "ms",
        3000);
  // Spells with and without, by turns: the machine may have other things to do.
  double with = 0;
  double without = 0;
  for (int round = 0; round < kRounds; ++round) {
    without = std::max(without, load.rate([] { std::this_thread::sleep_for(kSpell); }));
    with = std::max(with, load.rate([&] {
      for (const auto start = Clock::now(); Clock::now() - start < kSpell;) {
        (void)list(inspector, kLive, nullptr);
      }
    }));
  }
  fmt::print("\nentries/s that it commits: {:.0f}; while it is listed all the time: {:.0f}\n",
             without, with);
  print("what it loses by that", (1 - with / without) * 100, "%", 10);
}

}  // namespace

int main() {
  try {
    measure();
    return 0;
  } catch (const std::exception& error) {
    fmt::print(stderr, "inspect_bench: {}\n", error.what());
    return 1;
  }
}
