#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "TableFixture.h"
#include "chip/HardwareSide.h"

namespace TestSupport {

// An agent and a hardware side in the process of the test, over one store.
template <class T>
class ChipFixture : public TableFixture<T> {
 protected:
  using Base = TableFixture<T>;

  void TearDown() override {
    chip_.reset();
    Base::TearDown();
  }

  Chip::Options chipOptions() {
    Chip::Options options;
    options.name = "kelp-test";
    options.root = this->root_.path();
    options.say = [this](std::string_view text) { said_.emplace_back(text); };
    return options;
  }
  void startChip() { chip_ = std::make_unique<Chip::HardwareSide>(chipOptions()); }
  // Ends it as a killed process ends: what it knew is gone, what it reported stays.
  void killChip() { chip_.reset(); }

  // Lets the hardware side do all that it can do now, and the agent take in the reports.
  void settle() {
    chip_->tend();
    while (chip_->work() != 0) {
    }
    if (this->agent_) {
      this->group()->pollStatus();
    }
  }
  [[nodiscard]] const Chip::Table& chipTable(Asic::SwTableId id = T::tableId) const {
    return *Chip::findTable(chip_->tables(), id);
  }
  [[nodiscard]] std::uint64_t onChip(Asic::UnitId unit = Base::unit0) const {
    for (const Chip::Table::UnitView& view : chipTable().units()) {
      if (view.unit == unit) {
        return view.entries;
      }
    }
    return 0;
  }
  // The file of one of the table's collections: "log", "config/0".
  [[nodiscard]] std::filesystem::path fileOf(const std::string& collection) {
    const std::string log = KelpEmServer::KelpConstants<T>::tableEntryLogQuiltPath();
    return this->root_.path() + "/kelp-test/" +
           log.substr(0, log.size() - std::string("log").size()) + collection + ".quilt";
  }
  void removeFile(const std::string& collection) {
    ASSERT_TRUE(std::filesystem::remove(fileOf(collection))) << fileOf(collection);
  }
  [[nodiscard]] bool wasSaid(const std::string& part) const {
    return std::any_of(said_.begin(), said_.end(), [&](const std::string& line) {
      return line.find(part) != std::string::npos;
    });
  }
  [[nodiscard]] std::string allSaid() const {
    std::string all;
    for (const std::string& line : said_) {
      all += line + "\n";
    }
    return all;
  }

  std::unique_ptr<Chip::HardwareSide> chip_;
  std::vector<std::string> said_;
};

}  // namespace TestSupport
