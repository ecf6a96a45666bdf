#pragma once

// The bodies of ResourceTable. Included by the unit that instantiates a table, and by nobody else.

#include <algorithm>

#include "Lumen/Assert.h"
#include "PactResourceTable/ResourceTable.h"

namespace PactResourceTable {

template <class Spec>
ResourceTable<Spec>::ResourceTable(const Lumen::Ptr<Asic::OrderedTableInterface>& agent,
                                   std::uint32_t limit)
    : TableCore(Lumen::makeNode<Asic::CanonicalTableName>(Asic::OrderedTableType::resourceTable, "",
                                                          Spec::tableNamespace, Spec::tableName),
                Spec::tableId, agent, limit) {
  // Resources that wait for an index are kept, too.
  quilt_ = this->template mount<ResourceQuilt<Key>>(kResources, Spec::quiltTypeName,
                                                    limit + limit / 2 + 1024);
  load();
}

template <class Spec>
ResourceTable<Spec>::~ResourceTable() {
  for (const auto& node : resources_) {
    for (auto* handle = node.value()->handles; handle != nullptr; handle = handle->next()) {
      handle->ownerIs(nullptr);
    }
  }
}

template <class Spec>
void ResourceTable<Spec>::load() {
  std::vector<Key> foreign;
  auto& map = quilt_->map();
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
      lastNumber_ = std::max(lastNumber_, record.number);
      resource.updateVersion = record.updateVersion;
      resource.state = record.state;
      resource.data = Spec::clientData(record.clientData);
      indexIs(resource, record.index);
    }
  } catch (const Lumen::CorruptionDetectedException& corruption) {
    map.doCorruptionDetected(corruption.msg());
  }
  for (const Key& key : foreign) {
    (void)map.recordDel(key);
  }
  // A hold of a resource that is lost must not be taken for one of a resource to come.
  std::vector<std::pair<std::uint32_t, ClientId>> lost;
  this->forEachHold([&](std::uint32_t number, ClientId client) {
    lastNumber_ = std::max(lastNumber_, number);
    if (const auto found = byNumber_.find(number); found != byNumber_.end()) {
      found->second->holders.push_back(client);
    } else {
      lost.emplace_back(number, client);
    }
  });
  for (const auto& [number, client] : lost) {
    (void)this->holdDel(number, client);
  }
}

template <class Spec>
auto ResourceTable<Spec>::find(const Key& key) -> Resource* {
  const auto* node = resources_[key];
  return node == nullptr ? nullptr : node->value().get();
}

template <class Spec>
auto ResourceTable<Spec>::make(const Key& key, std::uint32_t number) -> Resource& {
  const auto resource = Lumen::makeNode<Resource>(key);
  resource->number = number;
  resource->since = Brio::System::currentTimeUtc();
  resources_.newMember(resources_.hashed(resource->key), HN_Resource(resource));
  byNumber_[number] = resource.get();
  return *resource;
}

template <class Spec>
void ResourceTable<Spec>::indexIs(Resource& resource, std::uint32_t index) {
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

template <class Spec>
void ResourceTable<Spec>::write(const Resource& resource) {
  Record record;
  record.key = resource.key;
  record.number = resource.number;
  record.index = resource.index;
  record.updateVersion = resource.updateVersion;
  record.clientData = Spec::number(resource.data);
  record.state = resource.state;
  // One without an index loses nothing if it is not kept.
  if (resource.index != 0 || quilt_->map().hasRoomFor(resource.key)) {
    quilt_->map().recordIs(record);
  }
}

template <class Spec>
void ResourceTable<Spec>::mirror(const Resource& resource, ResourceHandle& handle) const {
  handle.entryStateIs(resource.state);
  handle.updateVersionIs(resource.updateVersion);
  if (resource.index != 0) {
    handle.resultsIs(Spec::results(resource.index, resource.data));
  }
}

// Tells all handles of what the resource is now. A change that comes while they are told waits
// until all have worked off the one before: who is in the middle of a rewrite would finish it with
// what was so when it began.
template <class Spec>
void ResourceTable<Spec>::announce(Resource& resource) {
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
      handle->publisher()->publishChange(Spec::kFieldId);
    }
  } while (resource.again);
  resource.announcing = false;
}

template <class Spec>
void ResourceTable<Spec>::stateIs(Resource& resource, Asic::EntryState state) {
  if (resource.state == state) {
    return;
  }
  resource.state = state;
  ++resource.updateVersion;
  write(resource);
  announce(resource);
}

template <class Spec>
void ResourceTable<Spec>::queuedIs(Resource& resource, bool queued) {
  if (resource.queued == queued) {
    return;
  }
  resource.queued = queued;
  if (queued) {
    ++waiting_;
    queue_.emplace_back(&resource);
  } else {
    --waiting_;  // its place in the queue is passed over
  }
}

