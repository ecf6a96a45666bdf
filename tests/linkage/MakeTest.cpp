#include <filesystem>
#include <set>

#include "LinkageFixture.h"

// How a table comes to its linkages, and what it restores through them.

namespace {

using LinkageTest::AllLinkages;
using LinkageTest::LinkageName;
using TestSupport::TraceCapture;

template <class P>
class Linking : public LinkageTest::LinkageFixture<P> {};
TYPED_TEST_SUITE(Linking, AllLinkages, LinkageName);

template <class P>
using LinkingDeathTest = Linking<P>;
TYPED_TEST_SUITE(LinkingDeathTest, AllLinkages, LinkageName);

TYPED_TEST(Linking, GivesTheTableItsLinkageAndSaysSo) {
  this->write(1, 1);
  this->stopAgent();
  this->start();
  const TraceCapture traces("*KelpInterface/2");
  this->table_ = this->table();
  ASSERT_NE(this->linkageOf(*this->table_), nullptr);
  EXPECT_EQ(this->linkage().swTable(), this->table_.get());
  EXPECT_NE(this->linkage().resTblClient(), nullptr);
  EXPECT_TRUE(traces.has(2, fmt::format(fmt::runtime(TypeParam::Kind::startedText), 1)));
}

TYPED_TEST(Linking, ASecondCallLeavesTheLinkage) {
  const auto before = this->linkageOf(*this->table_);
  (void)this->intf()->makeSwTable(TestFixture::unit0, nullptr, true);
  EXPECT_EQ(this->linkageOf(*this->table_), before);
}

TYPED_TEST(Linking, EachUnitIsAClientOfItsOwn) {
  const auto other = this->table(TestFixture::unit1);
  EXPECT_NE(this->linkageOf(*other)->resTblClient(), this->linkage().resTblClient());
  EXPECT_EQ(this->linkageOf(*other)->resTblClient()->clientId().unit, TestFixture::unit1);
}

TYPED_TEST(LinkingDeathTest, WithoutItsResourceTableTheProcessEnds) {
  this->stopAgent();
  this->start();
  EXPECT_DEATH(
      {
        this->agent_ = Lumen::makeNode<Asic::OrderedTableInterface>(this->vault_);
        (void)this->table();
      },
      "resTbl");
}

TYPED_TEST(LinkingDeathTest, WithAnotherTableUnderItsNameTheProcessEnds) {
  class Impostor final : public Asic::NamedSwTable {
   public:
    explicit Impostor(const Lumen::Ptr<const Asic::CanonicalTableName>& name)
        : Asic::NamedSwTable(name, {}, {}) {}
    void doCreateHwTable() override {}
  };
  this->stopAgent();
  this->start();
  this->agent_->resourceTableIs(Lumen::makeNode<Impostor>(this->resources().canonicalName()));
  EXPECT_DEATH((void)this->table(), "typedResourceTable");
}

TYPED_TEST(Linking, ARestoreEntersWhatIsNotDeleted) {
  this->write(1, 1);
  this->write(2, 2);
  this->write(3, 3);
  this->remove(3);
  this->stopAgent();
  this->start();
  const TraceCapture traces(std::string(TestFixture::Linkage::className()) + "/8");
  this->table_ = this->table();
  unsigned mapped = 0;
  for (const auto& line : traces.lines()) {
    mapped += line.text.starts_with("resKey: ") ? 1 : 0;
  }
  EXPECT_EQ(mapped, 2U);
  EXPECT_EQ(this->users(1).size(), 1U);
  EXPECT_EQ(this->users(2).size(), 1U);
  EXPECT_EQ(this->linkage().entryUsageSm().size(), 2U);
  EXPECT_TRUE(this->table_->transientAddEntry().empty());
  EXPECT_TRUE(this->table_->transientRemoveEntry().empty());
  EXPECT_TRUE(this->table_->transientVersionForKey().empty());
  EXPECT_TRUE(this->table_->entryHas(this->key(1)));
}

TYPED_TEST(Linking, AResetRestoresNothing) {
  this->write(1, 1);
  this->stopAgent();
  this->start();
  this->table_ = this->intf()->makeSwTable(TestFixture::unit0, nullptr, true);
  EXPECT_TRUE(this->linkage().entryUsageSm().empty());
  EXPECT_EQ(this->table_->entrys(), 0U);
  // What its entries used is given back when the table delete is on the chip.
  EXPECT_EQ(this->resources().entrys(), 1U);
  this->resources_.replayComplete();
  EXPECT_EQ(this->resources().entrys(), 1U);
  this->reportAll();
  EXPECT_EQ(this->resources().entrys(), 0U);
}

TYPED_TEST(Linking, AUseThatARunHadNoTimeToHoldKeepsItsIndexUntilAllIsReported) {
  this->write(1, 1);
  {
    const auto path = PactResourceTable::collectionPath(
        TestFixture::ResourceTable::Kind::tableNamespace,
        TestFixture::ResourceTable::Kind::tableName, PactResourceTable::kHolds);
    const auto holds =
        Lumen::dynamicPtrCast<PactResourceTable::HoldQuilt>(this->memory()->getEntity(path));
    ASSERT_TRUE(holds->map().recordDel(
        {this->record(1)->number, {TypeParam::Table::tableId, TestFixture::unit0}}));
  }
  this->stopAgent();
  this->start();
  this->table_ = this->intf()->makeSwTable(TestFixture::unit0, nullptr, true);
  this->resources_.replayComplete();
  EXPECT_EQ(this->resources().indexesTaken(), 1U) << "the chip has the entry still";
  this->reportAll();
  EXPECT_EQ(this->resources().indexesTaken(), 0U);
  EXPECT_EQ(this->resources().entrys(), 0U);
}

TYPED_TEST(Linking, ARestoreRewritesWhatIsNoLongerSo) {
  this->write(1, 1);
  this->write(2, 2);
  const auto one = this->result(1);
  const auto two = this->result(2);
  this->stopAgent();
  // The resources were lost; the first one asked for gets the first index again.
  std::filesystem::remove_all(this->root_.path() + "/kelp-test/resourceTable");
  this->start();
  this->table_ = this->table();
  const std::set<std::uint32_t> now{this->result(1), this->result(2)};
  EXPECT_EQ(now.size(), 2U);
  EXPECT_EQ(now.count(0), 0U);
  const auto& log = *this->table_->entryLog();
  const bool swapped = this->result(1) != one || this->result(2) != two;
  EXPECT_EQ(log.tableVersion().value, swapped ? 4U : 2U);
  EXPECT_EQ(this->acked(1), 1U);
  EXPECT_EQ(this->acked(2), 1U);
}

}  // namespace
