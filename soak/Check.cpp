#include "soak/Check.h"

#include <fmt/format.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "KelpEmServer/TableCatalogue.h"
#include "KelpTunnelNiLib/ResourceTableSet.h"
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

// What the resource tables have in the store, against a recount from the entries: who uses what,
// and that each entry holds what its resources are.
template <class Kind>
class Recount {
 public:
  using Key = typename Kind::Key;
  using Record = PactResourceTable::ResourceRecord<Key>;

  explicit Recount(const BrioSharedMem::EntityManager& memory)
      : resources_(Common::openResources<Kind>(memory)),
        holds_(Common::openHolds<Kind>(memory)),
        releases_(Common::openReleases<Kind>(memory)) {}

  // The resource of an entry of this client; null for the key that stands for none, and for one
  // that is not there, which is wrong.
  const Record* use(const Key& key, const PactResourceTable::ClientId& client,
                    std::vector<std::string>& wrong) {
    static const Key none{};
    if (key.isEq(none)) {
      return nullptr;
    }
    bool found = false;
    const Record& record = resources_->map().find(key, found);
    if (!found || record.state != Asic::EntryState::entryStateSuccess) {
      wrong.push_back(fmt::format("{}: {} is used by {} and {}", Kind::tableName, key,
                                  client.tableId, found ? "not given out" : "not there"));
      return nullptr;
    }
    used_.insert({record.number, client});
    return &record;
  }

  void compare(std::vector<std::string>& wrong) {
    std::set<std::uint32_t> indexes;
    Common::forEachRecord(std::as_const(*resources_).map(), [&](const Record& record) {
      if (record.index != 0 && !indexes.insert(record.index).second) {
        wrong.push_back(
            fmt::format("{}: index {} is given out twice", Kind::tableName, record.index));
      }
    });
    std::set<PactResourceTable::UseKey> held;
    Common::forEachRecord(
        std::as_const(*holds_).map(),
        [&](const PactResourceTable::HoldRecord& hold) { held.insert(hold.key); });
    if (held != used_) {
      wrong.push_back(fmt::format("{}: {} holds, and {} uses by the entries", Kind::tableName,
                                  held.size(), used_.size()));
    }
    Common::forEachRecord(
        std::as_const(*releases_).map(), [&](const PactResourceTable::ReleaseRecord& release) {
          wrong.push_back(fmt::format("{}: index {} still waits for version {} of {}",
                                      Kind::tableName, release.key.number, release.version,
                                      release.key.client.tableId));
        });
  }

 private:
  Lumen::Ptr<PactResourceTable::ResourceQuilt<Key>> resources_;
  Lumen::Ptr<PactResourceTable::HoldQuilt> holds_;
  Lumen::Ptr<PactResourceTable::ReleaseQuilt> releases_;
  std::set<PactResourceTable::UseKey> used_;  // by number of the resource
};

void compareResources(const BrioSharedMem::EntityManager& memory, std::vector<std::string>& wrong) {
  Recount<KelpTunnelNiLib::InLifIndexKind> inLif(memory);
  Recount<KelpTunnelNiLib::EveResourceTableKind> vlanEdit(memory);
  Recount<KelpQos::EgressRemarkProfileKind> remark(memory);
  const auto recountOf = [&](auto kind) -> auto& {
    using L = typename decltype(kind)::Kind;
    if constexpr (std::is_same_v<L, KelpEmServer::InLifIndexLinkageKind>) {
      return inLif;
    } else if constexpr (std::is_same_v<L, KelpEmServer::VlanEditProfileLinkageKind>) {
      return vlanEdit;
    } else {
      return remark;
    }
  };
  KelpEmServer::AllTables::forEach([&](auto tag) {
    using T = typename decltype(tag)::Table;
    for (const Asic::UnitId unit : Common::unitsOf<T>(memory)) {
      const auto quilt = Common::openConfig<T>(memory, unit);
      Common::forEachRecord(std::as_const(*quilt).swTableEntries(), [&](const auto& record) {
        if (record.isDeleted != 0) {
          return;
        }
        typename T::WrapperResources resources;
        T::Linkages::forEachKind([&](auto kind) {
          using L = typename decltype(kind)::Kind;
          const auto& key = L::key(record.entry);
          if (const auto* of = recountOf(kind).use(key, {T::tableId, unit}, wrong)) {
            using Table = typename L::ResourceTable::Kind;
            const auto handle = Lumen::makeNode<typename L::ResourceHandle>(key);
            handle->resultsIs(Table::results(of->index, Table::ClientData::of(of->clientData)));
            L::handleIs(resources, handle);
          }
        });
        auto entry = record.entry.logEntry;
        resources.setResolvedFields(entry);
        // Of a table without resources all fields are asked for.
        if (!entry.isEq(record.entry.logEntry)) {
          wrong.push_back(fmt::format("{} unit {}: {} stands there, and its resources make it {}",
                                      T::name.view(), unit, record.entry.logEntry, entry));
        }
      });
    }
  });
  inLif.compare(wrong);
  vlanEdit.compare(wrong);
  remark.compare(wrong);
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
    compareResources(memory, wrong);
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
