#include <gmock/gmock.h>

#include "TableTest.h"

// Tables that name no resource.

namespace {

using testing::ElementsAre;
using TestSupport::TraceCapture;

using UnlinkedTables = testing::Types<KelpEmServer::EsemFodo
#ifndef KELP_FEW_TABLES
                                      ,
                                      KelpEmServer::IsemInnerEth, KelpEmServer::LemVpwsAc
#endif
                                      >;

template <class T>
class Unlinked : public TestSupport::TableTest<T> {
 protected:
  using Fixture = TestSupport::TableTest<T>;
  using typename Fixture::Table;

  // Has another entry logged than the one that is there, unless it refuses.
  class Changer final : public Table::Helper {
   public:
    bool finalizeOnResourceUpdate(const Lumen::Ptr<typename Fixture::Wrapper>& wrapper,
                                  const Lumen::Ptr<Table>&, bool resourceFailed) override {
      failed.push_back(resourceFailed);
      const_cast<typename T::Entry::LogEntry&>(wrapper->logEntry()) = other;
      return takes;
    }
    std::vector<bool> failed;
    typename T::Entry::LogEntry other;
    bool takes = true;
  };
};
TYPED_TEST_SUITE(Unlinked, UnlinkedTables, TestSupport::TableTestName);

TYPED_TEST(Unlinked, AnUpdateChecksNoResourceAndTellsTheHelperOfNoFailure) {
  const auto table = this->table();
  this->commit(table, 1);
  const auto helper = Lumen::makeNode<typename TestFixture::Changer>();
  helper->other = this->entry(1, 1).logEntry;
  helper->takes = false;
  table->swTableHelperIs(helper);
  const TraceCapture traces(std::string(TestFixture::Table::className()) + "/3");
  EXPECT_NE(table->updateEntry(this->key(1)), nullptr);
  EXPECT_EQ(this->tableVersion(), 1U);
  EXPECT_TRUE(traces.has(3, fmt::format(" key: {}, commitToLog: {}, no change in logEntry or don't "
                                        "commit to log",
                                        this->key(1), false)));
  helper->takes = true;
  const auto handle = table->updateEntry(this->key(1));
  ASSERT_NE(handle, nullptr);
  EXPECT_THAT(helper->failed, ElementsAre(false, false));
  EXPECT_EQ(this->tableVersion(), 2U);
  EXPECT_TRUE(this->logRecord(2).logEntry.isEq(helper->other));
  EXPECT_EQ(table->stats()->updateCnt(), 1U);
  EXPECT_EQ(table->stats()->updateWithFailedResourceCnt(), 0U);
  for (const auto& line : traces.lines()) {
    EXPECT_THAT(line.text, testing::Not(testing::HasSubstr("resource")));
  }
}

TYPED_TEST(Unlinked, AnUpdateOfAnAbsentKeyMovesNoCounter) {
  const auto table = this->table();
  EXPECT_EQ(table->updateEntry(this->key(1)), nullptr);
  EXPECT_EQ(table->stats()->updateCnt(), 0U);
  EXPECT_EQ(table->stats()->updateWithFailedResourceCnt(), 0U);
}

TYPED_TEST(Unlinked, SettingTheHandlesOnlyTraces) {
  const auto table = this->table();
  const auto wrapper = TestFixture::Wrapper::KelpEntryWrapperIs(
      this->entry(1), TestFixture::Table::entryHandleFactory({}, this->key(1), table.get()));
  const TraceCapture traces("*/8");
  table->setRsrcPtrs(wrapper, true);
  ASSERT_EQ(traces.lines().size(), 1U);
  EXPECT_EQ(traces.lines()[0].text, fmt::format("key: {}, refresh: {}", this->key(1), true));
}

}  // namespace
