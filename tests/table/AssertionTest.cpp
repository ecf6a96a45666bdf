#include <gmock/gmock.h>

#include "TableTest.h"

namespace {

using Asic::EntryFlags;
using Asic::EntryVersion;
using TestSupport::assertion;

// What must never be, and how the process ends if it is.
template <class T>
class TableAssertionDeathTest : public TestSupport::TableTest<T> {
 protected:
  using Base = TestSupport::TableTest<T>;

  Lumen::Ptr<Asic::ResolverEntry> operation(const Lumen::Ptr<typename Base::Table>& table,
                                            EntryFlags flags, const EntryVersion& version,
                                            bool withHandle = true) {
    Lumen::Ptr<Asic::OrderedSwTable::EntryHandle> handle;
    if (withHandle) {
      handle = Base::Table::entryHandleFactory(version, this->key(1), table.get());
    }
    return Base::Resolver::KelpResolverEntryIs(
        nullptr, flags, table.get(), Base::Wrapper::KelpEntryWrapperIs(this->entry(1), handle));
  }
};
TYPED_TEST_SUITE(TableAssertionDeathTest, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(TableAssertionDeathTest, ARemoveAndARemoveAllAtOnce) {
  const auto table = this->table();
  const auto both =
      this->operation(table, EntryFlags::entryDeleted | EntryFlags::tableDeleted, EntryVersion());
  EXPECT_DEATH(both->commitEntry(both), assertion("!( isEntryDelete && isTableDelete )"));
}

TYPED_TEST(TableAssertionDeathTest, AnOperationWithoutAHandle) {
  const auto table = this->table();
  const auto orphan = this->operation(table, EntryFlags::none, EntryVersion(), false);
  EXPECT_DEATH(orphan->commitEntry(orphan), assertion("entryHandle != NULL"));
}

TYPED_TEST(TableAssertionDeathTest, AWriteOrARemoveOfAnInvalidVersion) {
  const auto table = this->table();
  for (const EntryFlags flags : {EntryFlags::none, EntryFlags::entryDeleted}) {
    const auto invalid = this->operation(table, flags, EntryVersion::invalid());
    EXPECT_DEATH(invalid->commitEntry(invalid), assertion("entryConfVersion.valid()"));
  }
}

TYPED_TEST(TableAssertionDeathTest, ARemoveAllMayHaveAnInvalidVersion) {
  const auto table = this->table();
  table->transientRemoveAllVersionIs(Asic::MajorVersion{0});
  const auto removeAll = this->operation(table, EntryFlags::tableDeleted, EntryVersion::invalid());
  removeAll->commitEntry(removeAll);
  EXPECT_FALSE(table->transientRemoveAllVersion().valid());
}

TYPED_TEST(TableAssertionDeathTest, ARemoveAllThatNobodyCounted) {
  const auto table = this->table();
  const auto removeAll = this->operation(table, EntryFlags::tableDeleted, EntryVersion());
  EXPECT_DEATH(removeAll->commitEntry(removeAll), assertion("currRemoveAllVersion.valid()"));
}

TYPED_TEST(TableAssertionDeathTest, AnInvalidVersionOfAKeyInFlight) {
  const auto table = this->table();
  table->transientVersionForKeyIs(this->key(1), EntryVersion::invalid());
  EXPECT_DEATH((void)this->write(table, 1), assertion("currEntryVersion.valid()"));
  EXPECT_DEATH((void)this->remove(table, 1), assertion("currEntryVersion.valid()"));
}

}  // namespace
