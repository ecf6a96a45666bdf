#include "soak/Check.h"

#include <fmt/format.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "common/StoreReader.h"
#include "demo/Expected.h"

namespace Soak {
namespace {

using Clock = std::chrono::steady_clock;

// How long what is answered may need until all can see it: a chip that has just been started again
// reads whole tables first, and a log is cleaned up when the report has been seen.
constexpr std::chrono::seconds kPatience{30};

void append(std::vector<std::string>& wrong, const char* what, const Demo::Comparison& result) {
  if (result.same()) {
    return;
  }
  wrong.push_back(fmt::format("{}: {} equal, {} different, {} missing, {} surplus", what,
                              result.equal, result.different, result.missing, result.surplus));
  for (const std::string& example : result.examples) {
    wrong.push_back("  " + example);
  }
}

void compareLogs(const BrioSharedMem::EntityManager& memory, const Versions& highest,
                 std::vector<std::string>& wrong) {
  std::size_t at = 0;
  KelpEmServer::AllTables::forEach([&](auto tag) {
    using T = typename decltype(tag)::Table;
    const std::uint64_t answered = highest[at++];
    const auto log = Common::openLog<T>(memory);
    const std::uint64_t published = log->collectionControl()->published();
    if (published < answered) {
      wrong.push_back(fmt::format("{}: its log stands at version {}, and {} has been answered",
                                  T::name.view(), published, answered));
    }
    typename T::EntryLogQuilt::Record record;
    Quilt::IterHint hint;
    if (std::as_const(*log).entryLogConfig().first(record, hint)) {
      wrong.push_back(
          fmt::format("{}: its log still holds version {}", T::name.view(), record.version.value));
    }
  });
}

void compareChip(Demo::Expected& expected, Programs& programs, std::vector<std::string>& wrong) {
  programs.askForModel();
  const auto end = Clock::now() + kPatience;
  while (!std::filesystem::exists(programs.modelFile())) {
    if (Clock::now() > end) {
      wrong.emplace_back("kelp-chip does not tell its model");
      return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  append(wrong, "the chip", expected.compareChip(programs.modelFile()));
  std::ifstream file(programs.summaryFile());
  const auto own = nlohmann::json::parse(file).at("check");
  if (!own.at("same").get<bool>()) {
    wrong.emplace_back("the chip differs from the configuration collections");
    for (const auto& example : own.at("examples")) {
      wrong.push_back("  " + example.get<std::string>());
    }
  }
}

}  // namespace

void check(Oracle& oracle, const BrioSharedMem::EntityManager& memory, Programs& programs,
           const Versions& highest, Tally& tally) {
  const Oracle::Settled settled = oracle.settle(memory);
  tally.carriedOut += settled.carriedOut;
  tally.dropped += settled.dropped;
  tally.wrong.insert(tally.wrong.end(), settled.wrong.begin(), settled.wrong.end());
  Demo::Expected expected;
  oracle.fill(expected);
  append(tally.wrong, "the configuration collections", expected.compareCollections(memory));
  if (!tally.wrong.empty()) {
    return;
  }
  const auto end = Clock::now() + kPatience;
  std::vector<std::string> wrong;
  for (;;) {
    wrong.clear();
    compareLogs(memory, highest, wrong);
    compareChip(expected, programs, wrong);
    if (wrong.empty() || Clock::now() > end) {
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  if (wrong.empty()) {
    ++tally.checks;
    tally.entries += expected.entries();
  }
  tally.wrong.insert(tally.wrong.end(), wrong.begin(), wrong.end());
}

}  // namespace Soak
