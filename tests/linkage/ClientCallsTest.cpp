#include <algorithm>

#include "LinkageFixture.h"
#include "OrderedTable/OrderedTableResourceAccessor.h"

// What a linkage's logic tells the resource table: which calls, in which order, with what.

namespace {

using LinkageTest::AllLinkages;
using LinkageTest::LinkageName;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

// Notes each call to the client of the resource table, and hands it on.
template <class L>
class NotingClient {
 public:
  using Handle = Lumen::Ptr<const typename L::ResourceHandle>;
  using EntryHandle = Lumen::Ptr<const Asic::DependencyEntryHandle>;
  struct Call {
    std::string name;
    Handle handle;
    std::uint32_t version = 0;  // of an acknowledge
    EntryHandle entry;
  };

  explicit NotingClient(typename L::ResourceTable::ClientInstance* client) : client_(client) {}

  void release(const Handle& handle, const EntryHandle& entry) {
    calls.push_back({"release", handle, 0, entry});
    client_->release(handle, entry);
  }
  void ackUpdate(const Handle& handle, std::uint32_t version, const EntryHandle& entry) {
    calls.push_back({"ackUpdate", handle, version, entry});
    client_->ackUpdate(handle, version, entry);
  }

  std::vector<Call> calls;

 private:
  typename L::ResourceTable::ClientInstance* client_;
};

// The linkage of a table, but for its client.
template <class Linkage>
class NotingLinkage {
 public:
  using ResourceKey = typename Linkage::ResourceKey;
  using ResourceHandle = typename Linkage::ResourceHandle;
  using Wrapper = Lumen::Ptr<const typename Linkage::Wrapper>;

  explicit NotingLinkage(Linkage& linkage)
      : client(linkage.resTblClient().get()), linkage_(linkage) {}

  static constexpr const char* className() { return "NotingLinkage"; }
  auto* resTblClient() { return &client; }
  ResourceKey resourceKey(const Wrapper& wrapper) const { return linkage_.resourceKey(wrapper); }
  const ResourceKey& resourceKeyFromEntry(const typename Linkage::Entry& entry) const {
    return linkage_.resourceKeyFromEntry(entry);
  }
  auto resourceHandle(const Wrapper& wrapper) const { return linkage_.resourceHandle(wrapper); }
  auto entryUsageSm(const ResourceKey& key) const { return linkage_.entryUsageSm(key); }
  static auto* entryUsageSm(const ResourceHandle& handle) { return Linkage::entryUsageSm(handle); }
  auto entryUsageSmIs(const Lumen::Ptr<const ResourceHandle>& handle) {
    return linkage_.entryUsageSmIs(handle);
  }
  auto entryUsageSmDel(const ResourceKey& key) { return linkage_.entryUsageSmDel(key); }

  NotingClient<typename Linkage::Kind> client;

 private:
  Linkage& linkage_;
};

template <class P>
class ClientCalls : public LinkageTest::LinkageFixture<P> {
 protected:
  using Fixture = LinkageTest::LinkageFixture<P>;
  using Noting = NotingLinkage<typename Fixture::Linkage>;
  using EntryHandle = typename Fixture::Table::EntryHandle;

  // Gives the resource of the handle a further version with every rewrite.
  class Newer final : public Fixture::Table::Helper {
   public:
    bool finalizeOnResourceUpdate(const Lumen::Ptr<typename Fixture::Wrapper>&,
                                  const Lumen::Ptr<typename Fixture::Table>&, bool) override {
      handle->updateVersionIs(++version);
      return true;
    }
    typename Fixture::Handle* handle = nullptr;
    std::uint32_t version = 10;
  };

  void SetUp() override {
    Fixture::SetUp();
    noting_.emplace(this->linkage());
  }
  void TearDown() override {
    noting_.reset();
    Fixture::TearDown();
  }

