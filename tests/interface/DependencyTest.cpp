#include <filesystem>

#include "BrioSharedMem/EntityManager.h"
#include "BrioSharedMem/EntityPath.h"
#include "InterfaceFixture.h"

// Dependencies between tables on their way to the hardware side.

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using Dependency = std::pair<Asic::SwTableId, std::uint64_t>;

// Two tables: T depends on entries of Isem2Tag, or of IsemMpls where T is Isem2Tag itself.
template <class T>
class Dependencies : public TestSupport::InterfaceFixture<T> {
 protected:
  using Other = std::conditional_t<std::is_same_v<T, KelpEmServer::Isem2Tag>,
                                   KelpEmServer::IsemMpls, KelpEmServer::Isem2Tag>;
  using OtherEntry = typename Other::Entry;

  Lumen::Ptr<KelpEmServer::KelpSwTable<Other>> otherTable(Asic::UnitId unit = {}) {
    this->start();
    return KelpEmServer::KelpInterface<Other>::getIntf(this->agent_)
        ->makeSwTable(unit, nullptr, false);
  }
  auto writeOther(std::uint64_t number, std::uint64_t variant = 0) {
    const auto key = TestSupport::sampleKey<typename OtherEntry::Key>(number);
    return otherTable()->entryWrite(key, TestSupport::sampleEntry<OtherEntry>(key, variant),
                                    nullptr);
  }
  // What the store holds for a version of T's log, as another process sees it.
  std::vector<Dependency> stored(std::uint64_t version) {
    const auto reader = Lumen::dynamicPtrCast<Asic::NeededQuilt>(this->memory()->openReader(
        Asic::Constants::groupNeededPath(this->group()->canonicalName(), T::tableId),
        Asic::kNeededQuiltType));
    bool found = false;
    const auto record = reader->map().find(Asic::LogVersion{version}, found);
    std::vector<Dependency> all;
    for (std::uint32_t i = 0; found && i < record.count; ++i) {
      all.emplace_back(record.needed[i].tableId, record.needed[i].version.value);
    }
    return all;
  }
  std::uint64_t storedRecords() {
    const auto reader = Lumen::dynamicPtrCast<Asic::NeededQuilt>(this->memory()->openReader(
        Asic::Constants::groupNeededPath(this->group()->canonicalName(), T::tableId),
        Asic::kNeededQuiltType));
    return reader->map().size();
  }
  std::uint64_t published() {
    return this->intf()->entryLog()->tableEntryLog()->collectionControl()->published();
  }
  static Lumen::Ptr<Asic::NeededEntry> needed(const std::vector<Dependency>& all) {
    auto set = Lumen::makeNode<Asic::NeededEntry>();
    for (const auto& [tableId, version] : all) {
      set->add({tableId, Asic::LogVersion{version}});
    }
    return set;
  }
};
TYPED_TEST_SUITE(Dependencies, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(Dependencies, AWriteStoresTheVersionOfTheEntryThatItDependsOn) {
  using Other = typename TestFixture::Other;
  const auto table = this->table();
  (void)this->writeOther(1);
  const auto on = this->writeOther(2);
  (void)table->entryWrite(this->key(1), this->entry(1), on);
  EXPECT_EQ(this->pass(), 3U);
  EXPECT_EQ(on->logVersion().value, 2U);
  EXPECT_THAT(this->stored(1), ElementsAre(Pair(Other::tableId, 2U)));
  EXPECT_EQ(this->published(), 1U);
}

TYPED_TEST(Dependencies, ARemoveAndARemoveAllStoreThemToo) {
  using Other = typename TestFixture::Other;
  const auto table = this->table();
  this->commit(table, 1);
  this->commit(table, 2);
  const auto on = this->writeOther(1);
  (void)table->entryRemove(this->key(1), on);
  table->entryRemoveAll(on);
  this->pass();
  EXPECT_THAT(this->stored(1), IsEmpty());
  EXPECT_THAT(this->stored(3), ElementsAre(Pair(Other::tableId, 1U)));
  EXPECT_THAT(this->stored(4), ElementsAre(Pair(Other::tableId, 1U)));
}

TYPED_TEST(Dependencies, ADependencyOnTheTableItselfIsMetByOrder) {
  const auto table = this->table();
  const auto on = table->entryWrite(this->key(1), this->entry(1), nullptr);
  (void)table->entryWrite(this->key(2), this->entry(2), on);
  EXPECT_EQ(this->pass(), 2U);
  EXPECT_THAT(this->stored(2), IsEmpty());
  EXPECT_EQ(this->storedRecords(), 0U);
  EXPECT_EQ(this->published(), 2U);
}

TYPED_TEST(Dependencies, OnlyThoseOnOtherTablesOfTheGroupWithAVersionAreStored) {
  using Other = typename TestFixture::Other;
  (void)this->table();
  (void)this->otherTable();
  auto& group = *this->group();
  group.addLogEntry(TypeParam::tableId, Asic::LogVersion{1},
                    this->needed({{Asic::SwTableId{0x77}, 5},  // of no group that is reported
                                  {TypeParam::tableId, 4},     // met by order
                                  {Other::tableId, 0}}));      // no position
  EXPECT_EQ(this->storedRecords(), 0U);
  EXPECT_EQ(this->published(), 1U);
  group.addLogEntry(TypeParam::tableId, Asic::LogVersion{2},
                    this->needed({{Asic::SwTableId{0x77}, 5}, {Other::tableId, 9}}));
  EXPECT_THAT(this->stored(2), ElementsAre(Pair(Other::tableId, 9U)));
  group.addLogEntry(TypeParam::tableId, Asic::LogVersion{3}, nullptr);
  group.addLogEntry(TypeParam::tableId, Asic::LogVersion{4}, Lumen::makeNode<Asic::NeededEntry>());
  EXPECT_EQ(this->storedRecords(), 1U);
  EXPECT_EQ(this->published(), 4U);
}

TYPED_TEST(Dependencies, TheHighestVersionPerTableIsKept) {
  using Other = typename TestFixture::Other;
  (void)this->table();
  (void)this->otherTable();
  const auto set = this->needed({{Other::tableId, 4}, {Other::tableId, 9}, {Other::tableId, 6}});
  set->merge(this->needed({{Other::tableId, 8}}));
  this->group()->addLogEntry(TypeParam::tableId, Asic::LogVersion{1}, set);
  EXPECT_THAT(this->stored(1), ElementsAre(Pair(Other::tableId, 9U)));
}

TYPED_TEST(Dependencies, AreDroppedWhenTheReportCoversTheirRecord) {
  using Other = typename TestFixture::Other;
  const auto table = this->table();
  for (std::uint64_t i = 0; i < 4; ++i) {
    (void)table->entryWrite(this->key(i), this->entry(i), this->writeOther(i));
  }
  this->pass();
  EXPECT_EQ(this->storedRecords(), 4U);
  this->report(2);
  EXPECT_EQ(this->storedRecords(), 2U);
  EXPECT_THAT(this->stored(2), IsEmpty());
  EXPECT_THAT(this->stored(3), ElementsAre(Pair(Other::tableId, 3U)));
  this->report(4);
  EXPECT_EQ(this->storedRecords(), 0U);
}

TYPED_TEST(Dependencies, OutliveTheAgent) {
  using Other = typename TestFixture::Other;
  auto table = this->table();
  (void)table->entryWrite(this->key(1), this->entry(1), this->writeOther(1));
  this->pass();
  table = nullptr;
  this->restart();
  (void)this->intf();
  EXPECT_THAT(this->stored(1), ElementsAre(Pair(Other::tableId, 1U)));
}

TYPED_TEST(Dependencies, OfALogThatIsLostAreNotThoseOfTheNextOne) {
  auto table = this->table();
  (void)table->entryWrite(this->key(1), this->entry(1), nullptr);
  (void)table->entryWrite(this->key(2), this->entry(2), this->writeOther(1));
  this->pass();
  EXPECT_EQ(this->storedRecords(), 1U);
  table = nullptr;
  this->stop();
  ASSERT_TRUE(std::filesystem::remove(
      this->root_.path() + "/kelp-test/" +
      BrioSharedMem::encodedPath(KelpEmServer::KelpConstants<TypeParam>::tableEntryLogQuiltPath()) +
      ".quilt"));
  testing::internal::CaptureStderr();
  table = this->table();
  (void)testing::internal::GetCapturedStderr();
  this->commit(table, 3);
  this->commit(table, 4);
  EXPECT_EQ(this->intf()->entryLog()->tableVersion().value, 2U);
  EXPECT_EQ(this->storedRecords(), 0U) << "version 2 waits for nothing";
}

TYPED_TEST(Dependencies, OfAnIdenticalWriteThatIsSuppressedAreNotReportedToTheGroup) {
  using Other = typename TestFixture::Other;
  const auto table = this->table();
  this->commit(table, 1);
  const auto on = this->writeOther(1);
  this->pass();
  const auto versions = [this] {
    const auto control = this->intf()->entryLog()->tableEntryLog()->collectionControl();
    return std::vector<std::uint64_t>{control->announced(), control->scratchpad(),
                                      control->published(),
                                      this->intf()->entryLog()->tableVersion().value};
  };
  EXPECT_TRUE(this->group()->takePublished());
  table->mark();
  const auto handle = table->entryWrite(this->key(1), this->entry(1), on);
  EXPECT_EQ(this->pass(), 1U);
  EXPECT_EQ(table->stats()->suppressedWriteCnt(), 1U);
  EXPECT_EQ(handle->logVersion().value, 1U);
  EXPECT_FALSE(this->group()->takePublished());
  EXPECT_EQ(this->storedRecords(), 0U);
  EXPECT_THAT(versions(), ElementsAre(1, 1, 1, 1));
  EXPECT_THAT(this->logVersions(), ElementsAre(1));
  // One that differs is reported, with what it waits for.
  (void)table->entryWrite(this->key(1), this->entry(1, 1), on);
  EXPECT_EQ(this->pass(), 1U);
  EXPECT_TRUE(this->group()->takePublished());
  EXPECT_THAT(this->stored(2), ElementsAre(Pair(Other::tableId, 1U)));
  EXPECT_THAT(versions(), ElementsAre(2, 2, 2, 2));
}

TYPED_TEST(Dependencies, PublishingIsNoticedOnce) {
  const auto table = this->table();
  EXPECT_FALSE(this->group()->takePublished());
  this->commit(table, 1);
  EXPECT_TRUE(this->group()->takePublished());
  EXPECT_FALSE(this->group()->takePublished());
}

}  // namespace
