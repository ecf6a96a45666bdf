#include "kelp/CollectionCheck.h"

#include <fmt/format.h>
#include <signal.h>

#include <cerrno>
#include <chrono>
#include <fstream>
#include <thread>
#include <utility>

namespace Kelp {
namespace {

constexpr std::chrono::milliseconds kPause{10};
constexpr int kMostCounts = 5;

}  // namespace

void CollectionReport::damage(std::string cause, std::optional<std::uint32_t> slot) {
  ++damageCount;
  if (damages.size() < kMostFindings) {
    damages.push_back({slot, std::move(cause)});
  }
}

void checkHeader(const Quilt::QuiltMapBase& map, CollectionReport& report) {
  const Quilt::StoreFile& file = *map.file();
  const Quilt::Header& header = file.header();
  if (!Quilt::bothConstantsWhole(header)) {
    report.damage("one of the two copies of the header is damaged");
  }
  if (header.damaged.load(std::memory_order_acquire) != 0) {
    report.damage(
        "its writer has met damage and marked it; the writer's next start saves what is "
        "whole");
  }
  if (header.wiped.load(std::memory_order_acquire) != 0) {
    report.notes.emplace_back("what it once held is lost, and its writer has not told so yet");
  }
  const std::uint64_t reserved = header.slotsReserved.load(std::memory_order_acquire);
  if (reserved > file.geometry().slots) {
    report.damage(fmt::format("the header says that {} slots have space, of {}", reserved,
                              file.geometry().slots));
  }
  const std::uint64_t records = header.records.load(std::memory_order_acquire);
  if (records > map.limit()) {
    report.damage(fmt::format("the header counts {} records where there is room for {}", records,
                              map.limit()));
  }
}

void checkLogWords(const BrioQuilt::CollectionControl& log, CollectionReport& report) {
  // In the order announced, issued, published: so a word that is read later is no older.
  const std::uint64_t publishedBefore = log.published();
  const std::uint64_t issuedBefore = log.scratchpad();
  const std::uint64_t announced = log.announced();
  const std::uint64_t issued = log.scratchpad();
  const std::uint64_t published = log.published();
  if (publishedBefore > issued) {
    report.damage(fmt::format("version {} is published, and {} is the last that was issued",
                              publishedBefore, issued));
  } else if (published + 1 < issuedBefore) {
    report.damage(
        fmt::format("version {} is issued, and only {} is published", issuedBefore, published));
  }
  if (announced < issuedBefore || announced > issued + 1) {
    report.damage(fmt::format("version {} is announced, and {} is the last that was issued",
                              announced, issued));
  } else if (announced == issued + 1) {
    report.notes.push_back(
        fmt::format("a change of version {} is under way, or was cut off and the agent's next "
                    "start finishes it",
                    announced));
  }
}

void checkCount(const Quilt::QuiltMapBase& map, const std::function<std::uint64_t()>& countAgain,
                const std::function<std::uint64_t()>& moves, CollectionReport& report) {
  const auto& counted = map.file()->header().records;
  bool stoodStill = false;
  std::uint64_t lastSaid = 0;
  std::uint64_t lastFound = 0;
  for (int tries = 0; tries < kMostCounts; ++tries) {
    const std::uint64_t before = moves();
    const std::uint64_t said = counted.load(std::memory_order_acquire);
    const std::uint64_t found = countAgain();
    if (said == found) {
      return;
    }
    const bool still = before == moves() && said == counted.load(std::memory_order_acquire);
    // A change stores the count and the record one after the other, at once: so what is still so
    // after a while stays so.
    if (still && stoodStill && said == lastSaid && found == lastFound) {
      const std::string text =
          fmt::format("the header counts {} records, and {} are there", said, found);
      const std::string base = report.file.substr(0, report.file.size() - 6);
      if (said == found + 1 && !RegisterText::of(base + Quilt::kRegisterSuffix).writerLives()) {
        report.notes.push_back(text +
                               ": its writer was killed in the middle of a change, or a "
                               "record is lost; the writer's next start counts anew");
      } else {
        report.damage(text);
      }
      return;
    }
    stoodStill = still;
    lastSaid = said;
    lastFound = found;
    std::this_thread::sleep_for(kPause);
  }
}

RegisterText RegisterText::of(const std::string& registerFile) {
  RegisterText text;
  std::ifstream file(registerFile);
  std::string word;
  if (file >> word >> text.process && word == "pid") {
    text.made = file >> word && word == "made";
  }
  return text;
}

bool RegisterText::writerLives() const {
  return process > 0 && (::kill(process, 0) == 0 || errno == EPERM);
}

}  // namespace Kelp
