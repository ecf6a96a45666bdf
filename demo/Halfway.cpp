#include "demo/Halfway.h"

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <thread>
#include <utility>

#include "common/StoreReader.h"
#include "demo/Expected.h"

namespace Demo {
namespace {

constexpr std::chrono::seconds kAnswers{30};

// Entries that were changed and not published any more: the next agent publishes them first.
std::uint64_t cutOff(const BrioSharedMem::EntityManager& memory) {
  std::uint64_t count = 0;
  KelpEmServer::AllTables::forEach([&](auto tag) {
    using T = typename decltype(tag)::Table;
    const std::uint64_t published = Common::openLog<T>(memory)->collectionControl()->published();
    for (const Asic::UnitId unit : Common::unitsOf<T>(memory)) {
      const auto quilt = Common::openConfig<T>(memory, unit);
      const auto& records = std::as_const(*quilt).swTableEntries();
      typename T::ConfigQuilt::Record record;
      Quilt::IterHint hint;
      for (bool more = records.first(record, hint); more;
           more = records.next(record.quiltKey(), record, hint)) {
        count += record.version.value > published ? 1 : 0;
      }
    }
  });
  return count;
}

}  // namespace

// By its counters of changed entries, since it has started.
std::uint64_t Halfway::changesOnChip() {
  const std::string file = programs_.chipSummary();
  const std::string last = programs_.modelFile();  // written behind the summary
  std::filesystem::remove(last);
  programs_.chip().signal(SIGUSR1);
  const auto end = std::chrono::steady_clock::now() + kAnswers;
  while (!std::filesystem::exists(last)) {
    if (std::chrono::steady_clock::now() > end || programs_.chip().ended()) {
      throw std::runtime_error("no summary comes: " + programs_.chip().obituary());
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  std::ifstream in(file);
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

void Halfway::killed() {
  Expected expected;
  for (std::size_t i = 0; i < input_.inFile; ++i) {
    expected.apply(input_.lines[i].value());
  }
  const Comparison left = expected.compareCollections(memory_);
  result_.there = left.equal;
  result_.differing = left.different + left.missing + left.surplus;
  result_.cutOff = cutOff(memory_);
  changesBefore_ = changesOnChip();
}

Restarted Halfway::replayed() {
  result_.changes = changesOnChip() - changesBefore_;
  return result_;
}

}  // namespace Demo
