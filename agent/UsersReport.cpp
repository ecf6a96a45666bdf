#include "agent/UsersReport.h"

#include <algorithm>
#include <map>
#include <string>

#include "agent/ReportParams.h"
#include "agent/WaitingReport.h"
#include "common/ResourceEvent.h"
#include "common/StoreReader.h"

namespace Agent {
namespace {

using Json = nlohmann::ordered_json;

constexpr std::uint64_t kUsualLimit = 100;
constexpr std::uint64_t kMostLimit = 10000;

Json resultJson(const KelpTunnelNiLib::InLifIndexResults& results) {
  return Json::array({results.first, results.second});
}
template <class Results>
Json resultJson(const Results& results) {
  return Json::array({results.profile});
}

template <class Key>
Json keyJson(const Key& key) {
  std::string text;
  Common::appendKey(text, key);
  return Json::parse(text);
}

// Who waits for the resource, by place; the first ones are told.
struct Waiters {
  std::uint64_t count = 0;
  std::map<std::size_t, std::uint64_t> byPlace;
  Json shown = Json::array();
  // What one of them has of the resource; null: nothing.
  Lumen::Ptr<const PactResourceTable::ResourceHandle> handle;

  void look(const Retries::Missing& missing, const Common::AnyResourceKey& resource) {
    for (const Common::MissingResource& one : missing) {
      if (!handle && one.resource == resource.index() && keyJson(one.key()) == keyJson(resource)) {
        handle = one.handle;
      }
    }
  }
};

Waiters waitersOf(const Intake& intake, const Common::AnyResourceKey& resource,
                  std::uint64_t limit) {
  Waiters waiters;
  const auto add = [&](std::size_t place, const auto& operation) {
    ++waiters.count;
    ++waiters.byPlace[place];
    if (waiters.shown.size() < limit) {
      waiters.shown.push_back(operation());
    }
  };
  for (const Intake::Slot& slot : intake.slots()) {
    // What is committed uses it already.
    if (!slot.source || !slot.write || !slot.handle ||
        slot.handle->entryState() != Asic::EntryState::entryStateUnresolved) {
      continue;
    }
    const Common::AnyTable& table = *intake.tables()[slot.place];
    if (table.names(slot.write->entry, resource)) {
      if (!waiters.handle) {
        waiters.look(table.awaitedResources(slot.key, slot.handle), resource);
      }
      add(slot.place, [&] {
        return operationJson(table, *slot.source, slot.line, slot.op, slot.key, slot.since,
                             slot.again);
      });
    }
  }
  intake.retries().forEach(
      0, [&](std::uint64_t, const HeldWrite& write, const Retries::Missing& missing) {
        const Common::AnyTable& table = *intake.tables()[write.place];
        if (table.names(write.intent->entry, resource)) {
          waiters.look(missing, resource);
          add(write.place, [&] {
            return operationJson(table, *write.source.get(), write.line, Common::IntentOp::write,
                                 write.key, write.since, true);
          });
        }
        return true;
      });
  return waiters;
}

// What the store says of a resource of one kind.
template <class Kind>
class Stored {
 public:
  Stored(const BrioSharedMem::EntityManager& memory, const typename Kind::Key& key)
      : holds_(Common::openHolds<Kind>(memory)), releases_(Common::openReleases<Kind>(memory)) {
    const auto resources = Common::openResources<Kind>(memory);
    record_ = resources->map().find(key, found_);
  }

  [[nodiscard]] bool found() const noexcept { return found_; }
  [[nodiscard]] const auto& record() const noexcept { return record_; }
  // The version that a client has acknowledged, or null.
  [[nodiscard]] Json acknowledged(const PactResourceTable::ClientId& client) const {
    bool holds = false;
    const auto& hold = holds_->map().find({record_.number, client}, holds);
    return found_ && holds ? Json(hold.acked) : Json(nullptr);
  }
  // Adds the release of the client to `releases`, if there is one.
  void addRelease(const PactResourceTable::ClientId& client, Json release, Json& releases) const {
    bool is = false;
    const auto& record = releases_->map().find({record_.index, client}, is);
    if (found_ && record_.index != 0 && is) {
      release["version"] = record.version == PactResourceTable::ReleaseRecord::kNotYet
                               ? Json(nullptr)
                               : Json(record.version.value);
      releases.push_back(std::move(release));
    }
  }

 private:
  Lumen::Ptr<const PactResourceTable::HoldQuilt> holds_;
  Lumen::Ptr<const PactResourceTable::ReleaseQuilt> releases_;
  PactResourceTable::ResourceRecord<typename Kind::Key> record_;
  bool found_ = false;
};

template <class Kind>
void addUsers(Json& report, const Store& store, const Intake& intake,
              const Common::AnyResourceKey& resource, std::uint64_t limit) {
  const Stored<Kind> stored(store.memory(), std::get<Common::resourceNumber<Kind>()>(resource));
  const auto& record = stored.record();
  Waiters waiters = waitersOf(intake, resource, limit);
  // One that has nothing to lose yet need not be in the store.
  report["state"] = stored.found()   ? Json(Common::stateText(record.state))
                    : waiters.handle ? Json(Common::stateText(waiters.handle->entryState()))
                                     : Json(nullptr);
  report["index"] = record.index;
  report["result"] =
      record.index == 0
          ? Json::array()
          : resultJson(Kind::results(record.index, Kind::ClientData::of(record.clientData)));
  report["version"] =
      stored.found() || !waiters.handle ? record.updateVersion : waiters.handle->updateVersion();
  Json clients = Json::array();
  Json releases = Json::array();
  std::uint64_t entries = 0;
  for (std::size_t place = 0; place < intake.tables().size(); ++place) {
    const Common::AnyTable& table = *intake.tables()[place];
    const auto use = table.useOf(resource, limit);
    if (!use) {
      continue;
    }
    const PactResourceTable::ClientId id{Common::tableId(table.table()), table.unit()};
    Json client = {{"table", table.name()}, {"unit", table.unit().value}};
    stored.addRelease(id, client, releases);
    const Json acknowledged = stored.acknowledged(id);
    if (use->entries == 0 && acknowledged.is_null() && !waiters.byPlace.contains(place)) {
      continue;
    }
    entries += use->entries;
    client["entries"] = use->entries;
    client["keys"] = Json::array();
    for (const Common::AnyKey& key : use->keys) {
      client["keys"].push_back(keyJson(key));
    }
    client["acknowledged"] = acknowledged;
    client["behind"] = acknowledged.is_null() || acknowledged != record.updateVersion;
    clients.push_back(std::move(client));
  }
  report["entries"] = entries;
  report["clients"] = std::move(clients);
  report["waitingCount"] = waiters.count;
  report["waiting"] = std::move(waiters.shown);
  report["releases"] = std::move(releases);
}

}  // namespace

Json usersReport(const Store& store, const Intake& intake, const Common::Json& params) {
  checkParams(params, {"resource", "key", "limit"});
  const Common::AnyResourceKey resource = Common::readResource(params);
  const std::uint64_t limit = readParam(params, "limit", kMostLimit).value_or(kUsualLimit);
  Json report = {{"resource", Common::kResourceNames[resource.index()]},
                 {"key", keyJson(resource)}};
  Common::withResourceKind(resource.index(), [&](auto tag) {
    addUsers<typename decltype(tag)::type>(report, store, intake, resource, limit);
  });
  return report;
}

}  // namespace Agent
