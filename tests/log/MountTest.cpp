#include <cstdlib>
#include <filesystem>

#include "Asic/GenId.h"
#include "BrioSharedMem/StoreError.h"
#include "KelpEmServer/MountQuilt.h"
#include "LogFixture.h"

// Mounting the change log and the configuration collections.

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

template <class T>
class LogMounting : public TestSupport::LogFixture<T> {};
TYPED_TEST_SUITE(LogMounting, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(LogMounting, AFirstStartIsEmptyAndItsFirstWriteGetsVersion1) {
  EXPECT_EQ(this->bareLog().tableEntryLog()->entryLogConfig().size(), 0U);
  EXPECT_EQ(this->logControl()->scratchpad(), 0U);
  EXPECT_FALSE(this->logControl()->wiped());
  EXPECT_EQ(this->tableVersion(), 0U);
  EXPECT_EQ(this->lastCleaned(), 0U);
  EXPECT_EQ(this->bareLog().tableConfigQuilt().size(), 0U);
  EXPECT_EQ(this->write(1), 1U);
}

TYPED_TEST(LogMounting, TheVersionContinuesFromTheSavedOneWhateverTheLogHolds) {
  for (std::uint64_t i = 0; i < 5; ++i) {
    (void)this->write(i);
  }
  this->bareLog().tableEntryLog()->entryLogConfigDel(Asic::LogVersion{4});
  this->bareLog().tableEntryLog()->entryLogConfigDel(Asic::LogVersion{5});
  this->restart();
  EXPECT_EQ(this->tableVersion(), 5U);
  EXPECT_EQ(this->lastCleaned(), 0U) << "it is not kept in shared memory";
  EXPECT_THAT(this->logVersions(), ElementsAre(1, 2, 3));
  EXPECT_EQ(this->write(9), 6U);
}

TYPED_TEST(LogMounting, BothCollectionsAreDeclaredWithTheirNamesCapacitiesAndTypes) {
  using Constants = KelpEmServer::KelpConstants<TypeParam>;
  const std::string name(TypeParam::name.view());
  (void)this->log(Asic::UnitId{12});
  const auto& log = *this->bareLog().tableEntryLog();
  EXPECT_EQ(log.mapBase().collectionName(), "entryLogConfig");
  EXPECT_EQ(log.mapBase().capacity(), 1000000U);
  EXPECT_EQ(log.mapBase().path(), Constants::tableEntryLogQuiltPath());
  EXPECT_EQ(log.typeName(), "KelpTunnelNiLib::" + name + "EntryLogQuilt");
  const auto config = this->bareLog().tableConfigQuilt(Asic::UnitId{12});
  EXPECT_EQ(config->mapBase().collectionName(), "swTableEntries");
  EXPECT_EQ(config->mapBase().capacity(), 65536U);
  EXPECT_EQ(config->mapBase().path(), Constants::configQuiltPath(Asic::UnitId{12}));
  EXPECT_EQ(config->typeName(), "KelpTunnelNiLib::" + name + "ConfigQuilt");
}

TYPED_TEST(LogMounting, MountsAreTraced) {
  using Constants = KelpEmServer::KelpConstants<TypeParam>;
  {
    TestSupport::TraceCapture traces("*KelpEntryLog/2,8");
    (void)this->bareLog();
    ASSERT_EQ(traces.lines().size(), 3U);
    EXPECT_EQ(traces.lines()[0].level, 8U);
    EXPECT_EQ(traces.lines()[0].text, "");
    EXPECT_EQ(traces.lines()[1].level, 8U);
    EXPECT_EQ(traces.lines()[1].text, "");
    EXPECT_EQ(traces.lines()[2].level, 2U);
    EXPECT_EQ(traces.lines()[2].text,
              " Mounted entryLog: " + Constants::tableEntryLogQuiltPath() + ", tableVersion: 0");
  }
  TestSupport::TraceCapture traces("*KelpEntryLog/2,8");
  this->bareLog().mountQuiltConfig(Asic::UnitId{3}, Asic::LogVersion{10});
  ASSERT_EQ(traces.lines().size(), 2U);
  EXPECT_EQ(traces.lines()[0].level, 8U);
  EXPECT_EQ(traces.lines()[0].text, " unitId:3, logVersion: 10");
  EXPECT_EQ(traces.lines()[1].level, 2U);
  EXPECT_EQ(traces.lines()[1].text,
            " Mounted config for unitId: 3 at " + Constants::configQuiltPath(Asic::UnitId{3}));
}

TYPED_TEST(LogMounting, AMountWithVersion0RemovesNothing) {
  (void)this->write(1);
  (void)this->remove(1);
  this->restart();
  this->bareLog().mountQuiltConfig(this->unit0, Asic::LogVersion{0});
  this->expectDeleted(1, 2);
}

TYPED_TEST(LogMounting, AMountRemovesTheDeletedRecordsThatTheStatusCovers) {
  for (std::uint64_t i = 1; i <= 8; ++i) {
    (void)this->write(i);
  }
  EXPECT_EQ(this->write(5), 9U);
  EXPECT_EQ(this->remove(1), 10U);
  EXPECT_EQ(this->remove(2), 11U);
  this->restart();
  this->bareLog().mountQuiltConfig(this->unit0, Asic::LogVersion{10});
  EXPECT_FALSE(this->hasRecord(1));
  this->expectDeleted(2, 11);
  this->expectLive(3, 3);
  this->expectLive(5, 9);
  EXPECT_EQ(this->records(), 7U);
}

TYPED_TEST(LogMounting, AMountRemovesAllOfAThousandDeletedRecords) {
  for (std::uint64_t i = 0; i < 1000; ++i) {
    (void)this->write(i);
  }
  (void)this->removeAll();
  this->bareLog().mountQuiltConfig(this->unit0, Asic::LogVersion{1001});
  EXPECT_EQ(this->records(), 0U);
}

TYPED_TEST(LogMounting, ASecondMountOfAUnitYieldsTheSameCollection) {
  (void)this->write(1);
  const auto first = this->bareLog().tableConfigQuilt(this->unit0);
  this->bareLog().mountQuiltConfig(this->unit0, Asic::LogVersion{});
  EXPECT_EQ(this->bareLog().tableConfigQuilt(this->unit0), first);
  EXPECT_EQ(this->bareLog().tableConfigQuilt().size(), 1U);
  this->expectLive(1, 1);
}

TYPED_TEST(LogMounting, TheCollectionOfAUnitCanBeSetTakenOutAndRemoved) {
  auto& log = this->log(this->unit0);
  const auto quilt = log.tableConfigQuilt(this->unit0);
  EXPECT_EQ(log.tableConfigQuilt(this->unit1), nullptr);
  EXPECT_EQ(log.tableConfigQuiltDel(this->unit1), nullptr);
  log.tableConfigQuiltIs(this->unit1, nullptr);
  EXPECT_EQ(log.tableConfigQuilt().size(), 1U);
  log.tableConfigQuiltIs(this->unit1, quilt);
  EXPECT_EQ(log.tableConfigQuilt(this->unit1), quilt);
  log.tableConfigQuiltIs(this->unit1, nullptr);
  EXPECT_EQ(log.tableConfigQuilt(this->unit1), nullptr);
  EXPECT_EQ(log.tableConfigQuiltDel(this->unit0), quilt);
  EXPECT_EQ(log.tableConfigQuilt(this->unit0), nullptr);
  log.tableConfigQuiltIs(this->unit0, quilt);
  log.tableConfigQuiltIs(this->unit1, quilt);
  log.tableConfigQuiltDelAll();
  EXPECT_EQ(log.tableConfigQuilt().size(), 0U);
}

TYPED_TEST(LogMounting, ALogKeepsWhatItWasMadeWith) {
  using Log = typename TestFixture::Log;
  this->start();
  const auto vault = Lumen::makeNode<Vault::EntityManager>("kelp-made-with", true, "");
  const auto group =
      Lumen::makeNode<Asic::GroupInterface>("Someone/Else", vault, std::uint16_t{0x1234});
  const Asic::SwTableId tableId{0x12345678};
  const auto log = Log::KelpEntryLogIs(tableId, vault, group, "Someone");
  EXPECT_EQ(log->tableId(), tableId);
  EXPECT_EQ(log->entityManager(), vault);
  EXPECT_EQ(log->groupInterface(), group);
  EXPECT_EQ(log->agentName(), "Someone");
  // It mounts below that vault, and tells that group, under that id.
  EXPECT_EQ(Asic::writableSharedMemory(*vault)->getEntity(
                KelpEmServer::KelpConstants<TypeParam>::tableEntryLogQuiltPath()),
            log->tableEntryLog());
  EXPECT_FALSE(group->takePublished());
  group->addLogEntry(tableId, Asic::LogVersion{5}, nullptr);
  EXPECT_EQ(log->tableEntryLog()->collectionControl()->published(), 5U);
  Asic::writableSharedMemory(*vault)->entityDelAll();
}

// --- where the collections lie

using OneTable = KelpEmServer::Isem1Tag;

// Sets NOT_LOCAL_EM for its life.
class NotLocal {
 public:
  explicit NotLocal(const char* value) { setenv("NOT_LOCAL_EM", value, 1); }
  ~NotLocal() { unsetenv("NOT_LOCAL_EM"); }
};

class LogPlace : public testing::Test {
 protected:
  void SetUp() override { unsetenv("NOT_LOCAL_EM"); }
  void TearDown() override {
    for (const bool local : {true, false}) {
      BrioSharedMem::EntityManager::getEntityManager(vault_->name(), local)->entityDelAll();
    }
  }
  // A log over the manager of the given mode, and whether its file lies in the root.
  Lumen::Ptr<KelpEmServer::Isem1TagKelpEntryLog> mount(bool localMode) {
    vault_ = Lumen::makeNode<Vault::EntityManager>(
        localMode ? "kelp-place-local" : "kelp-place-shared", localMode, root_.path());
    const auto group = Lumen::makeNode<Asic::GroupInterface>(
        Asic::Constants::canonicalizeGroupName("KelpTunnelNi", "KelpEmServerGroup"), vault_,
        std::uint16_t{0x2908});
    return KelpEmServer::isem1TagKelpEntryLogFactory(OneTable::tableId, vault_, group,
                                                     "KelpTunnelNi");
  }
  [[nodiscard]] std::size_t filesIn(const std::string& folder) const {
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
      count += entry.path().extension() == ".quilt" ? 1U : 0U;
    }
    return count;
  }

  TestSupport::TempRoot root_;
  Lumen::Ptr<Vault::EntityManager> vault_;
};

