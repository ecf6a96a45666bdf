#pragma once

#include <cstdint>
#include <deque>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Asic/DependencyEntryHandle.h"
#include "Asic/EntryState.h"
#include "Brio/HashMap2018.h"
#include "Brio/System.h"
#include "Lumen/Exception.h"
#include "Lumen/Node.h"
#include "Lumen/Ptr.h"
#include "Lumen/Trace.h"
#include "PactResourceTable/ResourceHandle.h"
#include "PactResourceTable/TableCore.h"
#include "PoolSlab/Slabbed.h"

namespace PactResourceTable {

// A table of one kind of resource: gives an index to each key that a client asks for, the same one
// to all clients, as long as one of them needs it. What is given out lies in the store, so that
// after a restart a known key has its index at once.
//
// Spec tells the kind:
//   Key, Results, ClientData            what is asked for by, what an entry gets, what comes with a
//                                       request (the first request of a key decides)
//   handle class                        TypedResourceHandle<Key, Results>
//   name, tableNamespace, tableName     of the class, and of the table
//   tableId, kFieldId, kSalt, kLimit    kFieldId: under which a handle publishes a change; kLimit:
//                                       indexes from 1 on
//   results(index, clientData)          what index and client data are to an entry
//   clientData(number), number(data)    client data as it is stored
//
// The states of a resource, as its handles show them:
//   unresolved  somebody prepares it (prepareIs)
//   inLog       it is prepared, and confirmed next
//   success     it has an index, whatever is being prepared for it
//   failed      3: refused, or failed by an operator; 5: no index was free; 6: it was unresolved
//   for
//               longer than the deadline
//
// For one thread. A handle, a client and the table may go in any order.
template <class SpecT>
class ResourceTable final : public TableCore, private HandleOwner {
 public:
  using Spec = SpecT;
  using Key = typename Spec::Key;
  using ClientData = typename Spec::ClientData;
  using ResourceHandle = TypedResourceHandle<Key, typename Spec::Results>;
  using Record = ResourceRecord<Key>;

  static constexpr const char* className() { return Spec::className(); }

  // One software table's side of the resource table.
  class ClientInstance final : public Lumen::Node, public PoolSlab::Slabbed<ClientInstance> {
   public:
    static constexpr const char* className() { return Spec::clientClassName(); }

    explicit ClientInstance(Lumen::Ptr<ResourceTable> table) : table_(std::move(table)) {}
    ~ClientInstance() override { table_->clientGone(*this); }

    // Who the client is, for the store: to be said before the first request.
    void clientIdIs(ClientId id) noexcept { id_ = id; }
    [[nodiscard]] ClientId clientId() const noexcept { return id_; }

    // The handle of the key, always the same one for this client as long as somebody holds it, and
    // never null. Asking again is harmless, and has a resource that could not be had tried again.
    // Costs one search by the key.
    [[nodiscard]] Lumen::Ptr<const ResourceHandle> request(
        const Key& key, const ClientData& data,
        const Lumen::Ptr<const Asic::DependencyEntryHandle>& dependency) {
      (void)dependency;
      return table_->request(key, data, *this);
    }
    [[nodiscard]] Lumen::Ptr<const ResourceHandle> request(
        const Key& key, const Lumen::Ptr<const Asic::DependencyEntryHandle>& dependency) {
      return request(key, ClientData{}, dependency);
    }
    // The client does without the resource, from the log record of `entry` on (null: at once). A
    // second release does nothing.
    void release(const Lumen::Ptr<const ResourceHandle>& handle,
                 const Lumen::Ptr<const Asic::DependencyEntryHandle>& entry) {
      table_->release(*handle, *this, entry);
    }
    // The client has worked off `version` of the resource, up to the log record of `entry` (null:
    // nothing had to be done). From the first time on it holds the resource.
    void ackUpdate(const Lumen::Ptr<const ResourceHandle>& handle, std::uint32_t version,
                   const Lumen::Ptr<const Asic::DependencyEntryHandle>& entry) {
      table_->ackUpdate(*handle, *this, version, entry);
    }

    [[nodiscard]] const Lumen::Ptr<ResourceTable>& table() const noexcept { return table_; }

   private:
    Lumen::Ptr<ResourceTable> table_;
    ClientId id_;
  };

  // Takes over what an earlier run left. Throws BrioSharedMem::StoreError.
  explicit ResourceTable(const Lumen::Ptr<Asic::OrderedTableInterface>& agent,
                         std::uint32_t limit = Spec::kLimit);
  ~ResourceTable() override;

  // A new client.
  [[nodiscard]] Lumen::Ptr<ClientInstance> makeClientInstance() {
    return Lumen::makeNode<ClientInstance>(Lumen::Ptr<ResourceTable>(this));
  }

