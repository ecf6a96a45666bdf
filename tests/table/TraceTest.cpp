#include <gmock/gmock.h>

#include "TableTest.h"

namespace {

using testing::ElementsAre;
using TestSupport::Events;

// What the table and its log trace, whole, with all levels on.
template <class T>
class Traces : public TestSupport::TableTest<T> {
 protected:
  static constexpr const char* kTable = "*KelpSwTable/*";
  static constexpr const char* kTableAndLog = "*KelpSwTable/*:*KelpEntryLog/*";

  static std::string pending(bool is) {
    return fmt::format("SwTable 3:  pendingHwWrites for swTable: tableId: {}, unitId0 is {}",
                       T::tableId, is);
  }
  static std::string entryText(const typename T::Entry::LogEntry& logEntry) {
    return fmt::format("{}", logEntry);
  }
};
TYPED_TEST_SUITE(Traces, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(Traces, OfAWriteAtItsAcceptance) {
  const auto table = this->table();
  const std::string key = this->text(1);
  Events events;
  const TestSupport::TraceWatch<TypeParam> traces(this->kTable, events);
  this->write(table, 1);
  EXPECT_THAT(
      events,
      ElementsAre("SwTable 8:  key: " + key, "SwTable 8:  key: " + key, "SwTable 8: key: " + key,
                  "SwTable 8:  Key: " + key + " not found in entry version collection",
                  "SwTable 2: Done processing write for key: " + key + " ",
                  "SwTable 8: ", this->pending(true)));
  events.clear();
  (void)table->entryWriteWithResponseHandler(this->key(1), this->entry(1), nullptr, nullptr);
  EXPECT_THAT(events, ElementsAre("SwTable 8:  key: " + key, "SwTable 8: key: " + key,
                                  "SwTable 2: Done processing write for key: " + key + " ",
                                  "SwTable 8: ", this->pending(true)));
}

TYPED_TEST(Traces, OfARemoveAtItsAcceptance) {
  const auto table = this->table();
  const std::string key = this->text(1);
  Events events;
  const TestSupport::TraceWatch<TypeParam> traces(this->kTable, events);
  this->remove(table, 1);
  EXPECT_THAT(events,
              ElementsAre("SwTable 8:  key: " + key, "SwTable 8:  key: " + key,
                          "SwTable 8:  Key: " + key + " ",
                          "SwTable 8:  Key: " + key + " not found in entry version collection",
                          "SwTable 2:  Done processing remove for key: " + key + " ",
                          "SwTable 8: ", this->pending(true)));
  events.clear();
  (void)table->entryRemoveWithResponseHandler(this->key(1), nullptr, nullptr);
  EXPECT_THAT(events, ElementsAre("SwTable 8:  key: " + key, "SwTable 8:  Key: " + key + " ",
                                  "SwTable 2:  Done processing remove for key: " + key + " ",
                                  "SwTable 8: ", this->pending(true)));
}

TYPED_TEST(Traces, OfARemoveAllAtItsAcceptance) {
  const auto table = this->table();
  Events events;
  const TestSupport::TraceWatch<TypeParam> traces(this->kTable, events);
  table->entryRemoveAll(nullptr);
  EXPECT_THAT(events, ElementsAre("SwTable 8: ", "SwTable 8: ", "SwTable 8: ",
                                  "SwTable 8: No remove all operation currently enqueued",
                                  "SwTable 2: Done processing remove all ",
                                  "SwTable 8: ", this->pending(true)));
  events.clear();
  table->entryRemoveAllWithResponseHandler(nullptr, nullptr);
  EXPECT_THAT(events, ElementsAre("SwTable 8: ", "SwTable 8: ",
                                  "SwTable 8: Found valid table remove all version: 0",
                                  "SwTable 2: Done processing remove all ",
                                  "SwTable 8: ", this->pending(true)));
}

TYPED_TEST(Traces, OfTheQuestionOfAWriteARemoveAndARemoveAll) {
  const auto table = this->table();
  this->write(table, 1);
  const auto write = table->resolverQueue().front();
  table->resolverQueue().clear();
  (void)table->entryRemove(this->key(1), this->handleIn(table, 4));
  const auto removal = table->resolverQueue().front();
  table->resolverQueue().clear();
  table->entryRemoveAll(nullptr);
  const auto removeAll = table->resolverQueue().front();

  const std::string key = this->text(1);
  const std::string blank = fmt::format("{}", typename TestFixture::Key());
  Events events;
  const TestSupport::TraceWatch<TypeParam> traces(this->kTable, events);
  EXPECT_TRUE(write->isResolved());
  EXPECT_THAT(events,
              ElementsAre("SwTable 8: key: " + key + ", refresh: true",
                          "SwTable 3: key: " + key +
                              ", isEntryDeleted: false, isTableDeleted: false, resolved: true"));
  events.clear();
  EXPECT_TRUE(removal->isResolved());
  EXPECT_THAT(events,
              ElementsAre("SwTable 3: key: " + key + " dependant entry is resolved",
                          "SwTable 3: key: " + key +
                              ", isEntryDeleted: true, isTableDeleted: false, resolved: true"));
  events.clear();
  EXPECT_TRUE(removeAll->isResolved());
  EXPECT_THAT(events,
              ElementsAre("SwTable 8: key: " + blank + ", refresh: true",
                          "SwTable 3: key: " + blank +
                              ", isEntryDeleted: false, isTableDeleted: true, resolved: true"));
}

TYPED_TEST(Traces, OfAQuestionThatIsAnsweredWithNo) {
  const auto table = this->table();
  (void)table->entryWrite(this->key(1), this->entry(1), this->handleIn(table, 0));
  Events events;
  const TestSupport::TraceWatch<TypeParam> traces(this->kTable, events);
  EXPECT_FALSE(table->resolverQueue().front()->isResolved());
  EXPECT_THAT(events, ElementsAre("SwTable 3: key: " + this->text(1) +
                                  " dependant entry not yet resolved"));
}

TYPED_TEST(Traces, OfTheCommitOfAWrite) {
  const auto table = this->table();
  const auto on = this->writeOther(1);
  this->pass();
  (void)table->entryWrite(this->key(1), this->entry(1), on);
  const auto entry = table->resolverQueue().front();
  table->resolverQueue().clear();
  const std::string key = this->text(1);
  Events events;
  {
    const TestSupport::TraceWatch<TypeParam> traces(this->kTableAndLog, events);
    entry->commitEntry(entry);
  }
  Events expected{"SwTable 8: Entry: " + key + ", isEntryDeleted: false, isTableDeleted: false",
                  "SwTable 8:  key: " + key + " isDeleted: false"};
  // What each resource depends on, and the end of that; then the entry as it was.
  for (std::size_t i = 0; i <= this->linkages() + 1; ++i) {
    expected.push_back("SwTable 8: key: " + key);
  }
  expected.push_back(
      fmt::format("EntryLog 8:  logEntry: {} neededEntry: {{{}@1}} version: 1 unitId: 0 "
                  "suppressIdenticalWrites: false",
                  this->logRecord(1).logEntry, TestFixture::Other::tableId));
  expected.emplace_back("SwTable 8: ");
  expected.push_back(this->pending(true));
  EXPECT_EQ(events, expected);
}

TYPED_TEST(Traces, OfTheCommitOfASuppressedWrite) {
  const auto table = this->table();
  this->commit(table, 1);
  table->mark();
  this->write(table, 1);
  const std::string key = this->text(1);
  Events events;
  {
    const TestSupport::TraceWatch<TypeParam> traces("*KelpEntryLog/*", events);
    this->pass();
    this->write(table, 1, 1);
    this->pass();
  }
  EXPECT_THAT(
      events,
      ElementsAre("EntryLog 3: Suppressing identical write for key: " + key,
                  "EntryLog 3: Not Suppressing write because entry or resource key is different  "
                  "for key: " +
                      key,
                  fmt::format("EntryLog 8:  logEntry: {} neededEntry: {{}} version: 2 unitId: 0 "
                              "suppressIdenticalWrites: true",
                              this->logRecord(2).logEntry)));
}

TYPED_TEST(Traces, OfTheCommitOfARemove) {
  const auto table = this->table();
  this->commit(table, 1);
  this->remove(table, 1);
  const std::string key = this->text(1);
  const auto entry = table->resolverQueue().front();
  table->resolverQueue().clear();
  Events events;
  {
    const TestSupport::TraceWatch<TypeParam> traces(this->kTableAndLog, events);
    entry->commitEntry(entry);
  }
  EXPECT_THAT(
      events,
      ElementsAre("SwTable 8: Entry: " + key + ", isEntryDeleted: true, isTableDeleted: false",
                  "SwTable 8: key: " + key, "SwTable 8:  key: " + key + " isDeleted: true",
                  "EntryLog 8:  key:" + key + " neededEntry: {} unitId: 0",
                  "SwTable 8: ", this->pending(true)));
}

TYPED_TEST(Traces, OfTheCommitOfARemoveOfAnAbsentKey) {
  const auto table = this->table();
  this->remove(table, 1);
  const std::string key = this->text(1);
  Events events;
  {
    const TestSupport::TraceWatch<TypeParam> traces("*KelpEntryLog/*", events);
    this->pass();
  }
  EXPECT_THAT(events, ElementsAre("EntryLog 8:  key:" + key + " neededEntry: {} unitId: 0",
                                  "EntryLog 3:  key: " + key +
                                      " entry does not exist. So ignoring delete"));
}

TYPED_TEST(Traces, OfTheCommitOfARemoveAll) {
  const auto table = this->table();
  this->commit(table, 1);
  table->entryRemoveAll(nullptr);
  const std::string blank = fmt::format("{}", typename TestFixture::Key());
  const auto entry = table->resolverQueue().front();
  table->resolverQueue().clear();
  Events events;
  {
    const TestSupport::TraceWatch<TypeParam> traces(this->kTableAndLog, events);
    entry->commitEntry(entry);
  }
  Events expected{"SwTable 8: Entry: " + blank + ", isEntryDeleted: false, isTableDeleted: true",
                  "SwTable 8: Committing table delete for version: 0"};
  for (std::size_t i = 0; i <= this->linkages(); ++i) {
    expected.push_back("SwTable 8: key: " + blank);
  }
  expected.emplace_back("SwTable 8:  releaseResources: true, neededEntry:{} ");
  if (this->linkages() != 0) {
    const std::string key = this->text(1);
    expected.push_back("SwTable 8: key: " + key + ", refreshRsrcPtrs: false");
    expected.push_back("SwTable 8: key: " + key);
    expected.push_back("SwTable 8: key: " + key + ", refresh: false");
    if constexpr (requires { this->entry(1).rsrcKeys.remarkProfileType; }) {
      expected.emplace_back("SwTable 3:  Setting clientData to: 0 ");
    }
  }
  expected.emplace_back("EntryLog 8:  neededEntry:{}, unitId: 0");
  expected.emplace_back("SwTable 8: ");
  expected.push_back(this->pending(true));
  EXPECT_EQ(events, expected);
}

TYPED_TEST(Traces, OfAReport) {
  const auto table = this->table();
  this->commit(table, 1);
  Events events;
  {
    const TestSupport::TraceWatch<TypeParam> traces(this->kTableAndLog, events);
    table->tableStatusVersion(Asic::LogVersion{1});
  }
  EXPECT_THAT(events, ElementsAre("SwTable 8: tableVersion: 1", "EntryLog 8:  version 1",
                                  "SwTable 3: Processing version: 1, key: " + this->text(1),
                                  "SwTable 8: ", this->pending(false)));
}

}  // namespace
