#include "chip/Summary.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace Chip {
namespace {

using Json = nlohmann::ordered_json;

std::string tableText(const HardwareSide& side, Asic::SwTableId id) {
  const Table* table = findTable(side.tables(), id);
  return table == nullptr ? fmt::format("{}", id) : std::string(table->name());
}

Json heldJson(const HardwareSide& side, const Table& table) {
  if (!table.held()) {
    return nullptr;
  }
  return {{"version", table.held()->version},
          {"waitsFor",
           {{"table", tableText(side, table.held()->waitsFor.tableId)},
            {"version", table.held()->waitsFor.version.value}}}};
}

Json unitsJson(const Table& table) {
  Json units = Json::array();
  for (const Table::UnitView& unit : table.units()) {
    units.push_back({{"unit", unit.unit.value},
                     {"entries", unit.entries},
                     {"programmed", unit.counts.programmed},
                     {"overwritten", unit.counts.overwritten},
                     {"deleted", unit.counts.deleted},
                     {"whole", unit.whole}});
  }
  return units;
}

Json checkJson(const CheckResult& check) {
  Json units = Json::array();
  Json examples = Json::array();
  for (const TableCheck& table : check.tables) {
    for (const UnitCheck& unit : table.units) {
      units.push_back({{"table", table.table},
                       {"unit", unit.unit.value},
                       {"inCollection", unit.inCollection},
                       {"onChip", unit.onChip},
                       {"equal", unit.equal},
                       {"different", unit.different},
                       {"missing", unit.missing},
                       {"surplus", unit.surplus},
                       {"readable", unit.readable}});
    }
    for (const std::string& example : table.examples) {
      examples.push_back(fmt::format("{}: {}", table.table, example));
    }
  }
  return {{"same", check.same()}, {"units", std::move(units)}, {"examples", std::move(examples)}};
}

}  // namespace

std::string summaryJson(const HardwareSide& side, const CheckResult* check) {
  Json tables = Json::array();
  for (const auto& table : side.tables()) {
    const Table::Counts& counts = table->counts();
    tables.push_back({{"table", table->name()},
                      {"tableId", fmt::format("{}", table->id())},
                      {"open", table->open()},
                      {"incarnation", fmt::format("{:016x}", table->incarnation())},
                      {"published", table->published()},
                      {"reached", table->reached()},
                      {"records", counts.records},
                      {"gaps", counts.gaps},
                      {"heldBack", counts.heldBack},
                      {"dependenciesLeft", counts.dependenciesLeft},
                      {"resyncs", counts.resyncs},
                      {"held", heldJson(side, *table)},
                      {"units", unitsJson(*table)}});
  }
  const Json all = {{"relaunchGeneration", side.relaunchGeneration()},
                    {"caughtUp", side.caughtUp()},
                    {"reports", side.reports()},
                    {"wakeUps", side.wakeUps()},
                    {"tables", std::move(tables)},
                    {"check", check == nullptr ? Json(nullptr) : checkJson(*check)}};
  return all.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::string modelJsonLines(const HardwareSide& side) {
  std::string out;
  for (const auto& table : side.tables()) {
    table->appendEntries(out);
  }
  return out;
}

void writeWhole(const std::string& file, const std::string& content) {
  const std::string aside = file + ".new";
  const auto fail = [](const std::string& what) {
    throw std::runtime_error(
        fmt::format("cannot write {}: {}; name a file in a folder that this "
                    "user may write to",
                    what, std::strerror(errno)));
  };
  std::ofstream out(aside, std::ios::binary | std::ios::trunc);
  out.write(content.data(), static_cast<std::streamsize>(content.size()));
  out.close();
  if (!out) {
    fail(aside);
  }
  if (std::rename(aside.c_str(), file.c_str()) != 0) {
    fail(file);
  }
}

}  // namespace Chip
