#include "BrioQuilt/CollectionEntity.h"
#include "BrioSharedMem/EntityType.h"
#include "LogFixture.h"

// A configuration collection that can't be had as what it is: the process ends, wherever it is
// asked for.

namespace {

using testing::HasSubstr;

// The type name of T's configuration collection.
template <class T>
std::string configType() {
  return "KelpTunnelNiLib::" + std::string(T::name.view()) + "ConfigQuilt";
}

// An entity with the records and the type name of T's configuration collection, but of another
// class.
template <class T>
class Stranger final : public BrioQuilt::CollectionEntity<typename T::ConfigQuilt::Record> {
 public:
  using Base = BrioQuilt::CollectionEntity<typename T::ConfigQuilt::Record>;

  explicit Stranger(const BrioQuilt::Opening& opening) : Base(underFalseName(opening)) {}

 private:
  static BrioQuilt::Opening underFalseName(BrioQuilt::Opening opening) {
    opening.typeName = configType<T>();
    return opening;
  }
};

template <class T>
class LogMountingDeathTest : public TestSupport::LogFixture<T> {
 protected:
  // Puts a stranger where the collection of `unit` is looked for, in this process.
  void mountStranger(Asic::UnitId unit) {
    const std::string typeName = "Test::" + std::string(T::name.view()) + "Stranger";
    const BrioSharedMem::EntityTypeRegistrar<Stranger<T>> registrar(typeName.c_str());
    BrioQuilt::MountInfo info(BrioQuilt::BrioQuiltType::collection);
    info.collectionInfoIs(BrioQuilt::CollectionInfo("swTableEntries", 0x10000, false));
    const auto group = this->memory()->getMountGroup();
    (void)group->mount(KelpEmServer::KelpConstants<T>::configQuiltPath(unit), typeName, info);
    group->doClose();
  }
};
TYPED_TEST_SUITE(LogMountingDeathTest, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(LogMountingDeathTest, AUnitWithoutAConfigurationCollectionEndsTheProcess) {
  auto& log = this->bareLog();
  // All of it in the process that ends: it is the one that has the stranger mounted.
  EXPECT_DEATH(
      {
        this->mountStranger(this->unit1);
        log.mountQuiltConfig(this->unit1, Asic::LogVersion{});
      },
      HasSubstr("Assertion `cfgQuilt' failed."));
  // The same without the stranger.
  log.mountQuiltConfig(this->unit1, Asic::LogVersion{});
  EXPECT_NE(log.tableConfigQuilt(this->unit1), nullptr);
}

TYPED_TEST(LogMountingDeathTest, ATableOfSuchAUnitEndsTheProcess) {
  const auto intf = this->intf();
  EXPECT_DEATH(
      {
        this->mountStranger(this->unit1);
        (void)intf->makeSwTable(this->unit1, nullptr, false);
      },
      HasSubstr("Assertion `cfgQuilt' failed."));
}

TYPED_TEST(LogMountingDeathTest, SoDoesALogThatFinishesAChangeAcrossSuchAUnit) {
  (void)this->write(1);
  // As if the process had ended in the middle of the next change.
  this->logControl()->announcedIs(2);
  this->stop();
  EXPECT_DEATH(
      {
        this->start();
        this->mountStranger(this->unit0);
        (void)this->intf();
      },
      HasSubstr("Assertion `cfgQuilt' failed."));
  EXPECT_EQ(this->tableVersion(), 1U) << "the next one that starts is not in the way";
}

}  // namespace
