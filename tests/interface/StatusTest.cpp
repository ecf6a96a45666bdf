#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <limits>

#include "BrioSharedMem/EntityPath.h"
#include "InterfaceFixture.h"

// What the hardware side reports: the rows of the group's status collection, good ones and others.

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr std::uint64_t kHighest = std::numeric_limits<std::uint64_t>::max();

template <class T>
class StatusRows : public TestSupport::InterfaceFixture<T> {
 protected:
  std::optional<Asic::LogVersion> status() { return this->group()->statusVersion(T::tableId); }
};
TYPED_TEST_SUITE(StatusRows, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(StatusRows, AReportEndsTheHandlesThatItCovers) {
  const auto table = this->table();
  const auto first = table->entryWrite(this->key(1), this->entry(1), nullptr);
  const auto second = table->entryWrite(this->key(2), this->entry(2), nullptr);
  EXPECT_EQ(this->pass(), 2U);
  this->report(1);
  EXPECT_EQ(first->entryState(), Asic::EntryState::entryStateSuccess);
  EXPECT_EQ(second->entryState(), Asic::EntryState::entryStateInLog);
  EXPECT_TRUE(this->intf()->swTableStatus()->pendingHwWrites());
  this->report(2);
  EXPECT_EQ(second->entryState(), Asic::EntryState::entryStateSuccess);
  EXPECT_FALSE(this->intf()->swTableStatus()->pendingHwWrites());
}

TYPED_TEST(StatusRows, AReportGoesToTheTablesOfAllUnits) {
  const auto table0 = this->table(this->unit0);
  const auto table1 = this->table(this->unit1);
  const auto handle0 = table0->entryWrite(this->key(1), this->entry(1), nullptr);
  const auto handle1 = table1->entryWrite(this->key(1), this->entry(1), nullptr);
  this->pass();
  EXPECT_EQ(handle1->logVersion().value, 2U);
  this->report(2);
  EXPECT_EQ(handle0->entryState(), Asic::EntryState::entryStateSuccess);
  EXPECT_EQ(handle1->entryState(), Asic::EntryState::entryStateSuccess);
}

TYPED_TEST(StatusRows, WithoutARowThereIsNoStatus) {
  const auto table = this->table();
  this->commit(table, 1);
  EXPECT_EQ(this->status(), std::nullopt);
  EXPECT_EQ(this->group()->pollStatus(), 0U);
  (void)this->hardware();  // the collection, but no row
  EXPECT_EQ(this->status(), std::nullopt);
  EXPECT_EQ(this->group()->pollStatus(), 0U);
  EXPECT_TRUE(table->hasPendingHwWrites());
}

TYPED_TEST(StatusRows, ARowAboveThePublishedVersionCountsAsThat) {
  const auto table = this->table();
  this->commit(table, 1);
  const auto begin = std::chrono::steady_clock::now();
  this->report(kHighest);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(30));
  EXPECT_EQ(this->status(), Asic::LogVersion{1});
  EXPECT_EQ(this->intf()->entryLog()->lastCleanedVersion().value, 1U);
  EXPECT_FALSE(table->hasPendingHwWrites());
  // What comes later was not reported by it.
  const auto handle = table->entryWrite(this->key(2), this->entry(2), nullptr);
  this->pass();
  EXPECT_EQ(handle->entryState(), Asic::EntryState::entryStateInLog);
  this->group()->pollStatus();
  EXPECT_EQ(handle->entryState(), Asic::EntryState::entryStateInLog);
  EXPECT_EQ(this->intf()->entryLog()->lastCleanedVersion().value, 1U);
  this->report(kHighest - 1);  // another word of the same kind covers what is published now
  EXPECT_EQ(handle->entryState(), Asic::EntryState::entryStateSuccess);
  this->commit(table, 3);
  this->report(3);
  EXPECT_EQ(this->intf()->entryLog()->lastCleanedVersion().value, 3U);
}

TYPED_TEST(StatusRows, ARowOfTheHighestVersionCostsNoTimeAtAStart) {
  this->earlierRun(5);
  this->leaveRow(kHighest, this->incarnation_);
  const auto begin = std::chrono::steady_clock::now();
  const auto table = this->table();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(30));
  EXPECT_EQ(this->intf()->entryLog()->lastCleanedVersion().value, 5U);
  EXPECT_THAT(this->logVersions(), IsEmpty());
  EXPECT_EQ(table->entrys(), 5U);
  EXPECT_FALSE(this->intf()->swTableStatus()->pendingHwWrites());
}

TYPED_TEST(StatusRows, ARowOfAnUnknownTableChangesNothing) {
  const auto table = this->table();
  this->commit(table, 1);
  for (const Asic::SwTableId other :
       {Asic::SwTableId{0}, Asic::SwTableId{0x29080455}, Asic::SwTableId{~0U}}) {
    this->hardware().report(other, 1, this->incarnation());
  }
  EXPECT_EQ(this->group()->pollStatus(), 0U);
  EXPECT_EQ(this->status(), std::nullopt);
  EXPECT_EQ(this->group()->statusVersion(Asic::SwTableId{0x29080455}), std::nullopt);
  EXPECT_THAT(this->logVersions(), ElementsAre(1));
}

