#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "Asic/DependencyEntryHandle.h"
#include "Asic/OrderedTableInterface.h"
#include "Asic/SharedMemory.h"
#include "Brio/Log.h"
#include "HardwareSide.h"
#include "KelpEmServer/TableCatalogue.h"
#include "KelpTunnelNiLib/ResourceTableSet.h"
#include "Lumen/Publisher.h"
#include "Quilt/IterHint.h"
#include "TempRoot.h"
#include "Vault/EntityManager.h"

namespace ResourceTest {

using EgressRemarkProfile = KelpQos::EgressRemarkProfileResourceTable;
using InLifIndex = KelpTunnelNiLib::InLifIndexResourceTable;
using VlanEditProfile = KelpTunnelNiLib::EveResourceTableResourceTable;

#ifdef KELP_FEW_TABLES
// One of each kind: without client data and with it.
using AllResourceTables = testing::Types<InLifIndex, EgressRemarkProfile>;
#else
using AllResourceTables = testing::Types<InLifIndex, VlanEditProfile, EgressRemarkProfile>;
#endif

struct ResourceTableName {
  template <class T>
  static std::string GetName(int) {
    return T::className();
  }
};

// An entry of a client's table, with its record in the log as long as it has a version.
class LoggedEntry final : public Asic::DependencyEntryHandle {
 public:
  LoggedEntry(Asic::SwTableId tableId, std::uint64_t version)
      : version_{tableId, Asic::LogVersion{version}} {}

  [[nodiscard]] Asic::TableVersion entryTableVersion() const override { return version_; }
  void versionIs(std::uint64_t version) { version_.version = Asic::LogVersion{version}; }

 private:
  Asic::TableVersion version_;
};

// Notes the field ids that a handle publishes.
class FieldWatch : public Lumen::Subscriber {
 public:
  explicit FieldWatch(Lumen::Publisher* publisher)
      : Lumen::Subscriber(&FieldWatch::take), publisher_(publisher) {
    publisher_->subscriberAdd(this);
  }
  ~FieldWatch() { publisher_->subscriberRemove(this); }
  FieldWatch(const FieldWatch&) = delete;
  FieldWatch& operator=(const FieldWatch&) = delete;

  std::vector<std::uint32_t> fields;

 private:
  static void take(Lumen::Publisher*, Lumen::Subscriber* self, Lumen::FieldId field, const void*,
                   const void*) {
    static_cast<FieldWatch*>(self)->fields.push_back(field.value);
  }

  Lumen::Publisher* publisher_;
};

// Collects what is reported to the log of the process.
class LogWatch {
 public:
  LogWatch() {
    previous_ =
        Brio::logSinkIs([this](const Brio::LogRecord& record) { texts.emplace_back(record.text); });
  }
  ~LogWatch() { Brio::logSinkIs(previous_); }
  LogWatch(const LogWatch&) = delete;
  LogWatch& operator=(const LogWatch&) = delete;

  std::vector<std::string> texts;

 private:
  Brio::LogSink previous_;
};

// An agent with one resource table and three clients, each a software table with a log of its own,
// of which there is no more than the published version. The hardware side reports what it is told.
template <class T>
class ResourceFixture : public testing::Test {
 public:
  using Table = T;
  using Kind = typename T::Kind;
  using Key = typename T::Key;
  using ClientData = typename T::ClientData;
  using Client = typename T::ClientInstance;
  using Handle = Lumen::Ptr<const typename T::ResourceHandle>;
  using Stage = typename T::Stage;
  using Record = typename T::Record;
  using State = Asic::EntryState;

  static constexpr std::size_t kClients = 3;
  static constexpr std::uint32_t kLimit = 8;
  static constexpr std::uint64_t kNotYet = PactResourceTable::ReleaseRecord::kNotYet.value;
  static constexpr std::array<Asic::SwTableId, kClients> kTables = {
      Asic::SwTableId{0x29080402}, Asic::SwTableId{0x29080403}, Asic::SwTableId{0x29080404}};

  static Key key(std::uint32_t number) {
    Key made{};
    if constexpr (std::is_same_v<T, InLifIndex>) {
      made.attachmentCircuit = number;
    } else if constexpr (std::is_same_v<T, VlanEditProfile>) {
      made.elements[3].outerVlan = static_cast<std::uint16_t>(number);
    } else {
      made.intf.value = 0x0100000000000000 + number;
    }
    return made;
  }
  static PactResourceTable::ClientId id(std::size_t client) { return {kTables[client], {}, 0}; }

