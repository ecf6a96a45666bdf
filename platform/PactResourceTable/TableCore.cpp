#include "PactResourceTable/TableCore.h"

#include <algorithm>
#include <chrono>
#include <optional>
#include <utility>
#include <vector>

#include "Asic/SharedMemory.h"
#include "Brio/Log.h"
#include "Brio/LogHandle.h"
#include "BrioSharedMem/MountGroup.h"
#include "Lumen/Assert.h"
#include "Lumen/Exception.h"
#include "Lumen/Trace.h"

namespace PactResourceTable {
namespace {

constexpr const char* kClass = "ResourceTable";

constinit const Brio::LogDescriptor kLogRecords[1] = {
    {"RESOURCE_TABLE_ERROR", "Resource table error: records of %s are lost",
     "Resources whose records are lost are given out anew, and what uses them is rewritten", "\x01",
     3},
};
const Brio::LogSection section("PactResourceTable", kLogRecords);

// Calls visit(record) for each record. What lies behind damage is lost, which the collection is
// told.
template <class Record, class Visit>
void forEach(Quilt::QuiltMap<Record>& map, Visit visit) {
  try {
    Record record;
    Quilt::IterHint hint;
    for (bool more = map.first(record, hint); more;
         more = map.next(record.quiltKey(), record, hint)) {
      visit(record);
    }
  } catch (const Lumen::CorruptionDetectedException& corruption) {
    map.doCorruptionDetected(corruption.msg());
  }
}

// The record of a key; none if it can't be read, which the collection is told.
template <class Record>
std::optional<Record> find(Quilt::QuiltMap<Record>& map, const typename Record::QuiltKey& key) {
  try {
    bool found = false;
    const Record& record = map.find(key, found);
    return found ? std::optional(record) : std::nullopt;
  } catch (const Lumen::CorruptionDetectedException& corruption) {
    map.doCorruptionDetected(corruption.msg());
    return std::nullopt;
  }
}

}  // namespace

const Brio::TraceHandle& TableCore::traceHandle() {
  static const Brio::TraceHandle handle(kClass, false);
  return handle;
}

TableCore::TableCore(const Lumen::Ptr<const Asic::CanonicalTableName>& canonicalName,
                     Asic::SwTableId tableId, const Lumen::Ptr<Asic::OrderedTableInterface>& agent,
                     std::uint32_t limit)
    : Asic::NamedSwTable(canonicalName, tableId, Asic::UnitId{}),
      groups_(agent->groupIntfColl()),
      memory_(Asic::writableSharedMemory(*agent->entityManager())),
      pool_(limit) {
  // A resource has at most a hold for each client, of which there are few.
  constexpr std::uint32_t kClients = 4;
  const auto many = static_cast<std::uint32_t>(
      std::min<std::uint64_t>(std::uint64_t{limit} * kClients + 1024, 1U << 24));
  holds_ = mount<HoldQuilt>(kHolds, kHoldQuiltType, many);
  releases_ = mount<ReleaseQuilt>(kReleases, kReleaseQuiltType, many);
  loadReleases();
}

TableCore::~TableCore() = default;

Lumen::Ptr<Brio::Entity> TableCore::mountEntity(const char* collection, const char* typeName,
                                                std::uint32_t capacity) {
  const Lumen::String path =
      collectionPath(canonicalName()->tableNamespace(), canonicalName()->tableName(), collection);
  const auto group = memory_->getMountGroup();
  BrioQuilt::MountInfo info(BrioQuilt::BrioQuiltType::collection);
  info.collectionInfoIs(BrioQuilt::CollectionInfo(collection, capacity, false));
  (void)group->mount(path, typeName, info);
  group->doClose();
  const auto entity = memory_->getEntity(path);
  const auto control = Lumen::dynamicPtrCast<BrioQuilt::QuiltEntity>(entity)->collectionControl();
  if (control->wiped()) {
    LUMEN_TRACE(traceHandle(), 1, kClass, "Records of {} are lost", path);
    static Brio::LogHandle error(&kLogRecords[0], Lumen::Duration(), 1.0, 0, 0);
    Brio::log(error, path);
    control->clearWiped();
  }
  return entity;
}

// ---- holds

bool TableCore::hasRoomForUse(std::uint32_t number, std::uint32_t index, ClientId client) {
  return holds_->map().hasRoomFor({number, client}) && hasRoomForRelease(index, client);
}

bool TableCore::hasRoomForRelease(std::uint32_t index, ClientId client) {
  return releases_->map().hasRoomFor({index, client});
}

void TableCore::forEachHold(const std::function<void(const HoldRecord& hold)>& visit) {
  forEach(holds_->map(), visit);
}

void TableCore::holdIs(std::uint32_t number, ClientId client, std::uint32_t acked) {
  HoldRecord hold;
  hold.key = {number, client};
  hold.acked = acked;
  holds_->map().recordIs(hold);
}

void TableCore::holdDel(std::uint32_t number, ClientId client) {
  (void)holds_->map().recordDel({number, client});
}

// ---- releases

void TableCore::loadReleases() {
  std::vector<UseKey> foreign;
  forEach(releases_->map(), [&](const ReleaseRecord& release) {
    if (release.key.number == 0 || release.key.number > pool_.limit()) {
      foreign.push_back(release.key);
      return;
    }
    if (busy_[release.key.number]++ == 0) {
      (void)pool_.takeThis(release.key.number);
    }
    ++releaseCount_;
    if (release.version == ReleaseRecord::kNotYet) {
      Pending& pending = pending_[release.key];
      pending.awaited = true;
      pending.old = true;
    } else {
      waiting_[release.key.client.tableId].emplace(release.version, release.key);
    }
  });
  for (const UseKey& key : foreign) {
    (void)releases_->map().recordDel(key);
  }
}

// What is known of a release, to add to it.
TableCore::Pending& TableCore::pending(const UseKey& key) {
  const auto [at, isNew] = pending_.try_emplace(key);
  if (isNew) {
    if (const auto present = find(releases_->map(), key)) {
      at->second.known = present->version;
    }
  }
  return at->second;
}

void TableCore::take(Pending& pending, const Entry& entry) {
  if (!entry) {
    return;
  }
  const Asic::LogVersion version = entry->entryTableVersion().version;
  if (version.value == 0) {
    pending.entries.push_back(entry);
  } else {
    pending.known = std::max(pending.known, version);
  }
}

// A release that is there already is one up to the later of both versions.
void TableCore::releaseWrite(const UseKey& key, Asic::LogVersion version) {
  const auto present = find(releases_->map(), key);
  if (!present) {
    ++busy_[key.number];
    ++releaseCount_;
  } else if (present->version != ReleaseRecord::kNotYet) {
    version = std::max(version, present->version);
  }
  if (!present || present->version != version) {
    ReleaseRecord release;
    release.key = key;
    release.version = version;
    releases_->map().recordIs(release);
  }
  if (version != ReleaseRecord::kNotYet) {
    waiting_[key.client.tableId].emplace(version, key);
  }
}

// Stores what is known of a release.
void TableCore::releaseSettle(const UseKey& key) {
  const auto at = pending_.find(key);
  if (!at->second.settled()) {
    releaseWrite(key, ReleaseRecord::kNotYet);
    return;
  }
  const Asic::LogVersion known = at->second.known;
  pending_.erase(at);
  releaseWrite(key, known);
}

void TableCore::releaseIs(std::uint32_t index, ClientId client, const Entry& entry) {
  if (!entry) {
    return;
  }
  if (const Asic::LogVersion version = entry->entryTableVersion().version; version.value != 0) {
    releaseIs(index, client, version);
    return;
  }
  const UseKey key{index, client};
  take(pending(key), entry);
  releaseSettle(key);
}

void TableCore::releaseIs(std::uint32_t index, ClientId client, Asic::LogVersion version) {
  const UseKey key{index, client};
  const auto at = pending_.find(key);
  if (at == pending_.end()) {
    releaseWrite(key, version);
    return;
  }
  at->second.known = std::max(at->second.known, version);
  releaseSettle(key);
}

void TableCore::releaseOfAll(std::uint32_t index) {
  for (const auto& [name, group] : groups_->groupIntfs()) {
    for (const auto& [tableId, set] : group->swTableSets()) {
      const ClientId client{tableId, Asic::UnitId{}};
      const Asic::LogVersion last = group->publishedVersion(tableId);
      if (last > group->statusVersion(tableId).value_or(Asic::LogVersion{}) &&
          hasRoomForRelease(index, client)) {
        releaseIs(index, client, last);
      }
    }
  }
}

void TableCore::releaseAwaited(std::uint32_t index, ClientId client) {
  const UseKey key{index, client};
  Pending& of = pending(key);
  of.awaited = true;
  // What the client has published so far may carry the index, whatever it says.
  of.known = std::max(of.known, lastVersion(client.tableId));
  releaseSettle(key);
}

void TableCore::releaseSaid(std::uint32_t index, ClientId client, const Entry& entry) {
  const UseKey key{index, client};
  const auto at = pending_.find(key);
  if (at == pending_.end() || !at->second.awaited) {
    return;
  }
  at->second.awaited = at->second.old;
  if (entry) {
    // Of several entries that the client has rewritten, it names one.
    at->second.known = std::max(at->second.known, lastVersion(client.tableId));
  }
  take(at->second, entry);
  releaseSettle(key);
}

void TableCore::releaseSaid(std::uint32_t index, ClientId client) {
  const UseKey key{index, client};
  const auto at = pending_.find(key);
  if (at == pending_.end() || !at->second.awaited) {
    return;
  }
  at->second.awaited = at->second.old;
  at->second.known = std::max(at->second.known, lastVersion(client.tableId));
  releaseSettle(key);
}

double TableCore::now() noexcept {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// What came to its end without a version has left nothing in the log.
void TableCore::takeVersions() {
  std::vector<UseKey> settled;
  for (auto& [key, pending] : pending_) {
    if (pending.entries.empty()) {
      continue;
    }
    std::erase_if(pending.entries, [&of = pending](const Entry& entry) {
      const Asic::LogVersion version = entry->entryTableVersion().version;
      of.known = std::max(of.known, version);
      return version.value != 0 || entry->entryState() != Asic::EntryState::entryStateUnresolved;
    });
    if (pending.settled()) {
      settled.push_back(key);
    }
  }
  for (const UseKey& key : settled) {
    releaseSettle(key);
  }
}

void TableCore::oldReleasesSaid() {
  std::vector<UseKey> old;
  for (auto& [key, pending] : pending_) {
    if (std::exchange(pending.old, false)) {
      pending.awaited = false;
      pending.known = std::max(pending.known, lastVersion(key.client.tableId));
      old.push_back(key);
    }
  }
  for (const UseKey& key : old) {
    releaseSettle(key);
  }
}

void TableCore::releaseDrop(const UseKey& key) {
  (void)releases_->map().recordDel(key);
  --releaseCount_;
  const auto busy = busy_.find(key.number);
  if (--busy->second == 0) {
    busy_.erase(busy);
    releaseReported(key.number);
  }
}

Lumen::Ptr<Asic::GroupInterface> TableCore::groupOf(Asic::SwTableId tableId) const {
  for (const auto& [name, group] : groups_->groupIntfs()) {
    if (group->agentAndGroupId() == tableId.agentAndGroupId()) {
      return group;
    }
  }
  return nullptr;
}

Asic::LogVersion TableCore::lastVersion(Asic::SwTableId tableId) const {
  const auto group = groupOf(tableId);
  return group ? group->publishedVersion(tableId) : Asic::LogVersion{};
}

// A log that was begun anew never comes to the versions of the old one, which nobody has on the
// chip any more when the hardware side says that it has the new one up to its end. A log of which
// it has said nothing, or that is not mounted, tells nothing.
bool TableCore::takeReports() {
  bool moved = false;
  for (auto& [tableId, waiting] : waiting_) {
    if (waiting.empty()) {
      continue;
    }
    const auto group = groupOf(tableId);
    const auto status = group ? group->statusVersion(tableId) : std::nullopt;
    const Asic::LogVersion reported = status.value_or(Asic::LogVersion{});
    const Asic::LogVersion last = group ? group->publishedVersion(tableId) : Asic::LogVersion{};
    const bool all = status.has_value() && reported >= last;
    while (!waiting.empty()) {
      const auto [version, key] = *waiting.begin();
      const auto present = find(releases_->map(), key);
      const bool moot = !present || present->version != version;
      const bool isReported = version <= reported;
      const bool isOfAnOlderLog = all && version > last;
      if (!moot && !isReported && !isOfAnOlderLog) {
        break;
      }
      waiting.erase(waiting.begin());
      if (!moot) {
        releaseDrop(key);
        moved = true;
      }
    }
  }
  return moved;
}

bool TableCore::work() {
  takeVersions();
  bool moved = takeReports();
  // Not at every turn of the list above: who waits is served with all that has become free.
  moved = serveWaiting() || moved;
  moved = (deadline_ > 0 && failLate(now() - deadline_)) || moved;
  if (moved) {
    askAgain();
  }
  return moved;
}

void TableCore::askAgain() {
  for (const auto& [name, group] : groups_->groupIntfs()) {
    group->groupResolver()->updateGenId();
    group->groupResolver()->maybeUpdateSuspend();
  }
}

}  // namespace PactResourceTable
