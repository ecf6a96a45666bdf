#pragma once

#include <algorithm>
#include <cstdint>
#include <map>
#include <tuple>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Asic/DependencyEntryHandle.h"
#include "Asic/EntryState.h"
#include "Brio/Attributes.h"
#include "Brio/Fields.h"
#include "Brio/FixedString.h"
#include "Brio/HashMap2018.h"
#include "Lumen/Exception.h"
#include "Lumen/Node.h"
#include "Lumen/Ptr.h"
#include "Lumen/Trace.h"
#include "PactResourceTable/ResourceHandle.h"
#include "PactResourceTable/TableCore.h"
#include "PoolSlab/Slabbed.h"

namespace PactResourceTable {

// The names of a resource table's classes, which its kind inherits. T is the kind, and has the name
// of the table's class as kName.
template <class T>
struct ClassNames {
  static constexpr const char* className() { return kText<"">.c_str(); }
  static constexpr const char* clientClassName() { return kText<"::ClientInstance">.c_str(); }
  static constexpr const char* resourceClassName() { return kText<"::Resource">.c_str(); }
  static constexpr const char* resourceNodeClassName() { return kText<"::HN_Resource">.c_str(); }

 private:
  template <Brio::FixedString suffix>
  static constexpr auto kText = T::kName + suffix;
};

// The client data of a kind whose requests carry none.
struct NoClientData {
  static NoClientData of(std::uint16_t) noexcept { return {}; }
  [[nodiscard]] static std::uint16_t number() noexcept { return 0; }
};

// A table of one kind of resource: gives an index to each key that a client asks for, the same one
// to all clients, as long as one of them needs it. What is given out lies in the store, so that
// after a restart a known key has its index at once.
//
// Kind tells the kind:
//   Key, Results, ClientData            what is asked for by, what an entry gets, what comes with a
//                                       request (the first request of a key decides)
//   handle class                        TypedResourceHandle<Key, Results>
//   kName, tableNamespace, tableName    of the class (see ClassNames), and of the table
//   tableId, kFieldId, kSalt, kLimit    kFieldId: under which a handle publishes a change; kLimit:
//                                       indexes from 1 on
//   results(index, clientData)          what index (0: none yet) and client data are to an entry
//   inspectData<place, name, base>()    what the class with the given place among the table's says
//                                       of itself
// ClientData is stored as a number: of(number) and number().
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
template <class KindT>
class ResourceTable final : public TableCore, private HandleOwner {
 public:
  using Kind = KindT;
  using Key = typename Kind::Key;
  using ClientData = typename Kind::ClientData;
  using ResourceHandle = TypedResourceHandle<Key, typename Kind::Results>;
  using Record = ResourceRecord<Key>;
  static_assert(Kind::kFieldId == Brio::fieldId<ResourceHandle>("entryState"));

  static constexpr const char* className() { return Kind::className(); }
  static constexpr auto attributes() {
    using R = ResourceTable;
    return Brio::attributeList(
        642, Brio::collection("resource", &R::resources_), Brio::operation("change", &R::change),
        Brio::operation("canChange", &R::canChange), Brio::operation("refusedIs", &R::refusedIs),
        Brio::operation("prepareIs", &R::prepareIs));
  }
  static constexpr const Lumen::TypeData& classData() {
    return Kind::template inspectData<0, Kind::kName, &TableCore::classData()>();
  }
  [[nodiscard]] const Lumen::TypeData& typeData() const override { return classData(); }

  // One software table's side of the resource table.
  class ClientInstance final : public Lumen::Node, public PoolSlab::Slabbed<ClientInstance> {
   public:
    static constexpr const char* className() { return Kind::clientClassName(); }
    static constexpr auto attributes() {
      return Brio::attributeList(130, Brio::stored("clientId", &ClientInstance::id_),
                                 Brio::stored("table", &ClientInstance::table_));
    }
    static constexpr const Lumen::TypeData& classData() {
      return Kind::template inspectData<1, Kind::kName + "::ClientInstance">();
    }
    [[nodiscard]] const Lumen::TypeData& typeData() const override { return classData(); }

    explicit ClientInstance(Lumen::Ptr<ResourceTable> table) : table_(std::move(table)) {}
    ~ClientInstance() override { table_->clientGone(*this); }

    // Who the client is, for the store: to be said before the first request.
    void clientIdIs(ClientId id) noexcept { id_ = id; }
    [[nodiscard]] ClientId clientId() const noexcept { return id_; }

    // The handle of the key, always the same one for this client as long as somebody holds it, and
    // never null. Asking again is harmless, and has a resource that could not be had tried again.
    // Costs one search by the key, or one comparison if `known`, which may be null, is the handle
    // that an earlier request has given.
    [[nodiscard]] Lumen::Ptr<const ResourceHandle> request(
        const Key& key, const ClientData& data,
        const Lumen::Ptr<const Asic::DependencyEntryHandle>& dependency,
        const ResourceHandle* known = nullptr) {
      (void)dependency;
      return table_->request(key, data, *this, known);
    }
    [[nodiscard]] Lumen::Ptr<const ResourceHandle> request(
        const Key& key, const Lumen::Ptr<const Asic::DependencyEntryHandle>& dependency,
        const ResourceHandle* known = nullptr) {
      return request(key, ClientData{}, dependency, known);
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
                         std::uint32_t limit = Kind::kLimit);
  ~ResourceTable() override;

  // A new client.
  [[nodiscard]] Lumen::Ptr<ClientInstance> makeClientInstance() {
    return Lumen::makeNode<ClientInstance>(Lumen::Ptr<ResourceTable>(this));
  }

  // ---- what an operator does, or the hardware