  // The index behind a handle's results; 0 while there is none.
  static std::uint32_t index(const Handle& handle) {
    if constexpr (std::is_same_v<T, InLifIndex>) {
      return handle->results().second / 2;
    } else {
      return handle->results().profile;
    }
  }

  void stop() {
    for (auto& client : clients_) {
      client = nullptr;
    }
    table_ = nullptr;
    if (agent_) {
      for (std::size_t i = 0; i < kClients; ++i) {
        logs_[i] = nullptr;
      }
      group_ = nullptr;
      agent_->stop();
      agent_ = nullptr;
      hardware_.reset();
      memory()->entityDelAll();
      vault_ = nullptr;
    }
  }
  void start(std::uint32_t limit = kLimit) {
    limit_ = limit;
    vault_ = Lumen::makeNode<Vault::EntityManager>("kelp-test", false, root_.path());
    agent_ = Lumen::makeNode<Asic::OrderedTableInterface>(vault_);
    group_ = agent_->makeGroupIntf(KelpEmServer::kGroupName, KelpEmServer::kAgentName,
                                   kTables[0].agentAndGroupId());
    for (std::size_t i = 0; i < kClients; ++i) {
      logs_[i] = mountLog(i);
      group_->entryLogMounted(kTables[i], logs_[i]);
    }
    hardware_.emplace(memory());
    table_ = Lumen::makeNode<T>(agent_, limit);
    for (std::size_t i = 0; i < kClients; ++i) {
      clients_[i] = table_->makeClientInstance();
      clients_[i]->clientIdIs(id(i));
    }
  }
  // Another agent over the same store. Handles of the old one stay with who has them, as at the
  // death of a process.
  void restart(std::uint32_t limit) {
    stop();
    start(limit);
  }
  void restart() { restart(limit_); }

  // ---- clients

  [[nodiscard]] Handle request(std::size_t client, std::uint32_t number) {
    return clients_[client]->request(key(number), nullptr);
  }
  // The client works off the handle's version with a log record, whose version is given back.
  std::uint64_t ack(std::size_t client, const Handle& handle) {
    const auto entry = logged(client);
    clients_[client]->ackUpdate(handle, handle->updateVersion(), entry);
    return entry->entryTableVersion().version.value;
  }
  // The same for a release.
  std::uint64_t release(std::size_t client, const Handle& handle) {
    const auto entry = logged(client);
    clients_[client]->release(handle, entry);
    return entry->entryTableVersion().version.value;
  }
  // Requests and holds.
  [[nodiscard]] Handle held(std::size_t client, std::uint32_t number) {
    Handle handle = request(client, number);
    ack(client, handle);
    return handle;
  }

  // ---- logs and reports

  [[nodiscard]] std::uint64_t published(std::size_t client) const {
    return logs_[client]->published();
  }
  // A new record in the log of the client's table.
  [[nodiscard]] Lumen::Ptr<LoggedEntry> logged(std::size_t client) {
    const std::uint64_t version = published(client) + 1;
    group_->addLogEntry(kTables[client], Asic::LogVersion{version}, nullptr);
    return Lumen::makeNode<LoggedEntry>(kTables[client], version);
  }
  // An entry that nobody has logged yet.
  [[nodiscard]] static Lumen::Ptr<LoggedEntry> unlogged(std::size_t client) {
    return Lumen::makeNode<LoggedEntry>(kTables[client], 0);
  }
  // The hardware side has taken the client's table in up to `version`. True if anything moved.
  bool report(std::size_t client, std::uint64_t version) {
    hardware_->report(kTables[client], version, logs_[client]->incarnation());
    group_->pollStatus();
    return table_->work();
  }
  bool reportAll(std::size_t client) { return report(client, published(client)); }
  void reportAll() {
    for (std::size_t i = 0; i < kClients; ++i) {
      reportAll(i);
    }
  }
  [[nodiscard]] std::uint64_t questions() const { return group_->groupResolver()->genId(); }

  // ---- what the table has in the store

