#include <gmock/gmock.h>

#include <map>

#include "Lumen/MemTrack.h"
#include "TableTest.h"

namespace {

// Live objects by class, over all trackers of the process.
using Count = std::map<std::string, std::uint64_t>;

Count liveObjects() {
  Count count;
  Lumen::MemTrack::forEach(
      [&](const Lumen::MemTrack& tracker) { count[tracker.typeName()] += tracker.liveObjects(); });
  return count;
}
std::uint64_t allocations(const std::string& name) {
  std::uint64_t count = 0;
  Lumen::MemTrack::forEach([&](const Lumen::MemTrack& tracker) {
    if (tracker.typeName() == name) {
      count += tracker.allocations();
    }
  });
  return count;
}

template <class T>
class Memory : public TestSupport::TableTest<T> {
 protected:
  using Table = typename TestSupport::TableTest<T>::Table;

  // Operations of every kind, to their end. Every key is written again at last, so that no
  // version stays behind.
  void journey(const Lumen::Ptr<Table>& table) {
    for (std::uint64_t i = 0; i < 300; ++i) {
      this->write(table, i % 100, i);
      if (i % 3 == 0) {
        (void)table->entryRemoveWithResponseHandler(this->key(i % 100), nullptr,
                                                    [](const auto&) {});
      }
      if (i % 7 == 0) {
        (void)table->entryWrite(this->key(i % 100), this->entry(i % 100, i),
                                this->handleIn(table, 5));
      }
      if (i % 70 == 69) {
        table->entryRemoveAll(nullptr);
      }
      if (i % 40 == 39) {
        this->pass();
      }
    }
    for (std::uint64_t i = 0; i < 100; ++i) {
      this->write(table, i);
    }
    this->pass();
    for (std::uint64_t i = 0; i < 100; ++i) {
      this->remove(table, i);
    }
    this->pass();
    table->tableStatusVersion(this->log()->tableVersion());
    this->resources_.work();
    ASSERT_FALSE(table->hasPendingHwWrites());
    ASSERT_TRUE(table->transientVersionForKey().empty());
  }
};
TYPED_TEST_SUITE(Memory, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(Memory, EveryObjectInFlightIsGoneAfterTheJourney) {
  const auto table = this->table();
  this->journey(table);
  const Count before = liveObjects();
  this->journey(table);
  for (const auto& [name, live] : liveObjects()) {
    const auto found = before.find(name);
    EXPECT_EQ(live, found == before.end() ? 0U : found->second) << name;
  }
  const std::string prefix = std::string(TypeParam::name.view()) + "Kelp";
  const Count after = liveObjects();
  EXPECT_EQ(after.at(prefix + "SwTable::EntryHandle"), 0U);
  EXPECT_EQ(after.at(prefix + "EntryWrapper"), 0U);
  EXPECT_EQ(after.at(prefix + "ResolverEntry"), 0U);
  EXPECT_EQ(after.at("NeededEntry"), 0U);
}

TYPED_TEST(Memory, AnOperationInFlightIsOneHandleOneWrapperAndOneResolverEntry) {
  const auto table = this->table();
  const std::string prefix = std::string(TypeParam::name.view()) + "Kelp";
  const Count before = liveObjects();
  this->write(table, 1);
  const Count during = liveObjects();
  for (const char* name : {"SwTable::EntryHandle", "EntryWrapper", "ResolverEntry"}) {
    EXPECT_EQ(during.at(prefix + name), before.at(prefix + name) + 1) << name;
  }
  this->pass();
  const Count after = liveObjects();
  EXPECT_EQ(after.at(prefix + "SwTable::EntryHandle"),
            before.at(prefix + "SwTable::EntryHandle") + 1)
      << "it waits for the report";
  EXPECT_EQ(after.at(prefix + "EntryWrapper"), before.at(prefix + "EntryWrapper"));
  EXPECT_EQ(after.at(prefix + "ResolverEntry"), before.at(prefix + "ResolverEntry"));
}

TYPED_TEST(Memory, ATableThatGoesTakesWhatIsInFlightAlong) {
  const std::string prefix = std::string(TypeParam::name.view()) + "Kelp";
  {
    const auto table = this->table();
    this->commit(table, 1);
    for (std::uint64_t i = 0; i < 50; ++i) {
      this->write(table, i);
      this->remove(table, i + 1);
    }
    table->entryRemoveAll(nullptr);
    this->write(table, 3);
  }
  const auto resolver = this->group()->groupResolver();
  EXPECT_EQ(resolver->size(), 102U);
  this->stop();
  EXPECT_EQ(resolver->size(), 0U);
  const Count after = liveObjects();
  for (const char* name : {"SwTable", "SwTable::EntryHandle", "EntryWrapper", "ResolverEntry",
                           "EntryLog", "Interface", "SwTableHelperBase"}) {
    EXPECT_EQ(after.at(prefix + name), 0U) << name;
  }
}

TYPED_TEST(Memory, AcceptingAWriteMakesNothingElse) {
  const auto table = this->table();
  this->write(table, 1);
  const std::string prefix = std::string(TypeParam::name.view()) + "Kelp";
  const auto handles = allocations(prefix + "SwTable::EntryHandle");
  const auto wrappers = allocations(prefix + "EntryWrapper");
  const auto needed = allocations("NeededEntry");
  for (std::uint64_t i = 0; i < 10; ++i) {
    this->write(table, 1);
  }
  EXPECT_EQ(allocations(prefix + "SwTable::EntryHandle"), handles + 10);
  EXPECT_EQ(allocations(prefix + "EntryWrapper"), wrappers + 10);
  EXPECT_EQ(allocations("NeededEntry"), needed);
}

}  // namespace
