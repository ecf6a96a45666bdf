#pragma once

#include <cstdint>

#include "Brio/Attributes.h"
#include "Brio/HashMap2018.h"
#include "KelpEmServer/Forward.h"
#include "KelpEmServer/KelpEntryWrapper.h"
#include "KelpEmServer/LinkageKinds.h"
#include "KelpEmServer/TypeModule.h"
#include "Lumen/Node.h"
#include "Lumen/Publisher.h"
#include "PoolSlab/Slabbed.h"

namespace KelpEmServer {

// What stands between one software table and one resource table. It is the table's client there; it
// knows which committed entries of the table use which resource; and it turns a change of a
// resource into rewrites of just these entries.
//
// Invariants:
//  1. entryUsageSm holds one state machine at most for each resource key, with the one handle of
//     that key.
//  2. A state machine in it has a user at least, but for the moment of its making and its removal.
//  3. A key of the table is a user of one state machine at most: that of the resource key of its
//     committed entry. What is in flight is no user.
//  4. The default key stands for no resource and is never in it.
//
// Lives as long as the table. Gives nothing up at the resource table when it goes.
template <TableSpec T, class L>
class KELP_EM_EXPORT KelpResourceLinkage final
    : public Lumen::Node,
      public PoolSlab::Slabbed<KelpResourceLinkage<T, L>> {
 public:
  using Kind = L;
  using SwTable = KelpSwTable<T>;
  using Wrapper = KelpEntryWrapper<T>;
  using Entry = typename T::Entry;
  using Key = typename Entry::Key;
  using ResourceTable = typename L::ResourceTable;
  using ClientInstance = typename ResourceTable::ClientInstance;
  using ResourceHandle = typename L::ResourceHandle;
  using ResourceKey = typename L::ResourceKey;
  static constexpr LinkageSalts kSalts = T::Linkages::template salts<L>();

  // Follows one resource for the entries that use it.
  class KELP_EM_EXPORT LocalUsageUpdateSm final : public Lumen::Node,
                                                  public PoolSlab::Slabbed<LocalUsageUpdateSm> {
   public:
    struct HN_EntryUsage : Brio::Hm2018NE<kSalts.entryUsage, Key, void, 1> {
      static constexpr const char* className() {
        return kText<"::LocalUsageUpdateSm::HN_EntryUsage">;
      }
      using Brio::Hm2018NE<kSalts.entryUsage, Key, void, 1>::Hm2018NE;
    };

    static constexpr const char* className() { return kText<"::LocalUsageUpdateSm">; }
    static constexpr auto attributes() {
      return Brio::attributeList(
          130, Brio::stored("resPtr", &LocalUsageUpdateSm::resPtr_),
          Brio::stored("parent", &LocalUsageUpdateSm::parent_),
          Brio::view("swTable", &LocalUsageUpdateSm::swTable),
          Brio::view("resKey", &LocalUsageUpdateSm::resKey),
          Brio::collection("entryUsage", &LocalUsageUpdateSm::entryUsage_)
              .writtenBy(&LocalUsageUpdateSm::entryUsageIs)
              .deletedBy(&LocalUsageUpdateSm::entryUsageDel),
          Brio::operation("handleResourceChange", &LocalUsageUpdateSm::handleResourceChange));
    }

    // Listens to the handle's changes at once, unless it is null.
    LocalUsageUpdateSm(const Lumen::Ptr<const ResourceHandle>& resPtr, KelpResourceLinkage* parent);
    ~LocalUsageUpdateSm() override;
    // A new one, with its notifications on.
    [[nodiscard]] static Lumen::Ptr<LocalUsageUpdateSm> LocalUsageUpdateSmIs(
        const Lumen::Ptr<const ResourceHandle>& resPtr, KelpResourceLinkage* parent) {
      auto made = Lumen::makeNode<LocalUsageUpdateSm>(resPtr, parent);
      made->hasNotificationActiveIs(true);
      return made;
    }
    [[nodiscard]] static Lumen::Ptr<LocalUsageUpdateSm> localUsageUpdateSmFactory(
        const Lumen::Ptr<const ResourceHandle>& resPtr, KelpResourceLinkage* parent) {
      return LocalUsageUpdateSmIs(resPtr, parent);
    }

    static constexpr auto factory() { return &LocalUsageUpdateSm::LocalUsageUpdateSmIs; }
    static constexpr const Lumen::TypeData& classData() {
      return kTypeData<T, "KelpResourceTableLinkage", L::smIndex, L::name + "::LocalUsageUpdateSm">;
    }
    [[nodiscard]] const Lumen::TypeData& typeData() const override { return classData(); }
    // While it is on, reactors of this object do not run.
    virtual void brioDoZombieReactors(bool zombie) {
      this->nodeFlagSet(Lumen::Node::kZombieReactors, zombie);
    }
    void hasNotificationActiveIs(bool active);

    [[nodiscard]] const Lumen::Ptr<const ResourceHandle>& resPtr() const noexcept {
      return resPtr_;
    }
    [[nodiscard]] KelpResourceLinkage* parent() const noexcept { return parent_; }
    // Null without a parent.
    [[nodiscard]] SwTable* swTable() const noexcept {
      return parent_ == nullptr ? nullptr : parent_->swTable();
    }
    // The key inside the handle; the default key without one.
    [[nodiscard]] const ResourceKey& resKey() const noexcept {
      static const ResourceKey none{};
      return resPtr_ ? resPtr_->key() : none;
    }
    // The keys of the entries that use the resource. Nothing is published of their changes.
    [[nodiscard]] const auto& entryUsage() const noexcept { return entryUsage_; }
    void entryUsageIs(const Key& key);
    void entryUsageDel(const Key& key) { (void)entryUsage_.del(key); }
    void entryUsageDelAll() { entryUsage_.delAll(); }

    // The resource is another now, or may be: rewrites the entries that use it and acknowledges.
    void handleResourceChange();
    static void resPtrDispatch(Lumen::Publisher* publisher, Lumen::Subscriber* subscriber,
                               Lumen::FieldId field, const void* key,
                               const void* oldValue) noexcept;

   private:
    struct ResPtrSubscriber : Lumen::Subscriber {
      LocalUsageUpdateSm* self = nullptr;
    };

    void subscribe();
    void unsubscribe();

    Lumen::Ptr<const ResourceHandle> resPtr_;
    ResPtrSubscriber subscriber_;
    KelpResourceLinkage* parent_;
    Brio::HashMap2018<HN_EntryUsage> entryUsage_;
  };

  struct EntryUsageSmKeyFunktor {
    const ResourceKey& operator()(const Lumen::Ptr<LocalUsageUpdateSm>& sm) const noexcept {
      static const ResourceKey none{};
      return sm ? sm->resKey() : none;
    }
  };
  struct HN_EntryUsageSm
      : Brio::Hm2018NI<kSalts.entryUsageSm, ResourceKey, Lumen::Ptr<LocalUsageUpdateSm>,
                       EntryUsageSmKeyFunktor, 1> {
    static constexpr const char* className() { return kText<"::HN_EntryUsageSm">; }
    using Brio::Hm2018NI<kSalts.entryUsageSm, ResourceKey, Lumen::Ptr<LocalUsageUpdateSm>,
                         EntryUsageSmKeyFunktor, 1>::Hm2018NI;
  };

  static constexpr const char* className() { return kText<"">; }
  static constexpr auto attributes() {
    return Brio::attributeList(
        130, Brio::stored("swTable", &KelpResourceLinkage::swTable_),
        Brio::stored("resTblClient", &KelpResourceLinkage::resTblClient_),
        Brio::operation("updateLocalUsage", &KelpResourceLinkage::updateLocalUsage),
        Brio::operation("entryResolutionState", &KelpResourceLinkage::entryResolutionState),
        Brio::operation("resolveEntry", &KelpResourceLinkage::resolveEntry),
        Brio::operation("getNeededEntrySet", &KelpResourceLinkage::getNeededEntrySet),
        Brio::operation("restoreEntry", &KelpResourceLinkage::restoreEntry),
        Brio::operation("handleResourceChangeAtInit",
                        &KelpResourceLinkage::handleResourceChangeAtInit),
        Brio::collection("entryUsageSm", &KelpResourceLinkage::entryUsageSm_)
            .writtenBy(&KelpResourceLinkage::entryUsageSmIs)
            .deletedBy(&KelpResourceLinkage::entryUsageSmDel),
        Brio::operation("resourceKey", &KelpResourceLinkage::resourceKey).takesNull(),
        Brio::operation("resourceKeyFromEntry", &KelpResourceLinkage::resourceKeyFromEntry)
            .notServed(),
        Brio::operation("resourceHandle", &KelpResourceLinkage::resourceHandle).notServed(),
        Brio::operation("setResourceHandle", &KelpResourceLinkage::setResourceHandle));
  }

  KelpResourceLinkage(SwTable* swTable, const Lumen::Ptr<ClientInstance>& resTblClient);
  ~KelpResourceLinkage() override;
  [[nodiscard]] static Lumen::Ptr<KelpResourceLinkage> KelpResourceLinkageIs(
      SwTable* swTable, const Lumen::Ptr<ClientInstance>& resTblClient) {
    return Lumen::makeNode<KelpResourceLinkage>(swTable, resTblClient);
  }

  [[nodiscard]] Lumen::Publisher* publisher() const override { return &publisher_; }
  static constexpr auto factory() { return &KelpResourceLinkage::KelpResourceLinkageIs; }
  static constexpr const Lumen::TypeData& classData() {
    return kTypeData<T, "KelpResourceTableLinkage", L::index, L::name>;
  }
  [[nodiscard]] const Lumen::TypeData& typeData() const override { return classData(); }

  [[nodiscard]] SwTable* swTable() const noexcept { return swTable_; }
  [[nodiscard]] const Lumen::Ptr<ClientInstance>& resTblClient() const noexcept {
    return resTblClient_;
  }

  // Asks for the resource of an entry in flight and gives the entry the handle; nothing for the
  // default key. Changes no usage.
  void resolveEntry(const Lumen::Ptr<Wrapper>& wrapper);
  // Gives it the handle that is in use for its key, if there is one.
  void setResourceHandle(const Lumen::Ptr<Wrapper>& wrapper);
  // What the entry's handle says: unresolved, success or failed (6). Success without a handle.
  // Asserts that the handle is in a state that a handle may be in.
  [[nodiscard]] Asic::EntryState entryResolutionState(
      const Lumen::Ptr<const Wrapper>& wrapper) const;
  // What the resource itself depends on; a new set, never null.
  [[nodiscard]] Lumen::Ptr<Asic::NeededEntry> getNeededEntrySet(
      const Lumen::Ptr<const Wrapper>& wrapper) const;
  // Enters the use of an entry that an earlier run has left; acknowledges nothing.
  void restoreEntry(const Lumen::Ptr<Wrapper>& wrapper);
  // A commit has replaced `oldEntry` by what the wrapper holds, or has removed it.
  void updateLocalUsage(const Lumen::Ptr<Wrapper>& swEntry, const Entry& oldEntry, bool isDeleted);
  // Brings all restored entries in line with what their resources are now, and acknowledges.
  void handleResourceChangeAtInit();

  // The default key for a null wrapper.
  [[nodiscard]] ResourceKey resourceKey(const Lumen::Ptr<const Wrapper>& wrapper) const {
    return wrapper ? L::key(wrapper->entry()) : ResourceKey{};
  }
  [[nodiscard]] const ResourceKey& resourceKeyFromEntry(const Entry& entry) const {
    return L::key(entry);
  }
  // Null for a null wrapper.
  [[nodiscard]] Lumen::Ptr<const ResourceHandle> resourceHandle(
      const Lumen::Ptr<const Wrapper>& wrapper) const {
    return wrapper ? L::handle(*wrapper) : Lumen::Ptr<const ResourceHandle>();
  }

  // The resources in use, by key.
  [[nodiscard]] const auto& entryUsageSm() const noexcept { return entryUsageSm_; }
  // Null if the key is not in use.
  [[nodiscard]] Lumen::Ptr<LocalUsageUpdateSm> entryUsageSm(const ResourceKey& key) const;
  // The same for the key of a handle, without a search.
  [[nodiscard]] static LocalUsageUpdateSm* entryUsageSm(const ResourceHandle& resPtr) noexcept {
    return static_cast<LocalUsageUpdateSm*>(resPtr.note());
  }
  // Finds or makes the state machine of the handle's key. Throws Brio::MutatorException for a null
  // handle, and for another one than the state machine has.
  Lumen::Ptr<LocalUsageUpdateSm> entryUsageSmIs(const Lumen::Ptr<const ResourceHandle>& resPtr);
  // Gives back what was removed, or null. It hears no changes any more.
  Lumen::Ptr<LocalUsageUpdateSm> entryUsageSmDel(const ResourceKey& key);
  void entryUsageSmDelAll();

 private:
  // Null if the key is not in use.
  [[nodiscard]] LocalUsageUpdateSm* find(const ResourceKey& key) const;

  // "Isem1TagKelpInLifIndexLinkage" and what is behind it.
  template <Brio::FixedString suffix>
  static constexpr auto kFixed = T::name + L::name + suffix;
  template <Brio::FixedString suffix>
  static constexpr const char* kText = kFixed<suffix>.c_str();

  SwTable* swTable_;
  Lumen::Ptr<ClientInstance> resTblClient_;
  Brio::HashMap2018<HN_EntryUsageSm> entryUsageSm_;
  mutable Lumen::Publisher publisher_;
  // The one of entryUsageSm_ that was found last: who rewrites or removes users of a resource looks
  // for it again and again.
  mutable LocalUsageUpdateSm* foundLast_ = nullptr;
};

}  // namespace KelpEmServer
