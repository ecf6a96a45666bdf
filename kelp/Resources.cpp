#include <fmt/format.h>

#include <iterator>
#include <map>
#include <string>
#include <type_traits>
#include <vector>

#include "BrioSharedMem/StoreError.h"
#include "KelpTunnelNiLib/ResourceTableSet.h"
#include "common/EntryJson.h"
#include "common/ResourceKinds.h"
#include "common/StoreReader.h"
#include "common/Tables.h"
#include "kelp/Commands.h"
#include "kelp/Session.h"
#include "kelp/TableReader.h"
#include "kelp/TextTable.h"

namespace Kelp {
namespace {

using PactResourceTable::ClientId;
using PactResourceTable::HoldRecord;
using PactResourceTable::ReleaseRecord;

// "Isem1Tag 0": the table and the unit.
std::string clientText(const ClientId& client) {
  for (std::size_t table = 0; table < Common::kTables; ++table) {
    if (Common::tableId(table) == client.tableId) {
      return fmt::format("{} {}", Common::tableName(table), client.unit);
    }
  }
  return fmt::format("{} {}", client.tableId, client.unit);
}

std::string clientJson(const ClientId& client) {
  const std::string text = clientText(client);
  const auto blank = text.find(' ');
  return fmt::format(R"("table":"{}","unit":{})", text.substr(0, blank), client.unit);
}

std::string resultText(const KelpTunnelNiLib::InLifIndexResults& results) {
  return fmt::format("{}, {}", results.first, results.second);
}
template <class Results>
std::string resultText(const Results& results) {
  return std::to_string(results.profile);
}

template <class Kind>
class OneTable {
 public:
  using Record = PactResourceTable::ResourceRecord<typename Kind::Key>;

  OneTable(Session& session, TextTable& text) : session_(session), text_(text) {}

  // False if there is no such table in the store.
  bool read() {
    try {
      const auto resources = Common::openResources<Kind>(session_.memory());
      const auto holds = Common::openHolds<Kind>(session_.memory());
      const auto releases = Common::openReleases<Kind>(session_.memory());
      forEachWhole<HoldRecord>(session_, *holds, [&](const HoldRecord& hold) {
        holds_[hold.key.number].push_back(hold);
      });
      forEachWhole<ReleaseRecord>(session_, *releases, [&](const ReleaseRecord& release) {
        releases_[release.key.number].push_back(release);
      });
      forEachWhole<Record>(session_, *resources,
                           [&](const Record& record) { records_.push_back(record); });
    } catch (const BrioSharedMem::AbsentError&) {
      return false;
    } catch (const BrioSharedMem::StoreError& error) {
      session_.notOpened(error);
      return false;
    }
    return true;
  }

  void showText() {
    for (const Record& record : records_) {
      std::string clients;
      for (const HoldRecord& hold : holds_[record.number]) {
        clients += fmt::format("{}{} (seen {})", clients.empty() ? "" : "; ",
                               clientText(hold.key.client), hold.acked);
      }
      text_.row({kindText(), keyText(record), std::string(Common::stateText(record.state)),
                 record.index == 0 ? "" : resultText(resultsOf(record)),
                 std::to_string(record.updateVersion), clients, releasesText(record.index)});
      releases_.erase(record.index);
    }
    // Of resources that have another index now.
    for (const auto& [index, releases] : releases_) {
      text_.row({kindText(), "", "released", resultText(Kind::results(index, {})), "", "",
                 releasesText(index)});
    }
  }

  void appendJson(std::string& out) {
    fmt::format_to(
        std::back_inserter(out), R"({{"table":"{}::{}","resource":"{}","limit":{},"resources":[)",
        Kind::tableNamespace, Kind::tableName, Common::resourceName<Kind>(), Kind::kLimit);
    bool first = true;
    for (const Record& record : records_) {
      fmt::format_to(std::back_inserter(out),
                     R"({}{{"key":{},"state":"{}","index":{},"version":{},"clients":[)",
                     first ? "" : ",", keyText(record), Common::stateText(record.state),
                     record.index, record.updateVersion);
      first = false;
      const char* between = "";
      for (const HoldRecord& hold : holds_[record.number]) {
        fmt::format_to(std::back_inserter(out), R"({}{{{},"seen":{}}})", between,
                       clientJson(hold.key.client), hold.acked);
        between = ",";
      }
      out += "]";
      if (record.index != 0) {
        fmt::format_to(std::back_inserter(out), R"(,"result":[{}])", resultText(resultsOf(record)));
      }
      if constexpr (std::is_same_v<Kind, KelpQos::EgressRemarkProfileKind>) {
        fmt::format_to(std::back_inserter(out), R"(,"type":{})", record.clientData);
      }
      out += "}";
    }
    out += R"(],"releases":[)";
    const char* between = "";
    for (const auto& [index, releases] : releases_) {
      for (const ReleaseRecord& release : releases) {
        const bool known = release.version != ReleaseRecord::kNotYet;
        fmt::format_to(std::back_inserter(out), R"({}{{"index":{},{},"version":{}}})", between,
                       index, clientJson(release.key.client),
                       known ? fmt::format("{}", release.version) : "null");
        between = ",";
      }
    }
    out += "]}";
  }

 private:
  // As it stands in events of resources, and the key too.
  static std::string kindText() { return std::string(Common::resourceName<Kind>()); }
  static std::string keyText(const Record& record) {
    std::string text;
    Common::appendJson(text, record.key);
    return text;
  }
  static auto resultsOf(const Record& record) {
    return Kind::results(record.index, Kind::ClientData::of(record.clientData));
  }
  std::string releasesText(std::uint32_t index) {
    std::string text;
    const auto found = releases_.find(index);
    if (index == 0 || found == releases_.end()) {
      return text;
    }
    for (const ReleaseRecord& release : found->second) {
      const bool known = release.version != ReleaseRecord::kNotYet;
      text += fmt::format("{}{} {}", text.empty() ? "" : "; ", clientText(release.key.client),
                          known ? fmt::format("at {}", release.version) : "not said yet");
    }
    return text;
  }

  Session& session_;
  TextTable& text_;
  std::vector<Record> records_;
  std::map<std::uint32_t, std::vector<HoldRecord>> holds_;        // by resource
  std::map<std::uint32_t, std::vector<ReleaseRecord>> releases_;  // by index
};

}  // namespace

void showResources(Session& session) {
  TextTable text(
      {"resource", "key", "state", "result", "version", "clients", "waits for the report of"});
  std::string& out = session.out().text();
  if (session.json()) {
    out += R"({"store":)";
    Common::appendString(out, session.folder());
    out += R"(,"tables":[)";
  }
  bool first = true;
  KelpTunnelNiLib::forEachResourceKind([&](auto tag) {
    using Kind = typename decltype(tag)::type;
    OneTable<Kind> table(session, text);
    if (!table.read()) {
      return;
    }
    if (session.json()) {
      out += first ? "" : ",";
      table.appendJson(out);
    } else {
      table.showText();
    }
    first = false;
  });
  if (session.json()) {
    session.out().line("]}");
  } else {
    text.print(session.out());
  }
}

}  // namespace Kelp