  // How far a key is that has no index yet: none gives it one when it is asked for.
  enum class Stage : std::uint8_t { none, preparing, confirming };
  // False, and nothing is done, if something has been said of kMostOrders other keys.
  bool prepareIs(const Key& key, Stage stage);
  // The key can't be had (state 3), or can again. False as prepareIs().
  bool refusedIs(const Key& key, bool refused);
  static constexpr std::size_t kMostOrders = 65536;

  // The resource gets another index; the old one is kept for as long as the chip may use it. False,
  // and nothing is done, if canChange() says anything but yes.
  bool change(const Key& key);
  enum class CanChange : std::uint8_t {
    yes,
    notThere,  // nobody has the resource
    refused,
    noIndex,
    noRoom,  // the store does not take the releases of the old index
  };
  [[nodiscard]] CanChange canChange(const Key& key);

  void replayComplete() override;
  [[nodiscard]] unsigned entrys() const override { return resources_.size(); }

  // What has been said of a key.
  struct Order {
    Stage stage = Stage::none;
    bool refused = false;
  };
  // What is known of a key; for inspection, which only reads it.
  struct Resource final : Lumen::Node, PoolSlab::Slabbed<Resource> {
    static constexpr const char* className() { return Kind::resourceClassName(); }
    static constexpr auto attributes() {
      using R = Resource;
      return Brio::attributeList(
          130, Brio::stored("key", &R::key), Brio::stored("index", &R::index),
          Brio::view("results", &R::results), Brio::stored("state", &R::state),
          Brio::stored("updateVersion", &R::updateVersion), Brio::stored("holders", &R::holders),
          Brio::view("waitsForIndex", &R::waitsForIndex), Brio::view("isRefused", &R::isRefused));
    }
    static constexpr const Lumen::TypeData& classData() {
      return Kind::template inspectData<2, Kind::kName + "::Resource">();
    }
    [[nodiscard]] const Lumen::TypeData& typeData() const override { return classData(); }

    explicit Resource(const Key& of) : key(of) {}

    const Key key;
    std::uint32_t number = 0;
    std::uint32_t index = 0;
    std::uint32_t updateVersion = 1;
    struct Holder {
      ClientId client;
      std::uint32_t acked;
      bool old;  // it has said so in an earlier run, and not in this one

      static constexpr auto fields() {
        return std::tuple{Brio::field("client", &Holder::client),
                          Brio::field("acked", &Holder::acked), Brio::field("old", &Holder::old)};
      }
    };
    std::vector<Holder> holders;
    Asic::EntryState state = Asic::EntryState::entryStateUnresolved;
    // Its places among those that wait for an index, and among those that are being prepared; 0:
    // none.
    std::uint64_t queued = 0;
    std::uint64_t preparing = 0;
    bool announcing = false;  // its handles are being told
    bool again = false;       // and must be told once more
    ClientData data{};
    double since = 0;  // when its preparing began
    // Indexes that not all clients have said they do without, and the update version from which on
    // they do.
    struct Replaced {
      std::uint32_t index;
      std::uint32_t version;
    };
    std::vector<Replaced> replaced;
    PactResourceTable::ResourceHandle* handles = nullptr;
    Order order;

    [[nodiscard]] typename Kind::Results results() const { return Kind::results(index, data); }
    [[nodiscard]] bool waitsForIndex() const noexcept { return queued != 0; }
    [[nodiscard]] bool isRefused() const noexcept { return order.refused; }
    [[nodiscard]] auto holder(ClientId client) {
      return std::find_if(holders.begin(), holders.end(),
                          [&](const Holder& one) { return one.client == client; });
    }
  };

 private:
  struct KeyOfResource {
    const Key& operator()(const Lumen::Ptr<Resource>& resource) const noexcept {
      static const Key none{};
      return resource ? resource->key : none;
    }
  };
  struct HN_Resource : Brio::Hm2018NI<Kind::kSalt, Key, Lumen::Ptr<Resource>, KeyOfResource, 1> {
    static constexpr const char* className() { return Kind::resourceNodeClassName(); }
    using Brio::Hm2018NI<Kind::kSalt, Key, Lumen::Ptr<Resource>, KeyOfResource, 1>::Hm2018NI;
  };
  struct HashKey {
    std::size_t operator()(const Key& key) const noexcept {
      return Brio::HashHelper::keyHash(Kind::kSalt, key);
    }
  };

  Lumen::Ptr<const ResourceHandle> request(const Key& key, const ClientData& data,
                                           const ClientInstance& client,
                                           const ResourceHandle* known);
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
  [[nodiscard]] std::uint32_t freeNumber();
  [[nodiscard]] bool orderIs(const Key& key, const Order& order);
  // Who asks for an index: somebody new, or the first that waits, whose turn it is.
  enum class Turn : std::uint8_t { asks, next };
  void settle(Resource& resource, ClientId client, Turn turn = Turn::asks);
  using Places = std::map<std::uint64_t, Resource*>;

  void placeIs(Places& places, std::uint64_t& place, Resource& resource, bool has);
  void queuedIs(Resource& resource, bool queued) {
    placeIs(queue_, resource.queued, resource, queued);
  }
  void preparingIs(Resource& resource, bool preparing);
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
  // Those that wait for an index, and those that are being prepared, in the order of their coming.
  Places queue_;
  Places preparing_;
  std::uint64_t lastPlace_ = 0;
  std::unordered_map<std::uint32_t, Resource*> replacedIn_;  // by index
  std::unordered_map<Key, Order, HashKey> orders_;           // each resource has its own at hand
  std::uint32_t lastNumber_ = 0;
  std::vector<std::uint32_t> freeNumbers_;  // up to it
};

}  // namespace PactResourceTable
