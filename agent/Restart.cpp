#include "agent/Restart.h"

#include "agent/Say.h"
#include "common/Tables.h"

namespace Agent {

Restart::Restart(Store& store, const Intake& intake)
    : store_(store),
      intake_(intake),
      restored_(Common::kTables),
      written_(Common::kTables),
      removed_(Common::kTables) {
  for (const auto& table : intake_.tables()) {
    restored_[table->table()] += table->figures().entries;
    nothingThere_ = nothingThere_ && table->tableVersion() == 0;
  }
}

void Restart::complete() {
  if (complete_) {
    return;
  }
  complete_ = true;
  for (const auto& table : intake_.tables()) {
    written_[table->table()] += table->figures().written;
  }
  removed_ = store_.clearAndSweep();
  told_ = nothingThere_;
}

std::vector<Restart::Figures> Restart::figures() const {
  std::vector<Figures> all(Common::kTables);
  std::vector<std::uint64_t> written(Common::kTables);
  std::vector<std::uint64_t> failed(Common::kTables);
  for (const auto& table : intake_.tables()) {
    const Common::TableFigures now = table->figures();
    all[table->table()].suppressed += now.suppressed;
    written[table->table()] += now.written;
    failed[table->table()] += intake_.failedWrites(*table);
  }
  for (std::size_t table = 0; table < all.size(); ++table) {
    Figures& of = all[table];
    of.restored = restored_[table];
    const std::uint64_t replayed = complete_ ? written_[table] : written[table];
    const std::uint64_t left = of.suppressed + failed[table];
    of.rewritten = replayed > left ? replayed - left : 0;
    of.swept = removed_[table].swept;
    of.unitsCleared = removed_[table].unitsCleared;
  }
  return all;
}

void Restart::tell(bool last) {
  if (!complete_ || told_ || (!last && store_.group().groupResolver()->size() != 0)) {
    return;
  }
  told_ = true;
  Figures sum;
  for (const Figures& one : figures()) {
    sum.restored += one.restored;
    sum.suppressed += one.suppressed;
    sum.rewritten += one.rewritten;
    sum.swept += one.swept;
    sum.unitsCleared += one.unitsCleared;
  }
  say("replay complete: {} entries restored; {} writes identical, {} not; {} entries swept, {} "
      "units cleared",
      sum.restored, sum.suppressed, sum.rewritten, sum.swept, sum.unitsCleared);
}

nlohmann::ordered_json Restart::summary() const {
  nlohmann::ordered_json tables = nlohmann::ordered_json::array();
  const auto all = figures();
  for (std::size_t table = 0; table < all.size(); ++table) {
    const Figures& of = all[table];
    tables.push_back({{"table", Common::tableName(table)},
                      {"restored", of.restored},
                      {"suppressed", of.suppressed},
                      {"rewritten", of.rewritten},
                      {"swept", of.swept},
                      {"unitsCleared", of.unitsCleared}});
  }
  return {{"complete", complete_}, {"tables", tables}};
}

}  // namespace Agent