TYPED_TEST(StatusRows, ARowOfAnotherIncarnationIsNone) {
  const auto table = this->table();
  this->commit(table, 1);
  for (const std::uint64_t other :
       {std::uint64_t{0}, this->incarnation() + 1, this->incarnation() - 1}) {
    this->hardware().report(TypeParam::tableId, 1, other);
    EXPECT_EQ(this->status(), std::nullopt);
    EXPECT_EQ(this->group()->pollStatus(), 0U);
  }
  EXPECT_THAT(this->logVersions(), ElementsAre(1));
  EXPECT_TRUE(table->hasPendingHwWrites());
}

TYPED_TEST(StatusRows, ARowOfAnEarlierLogDoesNotSpeakOfANewOne) {
  using Constants = KelpEmServer::KelpConstants<TypeParam>;
  this->earlierRun(7);
  this->leaveRow(7, this->incarnation_);
  this->stop();
  unlink((this->root_.path() + "/kelp-test/" +
          BrioSharedMem::encodedPath(Constants::tableEntryLogQuiltPath()) + ".quilt")
             .c_str());
  testing::internal::CaptureStderr();
  const auto table = this->table();
  (void)testing::internal::GetCapturedStderr();
  this->commit(table, 1);
  EXPECT_EQ(this->status(), std::nullopt);
  EXPECT_THAT(this->logVersions(), ElementsAre(1));
  EXPECT_TRUE(table->hasPendingHwWrites());
}

TYPED_TEST(StatusRows, OnlyWhatIsNewIsHandedOn) {
  const auto table = this->table();
  this->commit(table, 1);
  this->commit(table, 2);
  this->hardware().report(TypeParam::tableId, 1, this->incarnation());
  TestSupport::TraceCapture traces("*KelpSwTable/8");
  EXPECT_EQ(this->group()->pollStatus(), 1U);
  EXPECT_TRUE(traces.has(8, "tableVersion: 1"));
  traces.clear();
  EXPECT_EQ(this->group()->pollStatus(), 0U);
  EXPECT_THAT(traces.lines(), IsEmpty());
  this->report(2);
  EXPECT_TRUE(traces.has(8, "tableVersion: 2"));
}

TYPED_TEST(StatusRows, AReportBelowAnEarlierOneMovesTheMarkBack) {
  const auto table = this->table();
  for (std::uint64_t i = 0; i < 4; ++i) {
    this->commit(table, i);
  }
  this->report(4);
  EXPECT_FALSE(table->hasPendingHwWrites());
  this->report(2);
  EXPECT_EQ(this->intf()->entryLog()->lastCleanedVersion().value, 2U);
  EXPECT_TRUE(table->hasPendingHwWrites());
  this->report(4);
  EXPECT_FALSE(table->hasPendingHwWrites());
}

TYPED_TEST(StatusRows, ACollectionMadeAnewIsFollowed) {
  const auto table = this->table();
  this->commit(table, 1);
  this->commit(table, 2);
  this->report(1);
  const Lumen::String path = this->hardware().status()->mapBase().path();
  // The hardware side is started over an empty store.
  this->hardware_.reset();
  this->memory()->entityDel(path);
  unlink(
      (this->root_.path() + "/kelp-test/" + BrioSharedMem::encodedPath(path) + ".quilt").c_str());
  EXPECT_EQ(this->status(), std::nullopt);
  EXPECT_EQ(this->group()->pollStatus(), 0U);
  this->report(2);
  EXPECT_EQ(this->intf()->entryLog()->lastCleanedVersion().value, 2U);
}

TYPED_TEST(StatusRows, ACorruptRowIsReportedAndCountsAsNone) {
  this->earlierRun(3);
  this->leaveRow(3, this->incarnation_);
  const auto& status = this->hardware().status();
  bool found = false;
  const auto& row = status->map().find(TypeParam::tableId, found);
  ASSERT_TRUE(found);
  const auto offset = static_cast<off_t>(reinterpret_cast<const char*>(&row.version) -
                                         static_cast<const char*>(status->map().file()->at(0)));
  const std::string file = this->root_.path() + "/kelp-test/" +
                           BrioSharedMem::encodedPath(status->mapBase().path()) + ".quilt";
  const int fd = open(file.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  const unsigned char byte = 0x77;
  ASSERT_EQ(pwrite(fd, &byte, 1, offset), 1);
  close(fd);

  testing::internal::CaptureStderr();
  const auto intf = this->intf();
  EXPECT_EQ(this->logVersions().size(), 3U);
  EXPECT_EQ(intf->entryLog()->lastCleanedVersion().value, 0U);
  EXPECT_FALSE(intf->swTableStatus()->pendingHwWrites());
  const auto table = this->table();
  EXPECT_EQ(this->group()->pollStatus(), 0U);
  EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("corruption in collection status"));
  EXPECT_EQ(table->entrys(), 3U);
}

TYPED_TEST(StatusRows, APendingFlagOfTheStartGoesWithTheReport) {
  this->earlierRun(4);
  this->leaveRow(2, this->incarnation_);
  const auto intf = this->intf();
  EXPECT_TRUE(intf->swTableStatus()->pendingHwWrites());
  const auto table = this->table();
  EXPECT_TRUE(intf->swTableStatus()->pendingHwWrites());
  this->report(4);
  EXPECT_FALSE(intf->swTableStatus()->pendingHwWrites());
  EXPECT_THAT(this->logVersions(), IsEmpty());
}

}  // namespace
