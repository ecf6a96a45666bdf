#include <algorithm>

#include "BriskTrace/Reader.h"
#include "BriskTrace/TraceHandle.h"
#include "InterfaceFixture.h"

// How a table tells what it does: level traces under its own handles, and milestones in the ring
// buffer.

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

template <class T>
class TableTraces : public TestSupport::InterfaceFixture<T> {
 protected:
  void TearDown() override {
    BriskTrace::defaultBriskTraceHandle = nullptr;
    TestSupport::InterfaceFixture<T>::TearDown();
  }
  static std::vector<std::string> texts(BriskTrace::Reader& reader) {
    std::vector<std::string> all;
    for (const BriskTrace::Message& message : reader.newMessages()) {
      all.push_back(message.text);
    }
    return all;
  }
};
TYPED_TEST_SUITE(TableTraces, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(TableTraces, EachLevelIsSwitchedByItsOwnBit) {
  const auto table = this->table();
  this->commit(table, 1);
  TestSupport::TraceCapture traces("*KelpSwTable/3");
  (void)table->hasPendingHwWrites();
  ASSERT_EQ(traces.lines().size(), 1U) << "level 8 is off";
  EXPECT_EQ(traces.lines()[0].level, 3U);
  EXPECT_EQ(traces.lines()[0].text,
            fmt::format(" pendingHwWrites for swTable: tableId: {}, unitId0 is true",
                        TypeParam::tableId));
}

TYPED_TEST(TableTraces, ATablesHandlesAreItsOwn) {
  using Other = std::conditional_t<std::is_same_v<TypeParam, KelpEmServer::Isem2Tag>,
                                   KelpEmServer::IsemMpls, KelpEmServer::Isem2Tag>;
  const auto table = this->table();
  const auto other = KelpEmServer::KelpInterface<Other>::getIntf(this->agent_)
                         ->makeSwTable(this->unit0, nullptr, false);
  const std::string name(TypeParam::name.view());
  TestSupport::TraceCapture traces(name + "KelpEntryLog/*:" + name + "KelpSwTable/*:" + name +
                                   "KelpInterface/*");
  const auto otherKey = TestSupport::sampleKey<typename Other::Entry::Key>(1);
  (void)other->entryWrite(otherKey, TestSupport::sampleEntry<typename Other::Entry>(otherKey, 1),
                          nullptr);
  this->pass();
  EXPECT_THAT(traces.lines(), IsEmpty());
  (void)table->entryWrite(this->key(1), this->entry(1), nullptr);
  this->pass();
  EXPECT_FALSE(traces.lines().empty());
  for (const auto& line : traces.lines()) {
    EXPECT_EQ(line.handle.rfind(name + "Kelp", 0), 0U) << line.handle;
  }
}

TYPED_TEST(TableTraces, AllHandlesOfATableCarryItsName) {
  const auto table = this->table();
  this->commit(table, 1);
  for (auto iter = table->entryIteratorConst(); iter; ++iter) {
  }
  std::vector<std::string> names;
  Brio::TraceHandle::forEach([&](Brio::TraceHandle& handle) { names.push_back(handle.name()); });
  for (const char* unit : {"KelpEntryLog", "KelpInterface", "KelpSwTable"}) {
    EXPECT_GT(std::count(names.begin(), names.end(), this->tableText("", unit)), 0) << unit;
  }
  EXPECT_GT(std::count(names.begin(), names.end(), "SwTableIter"), 0);
}

TYPED_TEST(TableTraces, MilestonesGoToTheRingBufferAndToTheirLevel) {
  this->earlierRun(2);
  this->start(true);
  (void)this->intf();
  const std::string path = this->root_.path() + "/brisk";
  BriskTrace::TraceHandle ring(path);
  BriskTrace::Reader reader(path);
  BriskTrace::defaultBriskTraceHandle = &ring;
  TestSupport::TraceCapture traces("*KelpInterface/2:*KelpSwTable/6");
  const auto table = this->table();
  table->sweep();
  (void)this->intf()->makeSwTable(this->unit1, nullptr, true);
  const std::string restored =
      this->tableText(" Restored 2 entries for table: ", "Kelp, unitId: 0");
  const std::string clearing = this->tableText(" Clearing entries for table: ", "Kelp, unitId: 1");
  auto messages = reader.newMessages();
  ASSERT_EQ(messages.size(), 3U + 2 * this->linkages());
  // Each unit's table is linked to its resource tables first.
  std::erase_if(messages, [](const auto& message) {
    return message.function == "link" && message.text.starts_with(" ResourceTable: ");
  });
  ASSERT_EQ(messages.size(), 3U);
  EXPECT_EQ(messages[0].text, restored);
  EXPECT_EQ(messages[0].className, this->tableText("", "KelpInterface"));
  EXPECT_EQ(messages[0].function, "makeSwTable");
  EXPECT_THAT(messages[0].arguments, ElementsAre(2, 0));
  EXPECT_EQ(messages[1].text, "Swept 2 entries");
  EXPECT_EQ(messages[1].className, this->tableText("", "KelpSwTable"));
  EXPECT_EQ(messages[1].function, "sweep");
  EXPECT_EQ(messages[2].text, clearing);
  EXPECT_EQ(messages[2].className, this->tableText("", "KelpInterface"));
  ASSERT_EQ(traces.lines().size(), 3U + 2 * this->linkages());
  EXPECT_TRUE(traces.has(2, restored));
  EXPECT_TRUE(traces.has(6, "Swept 2 entries"));
  EXPECT_TRUE(traces.has(2, clearing));
}

TYPED_TEST(TableTraces, ASecondReportAtASiteBuildsNoNewDescriptor) {
  const std::string path = this->root_.path() + "/brisk";
  BriskTrace::TraceHandle ring(path);
  BriskTrace::Reader reader(path);
  BriskTrace::defaultBriskTraceHandle = &ring;
  const auto table = this->table();
  table->sweep();
  EXPECT_EQ(this->texts(reader).size(), 2U + this->linkages());
  const std::size_t descriptors = reader.descriptors();
  EXPECT_EQ(descriptors, 2U + this->linkages());
  table->sweep();
  (void)this->table(this->unit1);
  EXPECT_EQ(this->texts(reader).size(), 2U + this->linkages());
  EXPECT_EQ(reader.descriptors(), descriptors);
  // Another file knows nothing of it, and is told.
  const std::string other = this->root_.path() + "/other";
  BriskTrace::TraceHandle second(other);
  BriskTrace::Reader secondReader(other);
  BriskTrace::defaultBriskTraceHandle = &second;
  table->sweep();
  EXPECT_THAT(this->texts(secondReader), ElementsAre("Swept 0 entries"));
  EXPECT_EQ(secondReader.descriptors(), 1U);
}

TYPED_TEST(TableTraces, WithoutARingBufferTheLevelTracesAreMadeAllTheSame) {
  ASSERT_EQ(BriskTrace::defaultBriskTraceHandle, nullptr);
  TestSupport::TraceCapture traces("*KelpInterface/2:*KelpSwTable/6");
  const auto table = this->table();
  table->sweep();
  EXPECT_TRUE(traces.has(2, this->tableText(" Restored 0 entries for table: ", "Kelp, unitId: 0")));
  EXPECT_TRUE(traces.has(6, "Swept 0 entries"));
}

}  // namespace
