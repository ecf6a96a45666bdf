#pragma once

// The bodies of KelpResourceLinkage. Included by the unit of a table that instantiates it, and by
// nobody else.

#include "Brio/MutatorException.h"
#include "KelpEmServer/KelpResourceLinkage.h"
#include "KelpEmServer/KelpSwTable.h"
#include "OrderedTable/OrderedTableResourceAccessor.h"

namespace KelpEmServer {

template <TableSpec T, class L>
using ResourceAccessor = Asic::SwTableResourceAccessor<KelpResourceLinkage<T, L>>;

// --- the state machine

template <TableSpec T, class L>
KelpResourceLinkage<T, L>::LocalUsageUpdateSm::LocalUsageUpdateSm(
    const Lumen::Ptr<const ResourceHandle>& resPtr, KelpResourceLinkage* parent)
    : resPtr_(resPtr), parent_(parent) {
  static_assert(Brio::fieldId<LocalUsageUpdateSm>("resPtr") == Lumen::FieldId{130} &&
                Brio::fieldId<LocalUsageUpdateSm>("parent") == Lumen::FieldId{131} &&
                Brio::fieldId<LocalUsageUpdateSm>("swTable") == Lumen::FieldId{132} &&
                Brio::fieldId<LocalUsageUpdateSm>("resKey") == Lumen::FieldId{133} &&
                Brio::fieldId<LocalUsageUpdateSm>("entryUsage") == Lumen::FieldId{134} &&
                Brio::fieldId<LocalUsageUpdateSm>("handleResourceChange") == Lumen::FieldId{135});
  subscriber_.self = this;
  if (resPtr_ && subscriber_.dispatch() == nullptr) {
    subscribe();
  }
}

template <TableSpec T, class L>
KelpResourceLinkage<T, L>::LocalUsageUpdateSm::~LocalUsageUpdateSm() {
  this->nodeFlagSet(Lumen::Node::kHasNotificationActive, false);
  this->nodeFlagSet(Lumen::Node::kZombieReactors, true);
  if (subscriber_.dispatch() != nullptr) {
    unsubscribe();
  }
  entryUsageDelAll();
  resPtr_ = nullptr;
}

template <TableSpec T, class L>
void KelpResourceLinkage<T, L>::LocalUsageUpdateSm::subscribe() {
  subscriber_.dispatchIs(&LocalUsageUpdateSm::resPtrDispatch);
  resPtr_->publisher()->subscriberAdd(&subscriber_);
}

template <TableSpec T, class L>
void KelpResourceLinkage<T, L>::LocalUsageUpdateSm::unsubscribe() {
  resPtr_->publisher()->subscriberRemove(&subscriber_);
  subscriber_.dispatchIs(nullptr);
}

template <TableSpec T, class L>
void KelpResourceLinkage<T, L>::LocalUsageUpdateSm::hasNotificationActiveIs(bool active) {
  if (this->nodeFlag(Lumen::Node::kHasNotificationActive) == active) {
    return;
  }
  this->nodeFlagSet(Lumen::Node::kHasNotificationActive, active);
  const bool zombie = this->nodeFlag(Lumen::Node::kZombieReactors);
  brioDoZombieReactors(true);
  if (resPtr_) {
    if (active && subscriber_.dispatch() == nullptr) {
      subscribe();
    } else if (!active && subscriber_.dispatch() != nullptr) {
      unsubscribe();
    }
  }
  brioDoZombieReactors(zombie);
}

template <TableSpec T, class L>
void KelpResourceLinkage<T, L>::LocalUsageUpdateSm::entryUsageIs(const Key& key) {
  const auto hashed = entryUsage_.hashed(key);
  if (entryUsage_.find(hashed) == nullptr) {
    entryUsage_.newMember(hashed, HN_EntryUsage(key));
  }
}

template <TableSpec T, class L>
void KelpResourceLinkage<T, L>::LocalUsageUpdateSm::handleResourceChange() {
  ResourceAccessor<T, L>(parent_).handleResourceChange(this);
}

template <TableSpec T, class L>
void KelpResourceLinkage<T, L>::LocalUsageUpdateSm::resPtrDispatch(Lumen::Publisher*,
                                                                   Lumen::Subscriber* subscriber,
                                                                   Lumen::FieldId field,
                                                                   const void*,
                                                                   const void*) noexcept {
  LocalUsageUpdateSm* const self = static_cast<ResPtrSubscriber*>(subscriber)->self;
  if (field.attribute() != ResourceTable::Kind::kFieldId.attribute() ||
      self->nodeFlag(Lumen::Node::kZombieReactors)) {
    return;
  }
  // A rewrite may take the last user away.
  const Lumen::Ptr<LocalUsageUpdateSm> stays(self);
  self->handleResourceChange();
}

// --- the linkage

template <TableSpec T, class L>
KelpResourceLinkage<T, L>::KelpResourceLinkage(SwTable* swTable,
                                               const Lumen::Ptr<ClientInstance>& resTblClient)
    : swTable_(swTable), resTblClient_(resTblClient) {
  static_assert(Brio::fieldId<KelpResourceLinkage>("swTable") == Lumen::FieldId{130} &&
                Brio::fieldId<KelpResourceLinkage>("resTblClient") == Lumen::FieldId{131} &&
                Brio::fieldId<KelpResourceLinkage>("updateLocalUsage") == Lumen::FieldId{132} &&
                Brio::fieldId<KelpResourceLinkage>("entryResolutionState") == Lumen::FieldId{133} &&
                Brio::fieldId<KelpResourceLinkage>("resolveEntry") == Lumen::FieldId{134} &&
                Brio::fieldId<KelpResourceLinkage>("getNeededEntrySet") == Lumen::FieldId{135} &&
                Brio::fieldId<KelpResourceLinkage>("restoreEntry") == Lumen::FieldId{136} &&
                Brio::fieldId<KelpResourceLinkage>("handleResourceChangeAtInit") ==
                    Lumen::FieldId{137} &&
                Brio::fieldId<KelpResourceLinkage>("entryUsageSm") == Lumen::FieldId{138} &&
                Brio::fieldId<KelpResourceLinkage>("resourceKey") == Lumen::FieldId{139} &&
                Brio::fieldId<KelpResourceLinkage>("resourceKeyFromEntry") == Lumen::FieldId{140} &&
                Brio::fieldId<KelpResourceLinkage>("resourceHandle") == Lumen::FieldId{141} &&
                Brio::fieldId<KelpResourceLinkage>("setResourceHandle") == Lumen::FieldId{142});
  if (resTblClient_ && swTable_ != nullptr) {
    resTblClient_->clientIdIs({swTable_->tableId(), swTable_->unitId()});
  }
}

template <TableSpec T, class L>
KelpResourceLinkage<T, L>::~KelpResourceLinkage() {
  this->nodeFlagSet(Lumen::Node::kHasNotificationActive, false);
  entryUsageSmDelAll();
}

template <TableSpec T, class L>
void KelpResourceLinkage<T, L>::resolveEntry(const Lumen::Ptr<Wrapper>& wrapper) {
  static const ResourceKey none{};
  if (L::key(wrapper->entry()).isEq(none)) {
    return;
  }
  L::handleIs(*wrapper, L::request(*resTblClient_, wrapper->entry(), L::handle(*wrapper).get()));
}

template <TableSpec T, class L>
void KelpResourceLinkage<T, L>::setResourceHandle(const Lumen::Ptr<Wrapper>& wrapper) {
  if (const LocalUsageUpdateSm* sm = find(L::key(wrapper->entry()))) {
    L::handleIs(*wrapper, sm->resPtr());
  }
}

template <TableSpec T, class L>
Asic::EntryState KelpResourceLinkage<T, L>::entryResolutionState(
    const Lumen::Ptr<const Wrapper>& wrapper) const {
  return ResourceAccessor<T, L>(const_cast<KelpResourceLinkage*>(this))
      .entryResolutionState(wrapper);
}

template <TableSpec T, class L>
Lumen::Ptr<Asic::NeededEntry> KelpResourceLinkage<T, L>::getNeededEntrySet(
    const Lumen::Ptr<const Wrapper>& wrapper) const {
  return ResourceAccessor<T, L>(const_cast<KelpResourceLinkage*>(this)).getNeededEntrySet(wrapper);
}

template <TableSpec T, class L>
void KelpResourceLinkage<T, L>::restoreEntry(const Lumen::Ptr<Wrapper>& wrapper) {
  ResourceAccessor<T, L>(this).restoreEntry(wrapper);
}

template <TableSpec T, class L>
void KelpResourceLinkage<T, L>::updateLocalUsage(const Lumen::Ptr<Wrapper>& swEntry,
                                                 const Entry& oldEntry, bool isDeleted) {
  ResourceAccessor<T, L>(this).updateLocalUsage(swEntry, oldEntry, isDeleted);
}

template <TableSpec T, class L>
void KelpResourceLinkage<T, L>::handleResourceChangeAtInit() {
  for (auto iter = entryUsageSm_.iterator(); iter; iter.advance()) {
    const Lumen::Ptr<LocalUsageUpdateSm> sm = iter.currNodeMaybeStale()->value();
    ResourceAccessor<T, L>(this).handleResourceChange(sm.get());
  }
}

template <TableSpec T, class L>
auto KelpResourceLinkage<T, L>::entryUsageSm(const ResourceKey& key) const
    -> Lumen::Ptr<LocalUsageUpdateSm> {
  return Lumen::Ptr<LocalUsageUpdateSm>(find(key));
}

template <TableSpec T, class L>
auto KelpResourceLinkage<T, L>::find(const ResourceKey& key) const -> LocalUsageUpdateSm* {
  if (foundLast_ == nullptr || !foundLast_->resKey().isEq(key)) {
    const auto* node = entryUsageSm_[key];
    if (node == nullptr) {
      return nullptr;
    }
    foundLast_ = node->value().get();
  }
  return foundLast_;
}

template <TableSpec T, class L>
auto KelpResourceLinkage<T, L>::entryUsageSmIs(const Lumen::Ptr<const ResourceHandle>& resPtr)
    -> Lumen::Ptr<LocalUsageUpdateSm> {
  constexpr Lumen::FieldId kField = Brio::fieldId<KelpResourceLinkage>("entryUsageSm");
  if (!resPtr) {
    Brio::throwMutatorArgNullPointerException("resPtr", kField);
  }
  const ResourceKey& key = resPtr->key();
  const auto hashed = entryUsageSm_.hashed(key);
  if (const auto* node = entryUsageSm_.find(hashed)) {
    if (node->value()->resPtr() != resPtr) {
      Brio::Impl::throwMutatorReinstantiating("resPtr", kField);
    }
    return node->value();
  }
  const auto sm = LocalUsageUpdateSm::LocalUsageUpdateSmIs(resPtr, this);
  entryUsageSm_.newMember(hashed, HN_EntryUsageSm(sm));
  resPtr->noteIs(sm.get());
  publisher_.publishChangeRecursive(kField, &key, nullptr);
  return sm;
}

template <TableSpec T, class L>
auto KelpResourceLinkage<T, L>::entryUsageSmDel(const ResourceKey& key)
    -> Lumen::Ptr<LocalUsageUpdateSm> {
  if (entryUsageSm_.empty()) {
    return nullptr;
  }
  HN_EntryUsageSm node{Lumen::Ptr<LocalUsageUpdateSm>()};
  if (!entryUsageSm_.del(entryUsageSm_.hashed(key), &node)) {
    return nullptr;
  }
  const Lumen::Ptr<LocalUsageUpdateSm> sm = std::move(node.value());
  if (foundLast_ == sm.get()) {
    foundLast_ = nullptr;
  }
  sm->resPtr()->noteIs(nullptr);
  publisher_.publishChangeRecursive(Brio::fieldId<KelpResourceLinkage>("entryUsageSm"), &key,
                                    nullptr);
  sm->hasNotificationActiveIs(false);
  return sm;
}

template <TableSpec T, class L>
void KelpResourceLinkage<T, L>::entryUsageSmDelAll() {
  for (auto iter = entryUsageSm_.iterator(); iter; iter.advance()) {
    const ResourceKey key = iter.currNodeMaybeStale()->key();
    (void)entryUsageSmDel(key);
  }
}

}  // namespace KelpEmServer
