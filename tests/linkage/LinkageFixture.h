#pragma once

#include <gmock/gmock.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "SampleResources.h"
#include "TableFixture.h"

namespace LinkageTest {

// One linkage of one table.
template <class T, class L>
struct On {
  using Table = T;
  using Kind = L;
};

using KelpEmServer::InLifIndexLinkageKind;
using KelpEmServer::RemarkProfileLinkageKind;
using KelpEmServer::VlanEditProfileLinkageKind;

using AllLinkages = testing::Types<On<KelpEmServer::EsemFodoVd, VlanEditProfileLinkageKind>,
                                   On<KelpEmServer::EsemFodoVd, RemarkProfileLinkageKind>,
#ifndef KELP_FEW_TABLES
                                   On<KelpEmServer::Isem2Tag, InLifIndexLinkageKind>,
                                   On<KelpEmServer::IsemMpls, InLifIndexLinkageKind>,
                                   On<KelpEmServer::IsemUntagged, InLifIndexLinkageKind>,
#endif
                                   On<KelpEmServer::Isem1Tag, InLifIndexLinkageKind>>;

struct LinkageName {
  template <class P>
  static std::string GetName(int) {
    return std::string(P::Table::name.view()) + std::string(P::Kind::name.view());
  }
};

using Events = std::vector<std::string>;

// An agent with one table, whose entries name resources of one of its linkages: number 0 is the key
// that stands for none.
template <class P>
class LinkageFixture : public TestSupport::TableFixture<typename P::Table> {
 public:
  using T = typename P::Table;
  using L = typename P::Kind;
  using Base = TestSupport::TableFixture<T>;
  using typename Base::Entry;
  using typename Base::Table;
  using Wrapper = typename Table::Wrapper;
  using Linkage = KelpEmServer::KelpResourceLinkage<T, L>;
  using ResourceTable = typename L::ResourceTable;
  using ResourceKey = typename L::ResourceKey;
  using Handle = typename L::ResourceHandle;
  using State = Asic::EntryState;
  using Stage = typename ResourceTable::Stage;

  static ResourceKey resource(std::uint64_t number) {
    return TestSupport::sampleResource<ResourceKey>(number);
  }
  // `payload` tells entries apart where the table has one.
  static Entry entry(std::uint64_t number, std::uint64_t resourceNumber, unsigned payload = 1) {
    Entry made;
    made.logEntry.key = Base::key(number);
    const_cast<ResourceKey&>(L::key(made)) = resource(resourceNumber);
    if constexpr (requires { made.logEntry.outLif; }) {
      made.logEntry.outLif = static_cast<decltype(made.logEntry.outLif)>(payload);
    }
    return made;
  }

 protected:
  void SetUp() override { table_ = this->table(); }
  void TearDown() override {
    stopAgent();
    Base::TearDown();
  }
  void stopAgent() {
    table_ = nullptr;
    this->stop();
  }
  void restartAgent() {
    stopAgent();
    this->start();
    table_ = this->table();
  }

  ResourceTable& resources() { return TestSupport::resourceTableOf<L>(this->resources_); }
  static const Lumen::Ptr<Linkage>& linkageOf(const Table& table) {
    return TestSupport::linkageOf<L>(table);
  }
  Linkage& linkage() { return *linkageOf(*table_); }

  Lumen::Ptr<const typename Base::Table::EntryHandle> write(std::uint64_t number,
                                                            std::uint64_t resourceNumber,
                                                            unsigned payload = 1) {
    const auto handle =
        table_->entryWrite(this->key(number), entry(number, resourceNumber, payload), nullptr);
    this->pass();
    return Lumen::staticPtrCast<const typename Table::EntryHandle>(handle);
  }
  Lumen::Ptr<const typename Base::Table::EntryHandle> remove(std::uint64_t number) {
    const auto handle = table_->entryRemove(this->key(number), nullptr);
    this->pass();
    return Lumen::staticPtrCast<const typename Table::EntryHandle>(handle);
  }
  // Everything that is published is on the chip.
  void reportAll() { this->report(table_->entryLog()->tableVersion().value); }