  auto& calls() { return noting_->client.calls; }
  auto sm(std::uint64_t number) { return this->linkage().entryUsageSm(this->resource(number)); }
  typename Fixture::Handle& handle(std::uint64_t number) {
    return const_cast<typename Fixture::Handle&>(*sm(number)->resPtr());
  }
  // An entry as a commit has it: with its resource.
  auto resolved(std::uint64_t number, std::uint64_t resourceNumber) {
    const auto wrapper = this->wrapperOf(this->entry(number, resourceNumber));
    this->linkage().resolveEntry(wrapper);
    return wrapper;
  }
  void commit(const Lumen::Ptr<typename Fixture::Wrapper>& wrapper,
              const typename Fixture::Entry& old, bool isDeleted = false) {
    Asic::SwTableResourceAccessor<Noting>(&*noting_).updateLocalUsage(wrapper, old, isDeleted);
  }
  // A change that nobody has worked off yet.
  void change(std::uint64_t number) {
    const auto of = sm(number);
    of->brioDoZombieReactors(true);
    EXPECT_TRUE(this->resources().change(this->resource(number)));
    of->brioDoZombieReactors(false);
  }
  void workOff(std::uint64_t number) {
    Asic::SwTableResourceAccessor<Noting>(&*noting_).handleResourceChange(sm(number).get());
  }
  // The software entry that a call goes with.
  const EntryHandle& entryOf(std::size_t call) {
    return dynamic_cast<const EntryHandle&>(*calls().at(call).entry);
  }