// Gives the resource what it can have now, if it has not got it.
template <class Spec>
void ResourceTable<Spec>::settle(Resource& resource, ClientId client, Turn turn) {
  const Lumen::Ptr<Resource> self(&resource);
  const auto order = orders_.find(resource.key);
  if (order != orders_.end() && order->second.refused) {
    queuedIs(resource, false);
    stateIs(resource, Asic::EntryState::entryStateFailed3);
    return;
  }
  if (resource.index == 0 && order != orders_.end() && order->second.stage != Stage::none) {
    if (resource.state == Asic::EntryState::entryStateFailed6) {
      return;  // it is too late
    }
    queuedIs(resource, false);
    const bool wasPrepared = resource.state == Asic::EntryState::entryStateUnresolved ||
                             resource.state == Asic::EntryState::entryStateInLog;
    if (!wasPrepared) {
      resource.since = Brio::System::currentTimeUtc();
    }
    if (std::find(unresolved_.begin(), unresolved_.end(), self) == unresolved_.end()) {
      unresolved_.push_back(self);
    }
    stateIs(resource, order->second.stage == Stage::preparing
                          ? Asic::EntryState::entryStateUnresolved
                          : Asic::EntryState::entryStateInLog);
    return;
  }
  if (resource.index == 0) {
    const bool room =
        quilt_->map().hasRoomFor(resource.key) &&
        (client == ClientId{} || this->hasRoomForUse(resource.number, pool().limit(), client));
    // Who has come first is served first, by serveWaiting().
    const bool mayHave = turn == Turn::next || waiting_ == (resource.queued ? 1U : 0U);
    const std::uint32_t index = room && mayHave ? pool().take() : 0;
    if (index == 0) {
      if (!resource.queued) {
        queuedIs(resource, true);
        LUMEN_TRACE(this->traceHandle(), 1, className(), "No index is free for {}", resource.key);
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

template <class Spec>
auto ResourceTable<Spec>::request(const Key& key, const ClientData& data,
                                  const ClientInstance& client)
    -> Lumen::Ptr<const ResourceHandle> {
  Resource* resource = find(key);
  if (resource == nullptr) {
    resource = &make(key, ++lastNumber_);
    resource->data = data;
  }
  auto* handle = resource->handles;
  while (handle != nullptr && handle->client() != &client) {
    handle = handle->next();
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
  }
  if (resource->state != Asic::EntryState::entryStateSuccess) [[unlikely]] {
    settle(*resource, client.clientId());
    return found;
  }
  // The space of a use is taken before it is needed: who holds the resource has taken it.
  const bool holds = std::find(resource->holders.begin(), resource->holders.end(),
                               client.clientId()) != resource->holders.end();
  if (!holds && !this->hasRoomForUse(resource->number, resource->index, client.clientId()))
      [[unlikely]] {
    LUMEN_TRACE(this->traceHandle(), 1, className(), "No room in the store for a use of {}", key);
  }
  return found;
}

template <class Spec>
void ResourceTable<Spec>::ackUpdate(const ResourceHandle& handle, const ClientInstance& client,
                                    std::uint32_t version,
                                    const Lumen::Ptr<const Asic::DependencyEntryHandle>& entry) {
  Resource& resource = resourceOf(handle);
  const_cast<ResourceHandle&>(handle).postReleaseProtoStateIs(false);
  const bool isNew = this->holdIs(resource.number, client.clientId(), version);
  if (isNew || std::find(resource.holders.begin(), resource.holders.end(), client.clientId()) ==
                   resource.holders.end()) {
    std::erase(resource.holders, client.clientId());
    resource.holders.push_back(client.clientId());
  }
  for (const auto& replaced : resource.replaced) {
    if (version >= replaced.version) {
      this->releaseSaid(replaced.index, client.clientId(), entry);
    }
  }
}

template <class Spec>
void ResourceTable<Spec>::release(const ResourceHandle& handle, const ClientInstance& client,
                                  const Lumen::Ptr<const Asic::DependencyEntryHandle>& entry) {
  Resource& resource = resourceOf(handle);
  const auto holder =
      std::find(resource.holders.begin(), resource.holders.end(), client.clientId());
  if (holder == resource.holders.end()) {
    return;
  }
  // The release first: a process that dies in between leaves both, and the hold goes later.
  if (resource.index != 0) {
    this->releaseIs(resource.index, client.clientId(), entry);
  }
  for (const auto& replaced : resource.replaced) {
    this->releaseSaid(replaced.index, client.clientId(), entry);
  }
  (void)this->holdDel(resource.number, client.clientId());
  resource.holders.erase(holder);
  const_cast<ResourceHandle&>(handle).postReleaseProtoStateIs(true);
}

// Its handles stay with whoever has them; nobody else gets them.
template <class Spec>
void ResourceTable<Spec>::clientGone(const ClientInstance& client) noexcept {
  for (const auto& node : resources_) {
    for (auto* handle = node.value()->handles; handle != nullptr; handle = handle->next()) {
      if (handle->client() == &client) {
        handle->clientIs(nullptr);
      }
    }
  }
}

template <class Spec>
void ResourceTable<Spec>::handleGone(PactResourceTable::ResourceHandle& handle) noexcept {
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
template <class Spec>
void ResourceTable<Spec>::maybeDrop(Resource& resource) {
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
  for (const auto& replaced : resource.replaced) {
    replacedIn_.erase(replaced.index);
  }
  byNumber_.erase(resource.number);
  (void)resources_.del(resource.key);
}

template <class Spec>
void ResourceTable<Spec>::releaseReported(std::uint32_t index) {
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

template <class Spec>
bool ResourceTable<Spec>::serveWaiting() {
  bool served = false;
  while (!queue_.empty()) {
    const Lumen::Ptr<Resource> first = queue_.front();
    // One that waits no more is passed over.
    if (first->queued) {
      if (pool().taken() == pool().limit()) {
        break;
      }
      settle(*first, ClientId{}, Turn::next);
      if (first->queued) {
        break;  // the store has no room
      }
      served = true;
    }
    queue_.pop_front();
  }
  return served;
}

template <class Spec>
bool ResourceTable<Spec>::failLate(double time) {
  bool failed = false;
  for (const auto& resource : std::exchange(unresolved_, {})) {
    const bool waits = resource->state == Asic::EntryState::entryStateUnresolved ||
                       resource->state == Asic::EntryState::entryStateInLog;
    if (!waits || resource->handles == nullptr) {
      continue;
    }
    if (resource->since > time) {
      unresolved_.push_back(resource);
      continue;
    }
    LUMEN_TRACE(this->traceHandle(), 1, className(), "Past its deadline: {}", resource->key);
    stateIs(*resource, Asic::EntryState::entryStateFailed6);
    failed = true;
  }
  return failed;
}

template <class Spec>
void ResourceTable<Spec>::prepareIs(const Key& key, Stage stage) {
  Order& order = orders_[key];
  order.stage = stage;
  if (order.stage == Stage::none && !order.refused) {
    orders_.erase(key);
  }
  const Lumen::Ptr<Resource> resource(find(key));
  if (!resource || resource->index != 0) {
    return;
  }
  if (resource->state == Asic::EntryState::entryStateFailed6) {
    resource->since = Brio::System::currentTimeUtc();
    stateIs(*resource, Asic::EntryState::entryStateUnresolved);
  }
  // Whoever was told may have let go of it.
  if (find(key) == resource.get()) {
    settle(*resource, ClientId{});
  }
  this->askAgain();
}

template <class Spec>
void ResourceTable<Spec>::refusedIs(const Key& key, bool refused) {
  Order& order = orders_[key];
  order.refused = refused;
  if (!refused && order.stage == Stage::none) {
    orders_.erase(key);
  }
  if (Resource* resource = find(key)) {
    settle(*resource, ClientId{});
    this->askAgain();
  }
}

template <class Spec>
bool ResourceTable<Spec>::change(const Key& key) {
  Resource* resource = find(key);
  if (resource == nullptr || resource->state != Asic::EntryState::entryStateSuccess) {
    return false;
  }
  const std::uint32_t index = pool().take();
  if (index == 0) {
    return false;
  }
  const std::uint32_t old = resource->index;
  // Whoever holds it will say from when on the old index is free.
  for (const ClientId& client : resource->holders) {
    this->releaseAwaited(old, client);
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

template <class Spec>
void ResourceTable<Spec>::replayComplete() {
  this->takeOldHolds([this](std::uint32_t number, ClientId client) {
    const auto found = byNumber_.find(number);
    if (found == byNumber_.end()) {
      return;
    }
    std::erase(found->second->holders, client);
    if (found->second->index != 0) {
      const Asic::LogVersion last = this->lastVersion(client.tableId);
      if (last.value != 0) {
        this->releaseIs(found->second->index, client, last);
      }
    }
  });
  this->oldReleasesSaid();
  // What nobody has asked for, and the chip does not use.
  std::vector<Lumen::Ptr<Resource>> all;
  for (const auto& node : resources_) {
    all.push_back(node.value());
  }
  for (const auto& resource : all) {
    maybeDrop(*resource);
  }
  (void)this->work();
}

}  // namespace PactResourceTable