TEST_F(LogPlace, ASharedLogLiesInAFile) {
  BrioSharedMem::EntityManager::rootIs("kelp-place-shared", root_.path());
  const auto log = mount(false);
  log->mountQuiltConfig(Asic::UnitId{0}, Asic::LogVersion{});
  EXPECT_EQ(filesIn(root_.path()), 3U) << "log, dependencies and one unit";
}

TEST_F(LogPlace, InLocalModeNothingLiesInAFile) {
  BrioSharedMem::EntityManager::rootIs("kelp-place-local", root_.path());
  const auto log = mount(true);
  log->mountQuiltConfig(Asic::UnitId{0}, Asic::LogVersion{});
  EXPECT_EQ(filesIn(root_.path()), 0U);
  const auto entry =
      TestSupport::sampleEntry<OneTable::Entry>(TestSupport::sampleKey<OneTable::Entry::Key>(1), 1);
  const auto stats = Lumen::makeNode<Asic::SwTableStats>();
  EXPECT_EQ(
      log->entryIs(entry.logEntry, entry.rsrcKeys, nullptr, Asic::UnitId{0}, stats, false).value,
      1U);
  EXPECT_TRUE(log->entryHas(entry.logEntry.key, Asic::UnitId{0}));
}

TEST_F(LogPlace, LocalModeEndsWithNotLocalEmWhateverItsValue) {
  for (const char* value : {"", "0", "1"}) {
    const NotLocal set(value);
    BrioSharedMem::EntityManager::rootIs("kelp-place-local", root_.path());
    const auto log = mount(true);
    log->mountQuiltConfig(Asic::UnitId{0}, Asic::LogVersion{});
    EXPECT_EQ(filesIn(root_.path()), 3U) << '"' << value << '"';
    EXPECT_EQ(BrioSharedMem::EntityManager::getEntityManager("kelp-place-local", true)
                  ->getEntity(log->tableEntryLog()->mapBase().path()),
              nullptr);
    TearDown();
    std::filesystem::remove_all(root_.path() + "/kelp-place-local/orderedTable");
  }
}