  std::optional<Noting> noting_;
};
TYPED_TEST_SUITE(ClientCalls, AllLinkages, LinkageName);

TYPED_TEST(ClientCalls, TheFirstUserAcknowledgesWithItsEntry) {
  const auto wrapper = this->resolved(1, 1);
  this->commit(wrapper, {});
  ASSERT_THAT(this->calls(), SizeIs(1));
  EXPECT_EQ(this->calls()[0].name, "ackUpdate");
  EXPECT_EQ(this->calls()[0].handle, this->sm(1)->resPtr());
  EXPECT_EQ(this->calls()[0].version, 1U);
  EXPECT_EQ(this->calls()[0].entry.get(), wrapper->entryHandle().get());
  this->commit(this->resolved(2, 1), {});
  EXPECT_THAT(this->calls(), SizeIs(1)) << "the second user has nothing to say";
  EXPECT_EQ(this->users(1).size(), 2U);
}

TYPED_TEST(ClientCalls, AMoveReleasesWithTheEntryAndThenAcknowledges) {
  this->write(1, 1);
  const auto old = this->sm(1)->resPtr();
  const auto wrapper = this->resolved(1, 2);
  this->commit(wrapper, this->entry(1, 1));
  ASSERT_THAT(this->calls(), SizeIs(2));
  EXPECT_EQ(this->calls()[0].name, "release");
  EXPECT_EQ(this->calls()[0].handle, old);
  EXPECT_EQ(this->calls()[0].entry.get(), wrapper->entryHandle().get());
  EXPECT_EQ(this->calls()[1].name, "ackUpdate");
  EXPECT_EQ(this->calls()[1].handle, this->sm(2)->resPtr());
  EXPECT_EQ(this->calls()[1].entry.get(), wrapper->entryHandle().get());
}

TYPED_TEST(ClientCalls, AMoveToAResourceWithUsersOnlyReleases) {
  this->write(1, 1);
  this->write(2, 2);
  const auto old = this->sm(1)->resPtr();
  this->commit(this->resolved(1, 2), this->entry(1, 1));
  ASSERT_THAT(this->calls(), SizeIs(1));
  EXPECT_EQ(this->calls()[0].name, "release");
  EXPECT_EQ(this->calls()[0].handle, old);
  EXPECT_EQ(this->users(2).size(), 2U);
}

TYPED_TEST(ClientCalls, AnEntryWithoutItsHandleJoinsTheUsersWithoutACall) {
  this->write(2, 2);
  this->commit(this->wrapperOf(this->entry(1, 2)), {});
  EXPECT_THAT(this->calls(), IsEmpty());
  EXPECT_EQ(this->users(2).size(), 2U);
}

TYPED_TEST(ClientCalls, OnlyTheLastUserReleases) {
  this->write(1, 1);
  this->write(2, 1);
  const auto handle = this->sm(1)->resPtr();
  this->commit(this->resolved(1, 1), this->entry(1, 1), true);
  EXPECT_THAT(this->calls(), IsEmpty());
  const auto wrapper = this->resolved(2, 1);
  this->commit(wrapper, this->entry(2, 1), true);
  ASSERT_THAT(this->calls(), SizeIs(1));
  EXPECT_EQ(this->calls()[0].name, "release");
  EXPECT_EQ(this->calls()[0].handle, handle);
  EXPECT_EQ(this->calls()[0].entry.get(), wrapper->entryHandle().get());
}

TYPED_TEST(ClientCalls, ARestoredEntrySaysNothing) {
  const auto wrapper = this->resolved(1, 1);
  Asic::SwTableResourceAccessor<typename TestFixture::Noting>(&*this->noting_)
      .restoreEntry(wrapper);
  EXPECT_THAT(this->users(1), ElementsAre(this->key(1)));
  EXPECT_THAT(this->calls(), IsEmpty());
}

TYPED_TEST(ClientCalls, AChangeIsAcknowledgedOnceWithTheEntryVisitedLast) {
  for (unsigned i = 1; i <= 5; ++i) {
    this->write(i, 1);
  }
  const auto version = this->table_->entryLog()->tableVersion().value;
  this->change(1);
  this->workOff(1);
  ASSERT_THAT(this->calls(), SizeIs(1));
  EXPECT_EQ(this->calls()[0].name, "ackUpdate");
  EXPECT_EQ(this->calls()[0].handle, this->sm(1)->resPtr());
  EXPECT_EQ(this->calls()[0].version, 2U);
  ASSERT_NE(this->calls()[0].entry, nullptr);
  EXPECT_EQ(this->entryOf(0).key(), this->users(1).back());
  EXPECT_EQ(this->entryOf(0).logVersion().value, version + 5);
}

TYPED_TEST(ClientCalls, AUserThatHasLeftTheLogIsNotTheOneThatAnAcknowledgeGoesWith) {
  for (unsigned i = 1; i <= 5; ++i) {
    this->write(i, 1);
  }
  // A clear leaves the uses: those behind the third stand for entries that are gone.
  const auto users = this->users(1);
  this->table_->clearTable(false);
  for (unsigned i = 1; i <= 5; ++i) {
    if (std::find(users.begin(), users.begin() + 3, this->key(i)) != users.begin() + 3) {
      this->write(i, 1);
    }
  }
  this->change(1);
  this->workOff(1);
  ASSERT_THAT(this->calls(), SizeIs(1));
  ASSERT_NE(this->calls()[0].entry, nullptr);
  EXPECT_EQ(this->entryOf(0).key(), users[2]);
}

TYPED_TEST(ClientCalls, WithoutAnEntryInTheLogAChangeIsAcknowledgedWithNone) {
  this->write(1, 1);
  this->write(2, 1);
  this->table_->clearTable(false);
  this->change(1);
  this->workOff(1);
  ASSERT_THAT(this->calls(), SizeIs(1));
  EXPECT_EQ(this->calls()[0].name, "ackUpdate");
  EXPECT_EQ(this->calls()[0].version, 2U);
  EXPECT_EQ(this->calls()[0].entry, nullptr);
}

TYPED_TEST(ClientCalls, TheVersionAcknowledgedIsThatAfterTheRewrites) {
  const auto helper = Lumen::makeNode<typename TestFixture::Newer>();
  this->table_->swTableHelperIs(helper);
  for (unsigned i = 1; i <= 3; ++i) {
    this->write(i, 1);
  }
  helper->handle = &this->handle(1);
  this->change(1);
  this->workOff(1);
  ASSERT_THAT(this->calls(), SizeIs(1));
  EXPECT_EQ(this->calls()[0].version, 13U) << "each of three rewrites has made a new one";
  EXPECT_EQ(this->acked(1), 13U);
}

TYPED_TEST(ClientCalls, AResourcePastItsReleaseIsNotAcknowledged) {
  this->write(1, 1);
  this->change(1);
  this->handle(1).postReleaseProtoStateIs(true);
  this->workOff(1);
  EXPECT_THAT(this->calls(), IsEmpty());
}

}  // namespace