  template <class Quilt>
  [[nodiscard]] Quilt& collection(const char* name) {
    const std::string path =
        std::string("resourceTable/") + Kind::tableNamespace + "/" + Kind::tableName + "/" + name;
    return *Lumen::dynamicPtrCast<Quilt>(memory()->getEntity(path));
  }
  [[nodiscard]] auto& resourceRecords() {
    return collection<PactResourceTable::ResourceQuilt<Key>>("resources").map();
  }
  [[nodiscard]] auto& holdRecords() {
    return collection<PactResourceTable::HoldQuilt>("holds").map();
  }
  [[nodiscard]] auto& releaseRecords() {
    return collection<PactResourceTable::ReleaseQuilt>("releases").map();
  }
  [[nodiscard]] std::optional<Record> record(std::uint32_t number) {
    bool found = false;
    const Record record = resourceRecords().find(key(number), found);
    return found ? std::optional(record) : std::nullopt;
  }
  // The version that the client has acknowledged; nothing if it does not hold the resource.
  [[nodiscard]] std::optional<std::uint32_t> acked(std::size_t client, std::uint32_t number) {
    const auto of = record(number);
    bool found = false;
    const auto hold = holdRecords().find({of ? of->number : 0, id(client)}, found);
    return found ? std::optional(hold.acked) : std::nullopt;
  }
  // From which version on the client does without the index.
  [[nodiscard]] std::optional<std::uint64_t> released(std::size_t client, std::uint32_t of) {
    bool found = false;
    const auto release = releaseRecords().find({of, id(client)}, found);
    return found ? std::optional(release.version.value) : std::nullopt;
  }
  [[nodiscard]] Lumen::Ptr<BrioSharedMem::EntityManager> memory() {
    return Asic::writableSharedMemory(*vault_);
  }

  [[nodiscard]] std::size_t recordsWithIndex() {
    std::size_t count = 0;
    Record record;
    Quilt::IterHint hint;
    auto& map = resourceRecords();
    for (bool more = map.first(record, hint); more; more = map.next(record.key, record, hint)) {
      count += record.index != 0 ? 1 : 0;
    }
    return count;
  }

  // Nothing is known, taken or waited for, and nothing is left in the store.
  void expectEmpty() {
    EXPECT_EQ(table_->entrys(), 0U);
    EXPECT_EQ(table_->indexesTaken(), 0U);
    EXPECT_EQ(table_->releases(), 0U);
    EXPECT_EQ(resourceRecords().size(), 0U);
    EXPECT_EQ(holdRecords().size(), 0U);
    EXPECT_EQ(releaseRecords().size(), 0U);
  }
  // What the table counts is what is in its store, where a resource without an index may be absent.
  void expectCounts(unsigned entrys, std::uint32_t indexes, std::size_t releases) {
    EXPECT_EQ(table_->entrys(), entrys);
    EXPECT_EQ(table_->indexesTaken(), indexes);
    EXPECT_EQ(table_->releases(), releases);
    EXPECT_LE(resourceRecords().size(), entrys);
    EXPECT_LE(recordsWithIndex(), indexes);
    EXPECT_GE(recordsWithIndex() + releases, indexes);
    EXPECT_EQ(releaseRecords().size(), releases);
  }

 protected:
  void SetUp() override { start(); }
  void TearDown() override { stop(); }

  TestSupport::TempRoot root_;
  Lumen::Ptr<Vault::EntityManager> vault_;
  Lumen::Ptr<Asic::OrderedTableInterface> agent_;
  Lumen::Ptr<Asic::GroupInterface> group_;
  std::array<Lumen::Ptr<BrioQuilt::CollectionControl>, kClients> logs_;
  std::optional<TestSupport::HardwareSide> hardware_;
  Lumen::Ptr<T> table_;
  std::array<Lumen::Ptr<Client>, kClients> clients_;
  std::uint32_t limit_ = kLimit;

 private:
  // Any collection has the words that a log is to the group.
  Lumen::Ptr<BrioQuilt::CollectionControl> mountLog(std::size_t client) {
    const Lumen::String path = "log/" + std::to_string(client);
    const auto mounts = memory()->getMountGroup();
    BrioQuilt::MountInfo info(BrioQuilt::BrioQuiltType::collection);
    info.collectionInfoIs(BrioQuilt::CollectionInfo("log", 16, false));
    (void)mounts->mount(path, PactResourceTable::kHoldQuiltType, info);
    mounts->doClose();
    return Lumen::dynamicPtrCast<PactResourceTable::HoldQuilt>(memory()->getEntity(path))
        ->collectionControl();
  }
};

}  // namespace ResourceTest