TEST(LogMountingHelper, AnEntityOfAnotherTypeIsNoConfigurationCollection) {
  TestSupport::TempRoot root;
  BrioSharedMem::EntityManager::rootIs("kelp-type", root.path());
  const auto vault = Lumen::makeNode<Vault::EntityManager>("kelp-type", false, root.path());
  // Two types whose records differ cannot share a path; the second is told so by name.
  const auto filler = [](BrioQuilt::MountInfo& info) {
    info.collectionInfoIs(BrioQuilt::CollectionInfo("swTableEntries", 16, false));
  };
  using One = KelpTunnelNiLib::EsemFodoConfigQuilt;
  using Other = KelpTunnelNiLib::IsemMplsConfigQuilt;
  const auto controlOf = [](auto& quilt) { return quilt->collectionControl(); };
  const auto nothing = [] {};
  const auto mountAs = [&]<class Quilt>(const char* typeName) {
    return KelpEmServer::checkAndwriteMountQuilt<Quilt>(vault, typeName, "p/config/0", "agent",
                                                        filler, controlOf, nothing);
  };
  EXPECT_NE(mountAs.template operator()<One>("KelpTunnelNiLib::EsemFodoConfigQuilt"), nullptr);
  EXPECT_EQ(mountAs.template operator()<Other>("KelpTunnelNiLib::EsemFodoConfigQuilt"), nullptr)
      << "an entity that is there, but is not of the class asked for";
  try {
    (void)mountAs.template operator()<Other>("KelpTunnelNiLib::IsemMplsConfigQuilt");
    FAIL() << "a second type at one path";
  } catch (const BrioSharedMem::StoreError& error) {
    EXPECT_THAT(error.what(), HasSubstr("p/config/0"));
    EXPECT_THAT(error.what(), HasSubstr("EsemFodoConfigQuilt"));
  }
  BrioSharedMem::EntityManager::getEntityManager("kelp-type", false)->entityDelAll();
}

}  // namespace
