#pragma once

#include "Asic/DependencyEntryHandle.h"
#include "Asic/EntryState.h"
#include "Asic/NeededEntry.h"
#include "Brio/TraceHandle.h"
#include "Lumen/Assert.h"
#include "Lumen/Ptr.h"
#include "Lumen/String.h"
#include "Lumen/Trace.h"

namespace Asic {

// The logic of every linkage between a software table and a resource table: a value that holds the
// linkage for one call. The linkage's operations forward to it.
template <class ResourceLinkage>
class SwTableResourceAccessor {
 public:
  explicit SwTableResourceAccessor(ResourceLinkage* linkage) noexcept : linkage_(linkage) {}

  template <class Wrapper>
  [[nodiscard]] EntryState entryResolutionState(const Lumen::Ptr<const Wrapper>& wrapper) const {
    const auto handle = linkage_->resourceHandle(wrapper);
    if (!handle) {
      return EntryState::entryStateSuccess;
    }
    switch (handle->entryState()) {
      case EntryState::entryStateUnresolved:
      case EntryState::entryStateInLog:
        return EntryState::entryStateUnresolved;
      case EntryState::entryStateSuccess:
        return EntryState::entryStateSuccess;
      case EntryState::entryStateFailed3:
      case EntryState::entryStateFailed:
      case EntryState::entryStateFailed6:
        return EntryState::entryStateFailed6;
      case EntryState::entryStateReserved:
        break;
    }
    Lumen::assertThat(false, "false && \"Unhandled resHandle entryState\"");
    return EntryState::entryStateFailed6;
  }

  template <class Wrapper>
  [[nodiscard]] Lumen::Ptr<NeededEntry> getNeededEntrySet(
      const Lumen::Ptr<const Wrapper>& wrapper) const {
    const auto needed = Lumen::makeNode<NeededEntry>();
    const auto handle = linkage_->resourceHandle(wrapper);
    if (!handle) {
      return needed;
    }
    for (const TableVersion& version : handle->neededEntry()->versions()) {
      needed->add(version);
    }
    for ([[maybe_unused]] const TableVersion& version : needed->versions()) {
      LUMEN_TRACE(_defaultTraceHandle(), 9, "", "neededVersion: {}", version);
    }
    return needed;
  }

  template <class Wrapper>
  void restoreEntry(const Lumen::Ptr<Wrapper>& wrapper) {
    const auto key = linkage_->resourceKey(wrapper);
    if (key.isEq(none())) {
      return;
    }
    addResKeyMapping(key, wrapper, false);
  }

  template <class Wrapper, class Entry>
  void updateLocalUsage(const Lumen::Ptr<Wrapper>& swEntry, const Entry& oldEntry, bool isDeleted) {
    const auto& key = swEntry->key();
    LUMEN_TRACE(_defaultTraceHandle(), 8, "", "key: {}, isDeleted: {}, oldEntry:{}", key, isDeleted,
                oldEntry);
    static const Entry noEntry;
    const bool wasThere = !oldEntry.isEq(noEntry);
    if (isDeleted) {
      if (wasThere) {
        deleteResKeyMapping(linkage_->resourceKeyFromEntry(oldEntry), key, swEntry->entryHandle());
      }
      return;
    }
    const ResourceKey& newKey = linkage_->resourceKeyFromEntry(swEntry->entry());
    if (wasThere) {
      const ResourceKey& oldKey = linkage_->resourceKeyFromEntry(oldEntry);
      if (oldKey.isEq(newKey)) {
        return;
      }
      // What was used before is given up before the new one is counted.
      deleteResKeyMapping(oldKey, key, swEntry->entryHandle());
    }
    addResKeyMapping(newKey, swEntry, true);
  }

  // Counts the entry among the users of the resource. The first one acknowledges what it has seen,
  // if `ackUpdate` says so.
  template <class Wrapper>
  void addResKeyMapping(const typename ResourceLinkage::ResourceKey& resKey,
                        const Lumen::Ptr<Wrapper>& entryWrapper, bool ackUpdate) {
    const auto& swKey = entryWrapper->key();
    LUMEN_TRACE(_defaultTraceHandle(), 8, "", "resKey: {}, swKey: {}", resKey, swKey);
    if (resKey.isEq(none())) {
      LUMEN_TRACE(_defaultTraceHandle(), 3, "", "Null resKey: {}", resKey);
      return;
    }
    const auto handle = linkage_->resourceHandle(entryWrapper);
    if (handle && handle->key().isEq(resKey)) {
      if (auto* const used = ResourceLinkage::entryUsageSm(*handle)) {
        used->entryUsageIs(swKey);
        return;
      }
    }
    auto sm = linkage_->entryUsageSm(resKey);
    if (!sm) {
      sm = linkage_->entryUsageSmIs(handle);
      if (ackUpdate) {
        linkage_->resTblClient()->ackUpdate(sm->resPtr(), sm->resPtr()->updateVersion(),
                                            entryWrapper->entryHandle());
      }
      // A subscriber may have changed the collection.
      sm = linkage_->entryUsageSm(resKey);
    }
    if (sm) {
      sm->entryUsageIs(swKey);
    }
  }

  // The entry uses the resource no more. With its last user the resource is released.
  template <class SwKey, class EntryHandle>
  void deleteResKeyMapping(const typename ResourceLinkage::ResourceKey& resKey, const SwKey& swKey,
                           const Lumen::Ptr<EntryHandle>& entryHandle) {
    LUMEN_TRACE(_defaultTraceHandle(), 8, "", "resKey: {}, swKey: {}", resKey, swKey);
    const auto sm = linkage_->entryUsageSm(resKey);
    if (!sm) {
      return;
    }
    sm->entryUsageDel(swKey);
    if (sm->entryUsage().empty()) {
      linkage_->resTblClient()->release(sm->resPtr(), entryHandle);
      (void)linkage_->entryUsageSmDel(resKey);
    }
  }

  // Rewrites every entry that uses the resource of `sm`, and acknowledges the resource's version.
  template <class Sm>
  void handleResourceChange(Sm* sm) {
    LUMEN_TRACE(_defaultTraceHandle(), 8, "", "");
    const auto resPtr = sm->resPtr();
    if (resPtr->isPostReleaseProtoState()) {
      LUMEN_TRACE(_defaultTraceHandle(), 3, "", "Ignoring change for resourceKey: {} ",
                  resPtr->key());
      return;
    }
    Lumen::Ptr<const DependencyEntryHandle> last;
    for (auto iter = sm->entryUsage().iterator(); iter; iter.advance()) {
      const auto key = iter.currNodeMaybeStale()->key();
      LUMEN_TRACE(_defaultTraceHandle(), 3, "", "Updating sw table entry for key: {}", key);
      if (const auto handle = sm->swTable()->updateEntry(key)) {
        last = handle;
      }
    }
    linkage_->resTblClient()->ackUpdate(resPtr, resPtr->updateVersion(), last);
  }

  // One handle per instantiation, named after the linkage class.
  static const Brio::TraceHandle& _defaultTraceHandle() {
    static const Brio::TraceHandle handle(Lumen::String(ResourceLinkage::className()), false);
    return handle;
  }

 private:
  using ResourceKey = typename ResourceLinkage::ResourceKey;

  // Stands for no resource.
  [[nodiscard]] static const ResourceKey& none() {
    static const ResourceKey key{};
    return key;
  }

  ResourceLinkage* linkage_;
};

}  // namespace Asic
