#include "Asic/SwTableInterfacesSingleton.h"
#include "InterfaceFixture.h"

// The interface of a table: one per process, registered with the agent and the process.

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

template <class T>
class TableInterface : public TestSupport::InterfaceFixture<T> {};
TYPED_TEST_SUITE(TableInterface, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(TableInterface, IsTheSameObjectAtEveryCall) {
  const auto first = this->intf();
  EXPECT_EQ(this->intf(), first);
  EXPECT_EQ(TestFixture::Interface::getIntf(this->agent_), first);
}

TYPED_TEST(TableInterface, CarriesTheNamesOfItsTable) {
  const auto intf = this->intf();
  EXPECT_EQ(intf->tableName(), this->tableText("", "Kelp"));
  EXPECT_EQ(intf->tableId(), TypeParam::tableId);
  EXPECT_EQ(intf->groupName(), "KelpEmServerGroup");
  EXPECT_EQ(intf->agentName(), "KelpTunnelNi");
  EXPECT_EQ(intf->tableNamespace(), "KelpEmServer");
  EXPECT_EQ(intf->orderedTableIntf(), this->agent_);
}

TYPED_TEST(TableInterface, RegistersUnderItsQualifiedName) {
  const std::string key = this->tableText("KelpEmServer::", "KelpInterface");
  const auto singleton = Asic::SwTableInterfacesSingleton::instance();
  EXPECT_FALSE(singleton->swTableIntfHas(key));
  const auto intf = this->intf();
  EXPECT_EQ(singleton->swTableIntf(key), intf);
  EXPECT_EQ(this->agent_->swTableIntf(key), intf.get());
  EXPECT_EQ(this->group()->swTableSet(TypeParam::tableId), intf->swTableSet());
}

TYPED_TEST(TableInterface, MakesLogStatusAndSet) {
  const auto intf = this->intf();
  ASSERT_NE(intf->entryLog(), nullptr);
  EXPECT_EQ(intf->entryLog()->tableId(), TypeParam::tableId);
  EXPECT_EQ(intf->entryLog()->entityManager(), this->vault_);
  EXPECT_EQ(intf->entryLog()->groupInterface(), this->group());
  EXPECT_EQ(intf->entryLog()->agentName(), "KelpTunnelNi");
  EXPECT_EQ(intf->swTableStatus()->tableId(), TypeParam::tableId);
  EXPECT_FALSE(intf->swTableStatus()->pendingHwWrites());
  EXPECT_EQ(intf->swTableSet()->tableId(), TypeParam::tableId);
  EXPECT_EQ(intf->swTableSet()->status(), intf->swTableStatus());
  EXPECT_THAT(intf->swTableSet()->swTables(), IsEmpty());
  EXPECT_EQ(this->group()->agentAndGroupId(), 0x2908);
}

TYPED_TEST(TableInterface, GoesWithTheSingletonsReference) {
  const std::string key = this->tableText("KelpEmServer::", "KelpInterface");
  (void)this->intf();
  TestSupport::TraceCapture traces("*KelpInterface/2");
  Asic::SwTableInterfacesSingleton::instance()->swTableIntfDel(key);
  ASSERT_EQ(traces.lines().size(), 1U);
  EXPECT_EQ(traces.lines()[0].text, " onDelete ");
  EXPECT_EQ(traces.lines()[0].handle, this->tableText("", "KelpInterface"));
  EXPECT_EQ(this->agent_->swTableIntf(key), nullptr);
}

TYPED_TEST(TableInterface, ALogTakenInWholeIsCleanedAndNothingIsPending) {
  this->earlierRun(7);
  this->leaveRow(7, this->incarnation_);
  TestSupport::TraceCapture traces("*KelpInterface/2,3");
  const auto intf = this->intf();
  EXPECT_THAT(this->logVersions(), IsEmpty());
  EXPECT_EQ(intf->entryLog()->lastCleanedVersion().value, 7U);
  EXPECT_FALSE(intf->swTableStatus()->pendingHwWrites());
  ASSERT_EQ(traces.lines().size(), 3U);
  EXPECT_EQ(traces.lines()[0].level, 3U);
  EXPECT_EQ(traces.lines()[0].text, fmt::format(" Creating entry log for {}", TypeParam::tableId));
  EXPECT_EQ(traces.lines()[1].level, 3U);
  EXPECT_EQ(traces.lines()[1].text, " Cleaned entry log until table version: 7");
  EXPECT_EQ(traces.lines()[2].level, 2U);
  EXPECT_EQ(traces.lines()[2].text,
            fmt::format(" Entry log created for table id: {} at version: 7", TypeParam::tableId));
}

TYPED_TEST(TableInterface, ALogWithMoreThanWasTakenInIsPending) {
  this->earlierRun(9);
  this->leaveRow(7, this->incarnation_);
  TestSupport::TraceCapture traces("*KelpInterface/2");
  const auto intf = this->intf();
  EXPECT_THAT(this->logVersions(), ElementsAre(8, 9));
  EXPECT_EQ(intf->entryLog()->lastCleanedVersion().value, 7U);
  EXPECT_TRUE(intf->swTableStatus()->pendingHwWrites());
  ASSERT_EQ(traces.lines().size(), 2U);
  EXPECT_EQ(traces.lines()[0].text, " Turning ON pendingHwWrites");
  EXPECT_EQ(traces.lines()[1].text,
            fmt::format(" Entry log created for table id: {} at version: 9", TypeParam::tableId));
}

TYPED_TEST(TableInterface, WithoutARowNothingIsCleanedAndNothingIsPending) {
  this->earlierRun(9);
  const bool rowsOfOthers[] = {false, true};
  for (const bool others : rowsOfOthers) {
    SCOPED_TRACE(others);
    this->start();
    if (others) {
      this->hardware().report(Asic::SwTableId{0x29080499}, 5, this->incarnation_);
    }
    TestSupport::TraceCapture traces("*KelpInterface/2,3");
    const auto intf = this->intf();
    EXPECT_EQ(this->logVersions().size(), 9U);
    EXPECT_EQ(intf->entryLog()->lastCleanedVersion().value, 0U);
    EXPECT_FALSE(intf->swTableStatus()->pendingHwWrites());
    EXPECT_EQ(traces.lines().size(), 2U);
    // The table of a unit knows better.
    const auto table = this->table();
    EXPECT_TRUE(table->hasPendingHwWrites());
    EXPECT_TRUE(intf->swTableStatus()->pendingHwWrites());
    this->stop();
  }
}

TYPED_TEST(TableInterface, ARowOfVersion0IsARow) {
  this->earlierRun(3);
  this->leaveRow(0, this->incarnation_);
  TestSupport::TraceCapture traces("*KelpInterface/2,3");
  EXPECT_TRUE(this->intf()->swTableStatus()->pendingHwWrites());
  EXPECT_TRUE(traces.has(3, " Cleaned entry log until table version: 0"));
  EXPECT_EQ(this->logVersions().size(), 3U);
}

TYPED_TEST(TableInterface, KeepsALogThatWasMadeWithTheSameArguments) {
  const auto intf = this->intf();
  const auto log = intf->entryLog();
  EXPECT_EQ(intf->entryLogIs(TypeParam::tableId, this->vault_, this->group(), "KelpTunnelNi"), log);
  EXPECT_EQ(intf->entryLog(), log);

  const auto other = intf->entryLogIs(TypeParam::tableId, this->vault_, this->group(), "Other");
  EXPECT_NE(other, log);
  EXPECT_EQ(intf->entryLog(), other);
  EXPECT_EQ(other->agentName(), "Other");
  EXPECT_EQ(intf->entryLogIs(TypeParam::tableId, this->vault_, this->group(), "Other"), other);
  EXPECT_NE(intf->entryLogIs(TypeParam::tableId, this->vault_, this->group(), "KelpTunnelNi"), log)
      << "the first one was dropped";

  const auto again = intf->entryLog();
  const auto otherGroup =
      Lumen::makeNode<Asic::GroupInterface>("KelpTunnelNi/Other", this->vault_, std::uint16_t{1});
  EXPECT_NE(intf->entryLogIs(TypeParam::tableId, this->vault_, otherGroup, "KelpTunnelNi"), again);
  const auto third = intf->entryLog();
  EXPECT_NE(intf->entryLogIs(Asic::SwTableId{0x29080488}, this->vault_, otherGroup, "KelpTunnelNi"),
            third);
  const auto fourth = intf->entryLog();
  const auto otherVault = Lumen::makeNode<Vault::EntityManager>("kelp-test-2", true, "");
  const auto fifth =
      intf->entryLogIs(Asic::SwTableId{0x29080488}, otherVault, otherGroup, "KelpTunnelNi");
  EXPECT_NE(fifth, fourth);
  EXPECT_EQ(fifth->entityManager(), otherVault);
  Asic::writableSharedMemory(*otherVault)->entityDelAll();
}

TYPED_TEST(TableInterface, KeepsAStatusOfTheSameTable) {
  const auto intf = this->intf();
  const auto status = intf->swTableStatus();
  status->pendingHwWritesIs(true);
  EXPECT_EQ(intf->swTableStatusIs(TypeParam::tableId), status);
  EXPECT_TRUE(intf->swTableStatus()->pendingHwWrites());
  EXPECT_NE(intf->swTableStatusIs(Asic::SwTableId{5}), status);
  EXPECT_EQ(intf->swTableStatus()->tableId(), Asic::SwTableId{5});
  EXPECT_FALSE(intf->swTableStatus()->pendingHwWrites());
}

TYPED_TEST(TableInterface, KeepsASetOfTheSameTableAndTheVerySameStatus) {
  const auto intf = this->intf();
  const auto set = intf->swTableSet();
  EXPECT_EQ(intf->swTableSetIs(TypeParam::tableId, intf->swTableStatus()), set);
  const auto status = Lumen::makeNode<Asic::OrderedSwTableStatus>(TypeParam::tableId);
  const auto other = intf->swTableSetIs(TypeParam::tableId, status);
  EXPECT_NE(other, set);
  EXPECT_EQ(other->status(), status);
  EXPECT_NE(intf->swTableSetIs(Asic::SwTableId{5}, status), other);
}

TYPED_TEST(TableInterface, GivesItsPartsAway) {
  const auto intf = this->intf();
  const auto log = intf->entryLog();
  const auto status = intf->swTableStatus();
  const auto set = intf->swTableSet();
  EXPECT_EQ(intf->swTableSetDel(), set);
  EXPECT_EQ(intf->swTableSet(), nullptr);
  EXPECT_EQ(intf->swTableStatusDel(), status);
  EXPECT_EQ(intf->swTableStatus(), nullptr);
  EXPECT_EQ(intf->entryLogDel(), log);
  EXPECT_EQ(intf->entryLog(), nullptr);
}

TYPED_TEST(TableInterface, OfAnAgentThatEndedIsNotThatOfTheNext) {
  const std::string key = this->tableText("KelpEmServer::", "KelpInterface");
  (void)this->intf();
  this->stop();
  EXPECT_FALSE(Asic::SwTableInterfacesSingleton::instance()->swTableIntfHas(key));
  this->start();
  EXPECT_EQ(this->intf()->orderedTableIntf(), this->agent_);
}

template <class T>
class TableInterfaceDeathTest : public TestSupport::InterfaceFixture<T> {};
TYPED_TEST_SUITE(TableInterfaceDeathTest, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(TableInterfaceDeathTest, ASecondOneOfATableEndsTheProcessWithASentence) {
  (void)this->intf();
  const std::string expression = "!singleton->swTableIntfHas( \"" +
                                 this->tableText("KelpEmServer::", "KelpInterface") + "\" )";
  EXPECT_DEATH((void)Lumen::makeNode<typename TestFixture::Interface>(this->agent_),
               testing::AllOf(HasSubstr(expression + ": Interface already created"),
                              HasSubstr("Assertion `\"" + expression + "\" == nullptr' failed.")));
}

}  // namespace
