#pragma once

// The bodies of ResourceTable. Included by the unit that instantiates a table, and by nobody else.

#include <algorithm>

#include "Lumen/Assert.h"
#include "PactResourceTable/ResourceTable.h"

namespace PactResourceTable {

template <class Kind>
ResourceTable<Kind>::ResourceTable(const Lumen::Ptr<Asic::OrderedTableInterface>& agent,
                                   std::uint32_t limit)
    : TableCore(Lumen::makeNode<Asic::CanonicalTableName>(Asic::OrderedTableType::resourceTable, "",
                                                          Kind::tableNamespace, Kind::tableName),
                Kind::tableId, agent, limit) {
  // Resources that wait for an index are kept, too.
  quilt_ = this->template mount<ResourceQuilt<Key>>(kResources, Kind::quiltTypeName,
                                                    limit + limit / 2 + 1024);
  load();
}

template <class Kind>
ResourceTable<Kind>::~ResourceTable() {
  for (const auto& node : resources_) {
    for (auto* handle = node.value()->handles; handle != nullptr; handle = handle->next()) {
      handle->ownerIs(nullptr);
    }
  }
}

template <class Kind>
void ResourceTable<Kind>::load() {
  std::vector<Key> foreign;
  std::unordered_map<std::uint32_t, Resource*> byNumber;
  auto& map = quilt_->map();
  byNumber.reserve(map.size());
  try {
    Record record;
    Quilt::IterHint hint;
    for (bool more = map.first(record, hint); more; more = map.next(record.key, record, hint)) {
      // An index that is another's already, or that there is none of, can't be kept.
      if (record.index != 0) {
        const bool fits = record.index <= pool().limit() &&
                          (record.index >= byIndex_.size() || byIndex_[record.index] == nullptr);
        if (!fits) {
          foreign.push_back(record.key);
          continue;
        }
        (void)pool().takeThis(record.index);  // its releases may have taken it
      }
      Resource& resource = make(record.key, record.number);
      byNumber[record.number] = &resource;
      lastNumber_ = std::max(lastNumber_, record.number);
      resource.updateVersion = record.updateVersion;
      resource.state = record.state;
      resource.data = Kind::ClientData::of(record.clientData);
      indexIs(resource, record.index);
    }
  } catch (const Lumen::CorruptionDetectedException& corruption) {
    map.doCorruptionDetected(corruption.msg());
  }
  for (const Key& key : foreign) {
    (void)map.recordDel(key);
  }
  // A hold of a resource that is lost must not be taken for one of a resource to come.
  std::vector<UseKey> lost;
  this->forEachHold([&](const HoldRecord& hold) {
    lastNumber_ = std::max(lastNumber_, hold.key.number);
    if (const auto found = byNumber.find(hold.key.number); found != byNumber.end()) {
      found->second->holders.push_back({hold.key.client, hold.acked, true});
    } else {
      lost.push_back(hold.key);
    }
  });
  for (const UseKey& key : lost) {
    this->holdDel(key.number, key.client);
  }
}

template <class Kind>
auto ResourceTable<Kind>::find(const Key& key) -> Resource* {
  const auto* node = resources_[key];
  return node == nullptr ? nullptr : node->value().get();
}

template <class Kind>
auto ResourceTable<Kind>::make(const Key& key, std::uint32_t number) -> Resource& {
  const auto resource = Lumen::makeNode<Resource>(key);
  resource->number = number;
  resources_.newMember(resources_.hashed(resource->key), HN_Resource(resource));
  if (!orders_.empty()) {
    if (const auto found = orders_.find(key); found != orders_.end()) {
      resource->order = found->second;
    }
  }
  return *resource;
}

// Nothing in the store has the number of a resource that was dropped.
template <class Kind>
std::uint32_t ResourceTable<Kind>::freeNumber() {
  if (freeNumbers_.empty()) {
    Lumen::assertThat(lastNumber_ != ~std::uint32_t{0}, "lastNumber_ != ~std::uint32_t{0}");
    return ++lastNumber_;
  }
  const std::uint32_t number = freeNumbers_.back();
  freeNumbers_.pop_back();
  return number;
}

template <class Kind>
void ResourceTable<Kind>::indexIs(Resource& resource, std::uint32_t index) {
  if (resource.index != 0) {
    byIndex_[resource.index] = nullptr;
  }
  resource.index = index;
  if (index != 0) {
    if (index >= byIndex_.size()) {
      byIndex_.resize(std::max<std::size_t>(index + std::size_t{1}, byIndex_.size() * 2));
    }
    byIndex_[index] = &resource;
  }
}

template <class Kind>
void ResourceTable<Kind>::write(const Resource& resource) {
  Record record;
  record.key = resource.key;
  record.number = resource.number;
  record.index = resource.index;
  record.updateVersion = resource.updateVersion;
  record.clientData = resource.data.number();
  record.state = resource.state;
  // One without an index loses nothing if it is not kept.
  if (resource.index != 0 || quilt_->map().hasRoomFor(resource.key)) {
    quilt_->map().recordIs(record);
  }
}

template <class Kind>
void ResourceTable<Kind>::mirror(const Resource& resource, ResourceHandle& handle) const {
  handle.entryStateIs(resource.state);
  handle.updateVersionIs(resource.updateVersion);
  handle.resultsIs(Kind::results(resource.index, resource.data));
}

// Tells all handles of what the resource is now. A change that comes while they are told waits
// until all have worked off the one before: who is in the middle of a rewrite would finish it with
// what was so when it began.
template <class Kind>
void ResourceTable<Kind>::announce(Resource& resource) {
  if (resource.announcing) {
    resource.again = true;
    return;
  }
  // Whoever is told may do anything, such as let go of a handle, and of the resource with it.
  const Lumen::Ptr<Resource> self(&resource);
  resource.announcing = true;
  do {
    resource.again = false;
    std::vector<Lumen::Ptr<PactResourceTable::ResourceHandle>> all;
    for (auto* handle = resource.handles; handle != nullptr; handle = handle->next()) {
      mirror(resource, static_cast<ResourceHandle&>(*handle));
      all.emplace_back(handle);
    }
    for (const auto& handle : all) {
      handle->publisher()->publishChange(Kind::kFieldId);
    }
  } while (resource.again);
  resource.announcing = false;
}

template <class Kind>
void ResourceTable<Kind>::stateIs(Resource& resource, Asic::EntryState state) {
  if (resource.state == state) {
    return;
  }
  resource.state = state;
  ++resource.updateVersion;
  write(resource);
  announce(resource);
}

template <class Kind>
void ResourceTable<Kind>::placeIs(Places& places, std::uint64_t& place, Resource& resource,
                                  bool has) {
  if (has && place == 0) {
    place = ++lastPlace_;
    places.emplace_hint(places.end(), place, &resource);
  } else if (!has && place != 0) {
    places.erase(std::exchange(place, 0));
  }
}

template <class Kind>
void ResourceTable<Kind>::preparingIs(Resource& resource, bool preparing) {
  if (preparing && resource.preparing == 0) {
    resource.since = this->now();
  }
  placeIs(preparing_, resource.preparing, resource, preparing);
}

// Gives the resource what it can have now, if it has not got it.
template <class Kind>
void ResourceTable<Kind>::settle(Resource& resource, ClientId client, Turn turn) {
  const Lumen::Ptr<Resource> self(&resource);
  if (resource.order.refused) {
    queuedIs(resource, false);
    preparingIs(resource, false);
    stateIs(resource, Asic::EntryState::entryStateFailed3);
    return;
  }
  if (resource.index == 0 && resource.order.stage != Stage::none) {
    if (resource.state == Asic::EntryState::entryStateFailed6) {
      return;  // it is too late
    }
    queuedIs(resource, false);
    preparingIs(resource, true);
    stateIs(resource, resource.order.stage == Stage::preparing
                          ? Asic::EntryState::entryStateUnresolved
                          : Asic::EntryState::entryStateInLog);
    return;
  }
  preparingIs(resource, false);
  if (resource.index == 0) {
    const bool room =
        quilt_->map().hasRoomFor(resource.key) &&
        (client == ClientId{} || this->hasRoomForUse(resource.number, pool().limit(), client));
    // Who has come first is served first, by serveWaiting().
    const bool mayHave = turn == Turn::next || queue_.size() == (resource.queued != 0 ? 1U : 0U);
    const std::uint32_t index = room && mayHave ? pool().take() : 0;
    if (index == 0) {
      if (resource.queued == 0) {
        queuedIs(resource, true);
        LUMEN_TRACE(this->traceHandle(), 1, className(), "{} for {}",
                    room ? "No index is free" : "No room in the store", resource.key);
      }
      stateIs(resource, Asic::EntryState::entryStateFailed);
      return;
    }
    indexIs(resource, index);
  }
  queuedIs(resource, false);
  const bool first =
      resource.state == Asic::EntryState::entryStateUnresolved && resource.updateVersion == 1;
  if (first) {
    // Nobody has seen it in another state.
    resource.state = Asic::EntryState::entryStateSuccess;
    write(resource);
    announce(resource);
  } else {
    stateIs(resource, Asic::EntryState::entryStateSuccess);
  }
}

template <class Kind>
auto ResourceTable<Kind>::request(const Key& key, const ClientData& data,
                                  const ClientInstance& client, const ResourceHandle* known)
    -> Lumen::Ptr<const ResourceHandle> {
  Resource* resource = nullptr;
  PactResourceTable::ResourceHandle* handle = nullptr;
  if (known != nullptr && known->client() == &client && known->key().isEq(key)) {
    handle = const_cast<ResourceHandle*>(known);  // the table's own
    resource = &resourceOf(*known);
  } else {
    resource = find(key);
    if (resource == nullptr) {
      resource = &make(key, freeNumber());
      resource->data = data;
    }
    handle = resource->handles;
    while (handle != nullptr && handle->client() != &client) {
      handle = handle->next();
    }
  }
  Lumen::Ptr<ResourceHandle> found;
  if (handle == nullptr) {
    found = Lumen::makeNode<ResourceHandle>(key);
    found->clientIs(&client);
    found->resourceIs(resource);
    found->ownerIs(this);
    found->nextIs(resource->handles);
    resource->handles = found.get();
    mirror(*resource, *found);
  } else {
    found = Lumen::Ptr<ResourceHandle>(static_cast<ResourceHandle*>(handle));
    found->postReleaseProtoStateIs(false);
    found->entryStateIs(resource->state);  // it may have had no room
  }
  if (resource->state != Asic::EntryState::entryStateSuccess) [[unlikely]] {
    settle(*resource, client.clientId());
    return found;
  }
  // The space of a use is taken before it is needed: who holds the resource has taken it.
  const bool holds = resource->holder(client.clientId()) != resource->holders.end();
  if (!holds && !this->hasRoomForUse(resource->number, resource->index, client.clientId()))
      [[unlikely]] {
    LUMEN_TRACE(this->traceHandle(), 1, className(), "No room in the store for a use of {}", key);
    found->entryStateIs(Asic::EntryState::entryStateFailed);
  }
  return found;
}

template <class Kind>
void ResourceTable<Kind>::ackUpdate(const ResourceHandle& handle, const ClientInstance& client,
                                    std::uint32_t version,
                                    const Lumen::Ptr<const Asic::DependencyEntryHandle>& entry) {
  Resource& resource = resourceOf(handle);
  const_cast<ResourceHandle&>(handle).postReleaseProtoStateIs(false);
  auto holder = resource.holder(client.clientId());
  const bool isNew = holder == resource.holders.end();
  if (isNew) {
    holder = resource.holders.insert(holder, {client.clientId(), version, false});
  }
  holder->old = false;
  if (isNew || holder->acked != version) {
    holder->acked = version;
    this->holdIs(resource.number, client.clientId(), version);
  }
  for (const auto& replaced : resource.replaced) {
    if (version >= replaced.version) {
      this->releaseSaid(replaced.index, client.clientId(), entry);
    }
  }
}

template <class Kind>
void ResourceTable<Kind>::release(const ResourceHandle& handle, const ClientInstance& client,
                                  const Lumen::Ptr<const Asic::DependencyEntryHandle>& entry) {
  Resource& resource = resourceOf(handle);
  const auto holder = resource.holder(client.clientId());
  if (holder == resource.holders.end()) {
    return;
  }
  if (entry && resource.index != 0 && !this->hasRoomForRelease(resource.index, client.clientId())) {
    // Nobody else gets the index: the next run, in which nobody asks for it, lets go of the hold.
    LUMEN_TRACE(this->traceHandle(), 1, className(), "No room in the store for a release of {}",
                resource.key);
    const_cast<ResourceHandle&>(handle).postReleaseProtoStateIs(true);
    return;
  }
  // The release first: a process that dies in between leaves both, and the hold goes later.
  if (resource.index != 0) {
    this->releaseIs(resource.index, client.clientId(), entry);
  }
  for (const auto& replaced : resource.replaced) {
    this->releaseSaid(replaced.index, client.clientId(), entry);
  }
  this->holdDel(resource.number, client.clientId());
  resource.holders.erase(holder);
  const_cast<ResourceHandle&>(handle).postReleaseProtoStateIs(true);
}

// Its handles stay with whoever has them; nobody else gets them.
template <class Kind>
void ResourceTable<Kind>::clientGone(const ClientInstance& client) noexcept {
  for (const auto& node : resources_) {
    for (auto* handle = node.value()->handles; handle != nullptr; handle = handle->next()) {
      if (handle->client() == &client) {
        handle->clientIs(nullptr);
      }
    }
  }
}

template <class Kind>
void ResourceTable<Kind>::handleGone(PactResourceTable::ResourceHandle& handle) noexcept {
  Resource& resource = resourceOf(handle);
  if (resource.handles == &handle) {
    resource.handles = handle.next();
  } else {
    auto* before = resource.handles;
    while (before->next() != &handle) {
      before = before->next();
    }
    before->nextIs(handle.next());
  }
  maybeDrop(resource);
}

// Forgets a resource that nobody holds, nobody asks for and the chip does not use.
template <class Kind>
void ResourceTable<Kind>::maybeDrop(Resource& resource) {
  if (resource.handles != nullptr || !resource.holders.empty() ||
      (resource.index != 0 && this->isReleased(resource.index))) {
    return;
  }
  const Lumen::Ptr<Resource> self(&resource);
  (void)quilt_->map().recordDel(resource.key);
  if (const std::uint32_t index = resource.index; index != 0) {
    indexIs(resource, 0);
    pool().give(index);
  }
  queuedIs(resource, false);
  preparingIs(resource, false);
  for (const auto& replaced : resource.replaced) {
    replacedIn_.erase(replaced.index);
  }
  freeNumbers_.push_back(resource.number);
  (void)resources_.del(resource.key);
}

template <class Kind>
void ResourceTable<Kind>::releaseReported(std::uint32_t index) {
  if (const auto replaced = replacedIn_.extract(index)) {
    std::erase_if(replaced.mapped()->replaced, [&](const auto& one) { return one.index == index; });
  }
  Resource* resource = index < byIndex_.size() ? byIndex_[index] : nullptr;
  if (resource == nullptr) {
    pool().give(index);  // it was replaced, or its resource is gone
    return;
  }
  maybeDrop(*resource);
}

template <class Kind>
bool ResourceTable<Kind>::serveWaiting() {
  bool served = false;
  while (!queue_.empty() && pool().taken() != pool().limit()) {
    const Lumen::Ptr<Resource> first(queue_.begin()->second);
    settle(*first, ClientId{}, Turn::next);
    if (first->queued != 0) {
      break;  // the store has no room
    }
    served = true;
  }
  return served;
}

template <class Kind>
bool ResourceTable<Kind>::failLate(double time) {
  bool failed = false;
  while (!preparing_.empty() && preparing_.begin()->second->since <= time) {
    const Lumen::Ptr<Resource> resource(preparing_.begin()->second);
    preparingIs(*resource, false);
    LUMEN_TRACE(this->traceHandle(), 1, className(), "Past its deadline: {}", resource->key);
    stateIs(*resource, Asic::EntryState::entryStateFailed6);
    failed = true;
  }
  return failed;
}

template <class Kind>
bool ResourceTable<Kind>::orderIs(const Key& key, const Order& order) {
  if (order.stage == Stage::none && !order.refused) {
    orders_.erase(key);
  } else if (orders_.size() < kMostOrders || orders_.contains(key)) {
    orders_[key] = order;
  } else {
    return false;
  }
  if (Resource* resource = find(key)) {
    resource->order = order;
  }
  return true;
}

template <class Kind>
bool ResourceTable<Kind>::prepareIs(const Key& key, Stage stage) {
  const auto order = orders_.find(key);
  if (!orderIs(key, {stage, order != orders_.end() && order->second.refused})) {
    return false;
  }
  const Lumen::Ptr<Resource> resource(find(key));
  if (!resource || resource->index != 0) {
    return true;
  }
  if (resource->state == Asic::EntryState::entryStateFailed6) {
    stateIs(*resource, Asic::EntryState::entryStateUnresolved);
  }
  // Whoever was told may have let go of it.
  if (find(key) == resource.get()) {
    settle(*resource, ClientId{});
  }
  this->askAgain();
  return true;
}

template <class Kind>
bool ResourceTable<Kind>::refusedIs(const Key& key, bool refused) {
  const auto order = orders_.find(key);
  if (!orderIs(key, {order == orders_.end() ? Stage::none : order->second.stage, refused})) {
    return false;
  }
  if (Resource* resource = find(key)) {
    settle(*resource, ClientId{});
    this->askAgain();
  }
  return true;
}

template <class Kind>
auto ResourceTable<Kind>::canChange(const Key& key) -> CanChange {
  Resource* resource = find(key);
  if (resource == nullptr || resource->index == 0) {
    return CanChange::notThere;
  }
  if (resource->state != Asic::EntryState::entryStateSuccess) {
    return CanChange::refused;
  }
  if (pool().taken() == pool().limit()) {
    return CanChange::noIndex;
  }
  for (const auto& holder : resource->holders) {
    if (!this->hasRoomForRelease(resource->index, holder.client)) {
      return CanChange::noRoom;
    }
  }
  return CanChange::yes;
}

template <class Kind>
bool ResourceTable<Kind>::change(const Key& key) {
  if (canChange(key) != CanChange::yes) {
    return false;
  }
  Resource* resource = find(key);
  const std::uint32_t old = resource->index;
  const std::uint32_t index = pool().take();
  // Whoever holds it will say from when on the old index is free.
  for (const auto& holder : resource->holders) {
    this->releaseAwaited(old, holder.client);
  }
  indexIs(*resource, index);
  ++resource->updateVersion;
  write(*resource);
  if (!resource->holders.empty()) {
    resource->replaced.push_back({old, resource->updateVersion});
    replacedIn_[old] = resource;
  } else if (!this->isReleased(old)) {
    pool().give(old);
  }
  const Lumen::Ptr<Resource> self(resource);
  announce(*resource);
  this->askAgain();
  return true;
}

template <class Kind>
void ResourceTable<Kind>::replayComplete() {
  std::vector<Lumen::Ptr<Resource>> all;
  for (const auto& node : resources_) {
    all.push_back(node.value());
  }
  // The release first: a process that dies in between leaves both.
  for (const auto& resource : all) {
    std::erase_if(resource->holders, [&](const auto& holder) {
      if (!holder.old) {
        return false;
      }
      const Asic::LogVersion last = this->lastVersion(holder.client.tableId);
      if (resource->index != 0 && last.value != 0) {
        this->releaseIs(resource->index, holder.client, last);
      }
      for (const auto& replaced : resource->replaced) {
        this->releaseSaid(replaced.index, holder.client);
      }
      this->holdDel(resource->number, holder.client);
      return true;
    });
  }
  this->oldReleasesSaid();
  // What nobody has asked for, and the chip does not use.
  for (const auto& resource : all) {
    // A run that ended between the log record of an entry and its hold has left no word of the use.
    if (resource->index != 0 && resource->handles == nullptr && resource->holders.empty() &&
        !this->isReleased(resource->index)) {
      this->releaseOfAll(resource->index);
    }
    maybeDrop(*resource);
  }
  (void)this->work();
}

}  // namespace PactResourceTable