  Lumen::Ptr<Wrapper> wrapperOf(const Entry& entry) {
    return Wrapper::KelpEntryWrapperIs(
        entry, Table::entryHandleFactory({}, entry.logEntry.key, table_.get()));
  }
  // The first field of the record in the log that this resource decides.
  std::uint32_t result(std::uint64_t number) {
    const auto logged = table_->entryLog()->entry(this->key(number), Base::unit0);
    if constexpr (std::is_same_v<L, InLifIndexLinkageKind>) {
      return logged.inLif0Index;
    } else if constexpr (std::is_same_v<L, VlanEditProfileLinkageKind>) {
      return logged.vlanEditProfile;
    } else {
      return logged.remarkProfile;
    }
  }
  std::uint32_t resultOf(const Handle& handle) {
    if constexpr (requires { handle.results().first; }) {
      return handle.results().first;
    } else {
      return handle.results().profile;
    }
  }
  // The keys of the table that use the resource.
  std::vector<typename Base::Key> users(std::uint64_t resourceNumber) {
    std::vector<typename Base::Key> keys;
    if (const auto sm = linkage().entryUsageSm(resource(resourceNumber))) {
      for (const auto& node : sm->entryUsage()) {
        keys.push_back(node.key());
      }
    }
    return keys;
  }

  // ---- what the resource table has in the store

  template <class Quilt>
  const Quilt& collection(const char* name) {
    const std::string path = "resourceTable/" + std::string(ResourceTable::Kind::tableNamespace) +
                             "/" + ResourceTable::Kind::tableName + "/" + name;
    return *Lumen::dynamicPtrCast<Quilt>(this->memory()->getEntity(path));
  }
  std::optional<typename ResourceTable::Record> record(std::uint64_t number) {
    bool found = false;
    const auto record = collection<PactResourceTable::ResourceQuilt<ResourceKey>>("resources")
                            .map()
                            .find(resource(number), found);
    return found ? std::optional(record) : std::nullopt;
  }
  std::size_t holds() { return collection<PactResourceTable::HoldQuilt>("holds").map().size(); }
  // What the table has acknowledged of the resource; nothing if it does not hold it.
  std::optional<std::uint32_t> acked(std::uint64_t number) {
    const auto of = record(number);
    bool found = false;
    const auto hold = collection<PactResourceTable::HoldQuilt>("holds").map().find(
        {of ? of->number : 0, {T::tableId, Base::unit0}}, found);
    return found ? std::optional(hold.acked) : std::nullopt;
  }
  // From which version on the table does without the index.
  std::optional<std::uint64_t> released(std::uint32_t index) {
    bool found = false;
    const auto release = collection<PactResourceTable::ReleaseQuilt>("releases")
                             .map()
                             .find({index, {T::tableId, Base::unit0}}, found);
    return found ? std::optional(release.version.value) : std::nullopt;
  }

  Lumen::Ptr<Table> table_;
};

// Tells each change of a linkage's collection, and what stands in the store then.
class Watcher : public Lumen::Subscriber {
 public:
  explicit Watcher(std::function<std::string()> look, Lumen::Publisher* publisher)
      : Lumen::Subscriber(&Watcher::take), look_(std::move(look)), publisher_(publisher) {
    publisher_->subscriberAdd(this);
  }
  ~Watcher() { publisher_->subscriberRemove(this); }
  Watcher(const Watcher&) = delete;
  Watcher& operator=(const Watcher&) = delete;

  Events events;

 private:
  static void take(Lumen::Publisher*, Lumen::Subscriber* self, Lumen::FieldId field, const void*,
                   const void*) {
    auto& watcher = *static_cast<Watcher*>(self);
    watcher.events.push_back(std::to_string(field.attribute()) + ": " + watcher.look_());
  }

  std::function<std::string()> look_;
  Lumen::Publisher* publisher_;
};

}  // namespace LinkageTest