  // ---- what an operator does, or the hardware

  // How far a key is that has no index yet: none gives it one when it is asked for.
  enum class Stage : std::uint8_t { none, preparing, confirming };
  void prepareIs(const Key& key, Stage stage);
  // The key can't be had (state 3), or can again.
  void refusedIs(const Key& key, bool refused);
  // The resource gets another index; the old one is kept for as long as the chip may use it. False
  // if there is no such resource in state success, or no index.
  bool change(const Key& key);

  void replayComplete() override;
  [[nodiscard]] unsigned entrys() const override { return resources_.size(); }

 private:
  struct Resource final : Lumen::Node, PoolSlab::Slabbed<Resource> {
    static constexpr const char* className() { return Spec::resourceClassName(); }

    explicit Resource(const Key& of) : key(of) {}

    const Key key;
    std::uint32_t number = 0;
    std::uint32_t index = 0;
    std::uint32_t updateVersion = 1;
    std::vector<ClientId> holders;  // those of an earlier run among them
    Asic::EntryState state = Asic::EntryState::entryStateUnresolved;
    bool queued = false;      // waits for an index
    bool announcing = false;  // its handles are being told
    bool again = false;       // and must be told once more
    ClientData data{};
    double since = 0;  // unresolved
    // Indexes that not all clients have said they do without, and the update version from which on
    // they do.
    struct Replaced {
      std::uint32_t index;
      std::uint32_t version;
    };
    std::vector<Replaced> replaced;
    PactResourceTable::ResourceHandle* handles = nullptr;
  };
  struct KeyOfResource {
    const Key& operator()(const Lumen::Ptr<Resource>& resource) const noexcept {
      static const Key none{};
      return resource ? resource->key : none;
    }
  };
  struct HN_Resource : Brio::Hm2018NI<Spec::kSalt, Key, Lumen::Ptr<Resource>, KeyOfResource, 1> {
    static constexpr const char* className() { return Spec::resourceNodeClassName(); }
    using Brio::Hm2018NI<Spec::kSalt, Key, Lumen::Ptr<Resource>, KeyOfResource, 1>::Hm2018NI;
  };
  struct Order {
    Stage stage = Stage::none;
    bool refused = false;
  };
  struct HashKey {
    std::size_t operator()(const Key& key) const noexcept {
      return Brio::HashHelper::keyHash(Spec::kSalt, key);
    }
  };

  Lumen::Ptr<const ResourceHandle> request(const Key& key, const ClientData& data,
                                           const ClientInstance& client);
  void release(const ResourceHandle& handle, const ClientInstance& client,
               const Lumen::Ptr<const Asic::DependencyEntryHandle>& entry);
  void ackUpdate(const ResourceHandle& handle, const ClientInstance& client, std::uint32_t version,
                 const Lumen::Ptr<const Asic::DependencyEntryHandle>& entry);
  void clientGone(const ClientInstance& client) noexcept;
  void handleGone(PactResourceTable::ResourceHandle& handle) noexcept override;
  void releaseReported(std::uint32_t index) override;
  bool serveWaiting() override;
  bool failLate(double time) override;

  void load();
  [[nodiscard]] Resource* find(const Key& key);
  Resource& make(const Key& key, std::uint32_t number);
  // Who asks for an index: somebody new, or the first that waits, whose turn it is.
  enum class Turn : std::uint8_t { asks, next };
  void settle(Resource& resource, ClientId client, Turn turn = Turn::asks);
  void queuedIs(Resource& resource, bool queued);
  void stateIs(Resource& resource, Asic::EntryState state);
  void mirror(const Resource& resource, ResourceHandle& handle) const;
  void announce(Resource& resource);
  void write(const Resource& resource);
  void indexIs(Resource& resource, std::uint32_t index);
  void maybeDrop(Resource& resource);
  [[nodiscard]] static Resource& resourceOf(const PactResourceTable::ResourceHandle& handle) {
    return *static_cast<Resource*>(handle.resource());
  }

  Lumen::Ptr<ResourceQuilt<Key>> quilt_;
  Brio::HashMap2018<HN_Resource> resources_;
  std::vector<Resource*> byIndex_;
  std::unordered_map<std::uint32_t, Resource*> byNumber_;
  // Those that wait for an index, in the order of their coming; and some that do no more.
  std::deque<Lumen::Ptr<Resource>> queue_;
  std::uint32_t waiting_ = 0;                                // those that do
  std::unordered_map<std::uint32_t, Resource*> replacedIn_;  // by index
  std::vector<Lumen::Ptr<Resource>> unresolved_;             // or were
  std::unordered_map<Key, Order, HashKey> orders_;
  std::uint32_t lastNumber_ = 0;
};

}  // namespace PactResourceTable
