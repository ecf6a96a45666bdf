#include <gmock/gmock.h>

#include <set>

#include "Asic/SwTableInterfacesSingleton.h"
#include "TableTest.h"

namespace {

using testing::ElementsAre;
using testing::IsSupersetOf;

// What the catalogue says of each table, in numbers and texts.
struct Row {
  std::string_view name;
  std::uint32_t tableId;
  std::uint32_t decimal;
};
constexpr Row kRows[] = {
    {"EsemFodo", 0x29080401, 688391169},     {"EsemFodoVd", 0x29080402, 688391170},
    {"Isem1Tag", 0x29080403, 688391171},     {"Isem2Tag", 0x29080404, 688391172},
    {"IsemInnerEth", 0x29080405, 688391173}, {"IsemMpls", 0x29080406, 688391174},
    {"IsemUntagged", 0x29080407, 688391175}, {"LemVpwsAc", 0x29080408, 688391176},
};

TEST(Catalogue, HoldsTheEightTablesWithTheirIds) {
  std::size_t at = 0;
  KelpEmServer::AllTables::forEach([&](auto tag) {
    using Table = typename decltype(tag)::Table;
    ASSERT_LT(at, std::size(kRows));
    EXPECT_EQ(Table::name.view(), kRows[at].name);
    EXPECT_EQ(Table::tableId.value, kRows[at].tableId);
    EXPECT_EQ(Table::tableId.value, kRows[at].decimal);
    ++at;
  });
  EXPECT_EQ(at, 8U);
  EXPECT_EQ(KelpEmServer::AllTables::size(), 8U);
  EXPECT_STREQ(KelpEmServer::kGroupName, "KelpEmServerGroup");
  EXPECT_STREQ(KelpEmServer::kAgentName, "KelpTunnelNi");
  EXPECT_STREQ(KelpEmServer::kTableNamespace, "KelpEmServer");
}

TEST(Catalogue, GivesEveryCollectionASaltOfItsOwn) {
  std::set<std::uint32_t> salts;
  KelpEmServer::AllTables::forEach([&](auto tag) {
    constexpr auto one = decltype(tag)::Table::salts;
    salts.insert({one.transientAddEntry, one.transientRemoveEntry, one.transientVersionForKey,
                  one.markedKey, one.tableConfigQuilt, one.tableEntries});
  });
  EXPECT_EQ(salts.size(), 8U * 6U);
}

// The exported factories of a table. Their names are what differs.
template <class T>
struct Factories;
#define KELP_TEST_FACTORIES(Name, name)                                                         \
  template <>                                                                                   \
  struct Factories<KelpEmServer::Name> {                                                        \
    static constexpr auto swTable = &KelpEmServer::name##KelpSwTableFactory;                    \
    static constexpr auto iteratorState = &KelpEmServer::name##KelpSwTableIteratorStateFactory; \
    static constexpr auto helper = &KelpEmServer::name##KelpSwTableHelperBaseFactory;           \
    static constexpr auto entryLog = &KelpEmServer::name##KelpEntryLogFactory;                  \
    static constexpr auto wrapper = &KelpEmServer::name##KelpEntryWrapperFactory;               \
    static constexpr auto resolverEntry = &KelpEmServer::name##KelpResolverEntryFactory;        \
  }
KELP_TEST_FACTORIES(EsemFodo, esemFodo);
KELP_TEST_FACTORIES(EsemFodoVd, esemFodoVd);
KELP_TEST_FACTORIES(Isem1Tag, isem1Tag);
KELP_TEST_FACTORIES(Isem2Tag, isem2Tag);
KELP_TEST_FACTORIES(IsemInnerEth, isemInnerEth);
KELP_TEST_FACTORIES(IsemMpls, isemMpls);
KELP_TEST_FACTORIES(IsemUntagged, isemUntagged);
KELP_TEST_FACTORIES(LemVpwsAc, lemVpwsAc);
#undef KELP_TEST_FACTORIES

template <class T>
class CatalogueTables : public TestSupport::TableTest<T> {
 protected:
  static std::string name(const char* suffix = "") {
    return std::string(T::name.view()) + "Kelp" + suffix;
  }
};
TYPED_TEST_SUITE(CatalogueTables, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(CatalogueTables, TheInterfaceCarriesTheNames) {
  const auto intf = this->intf();
  EXPECT_EQ(intf->tableName(), this->name());
  EXPECT_EQ(intf->groupName(), "KelpEmServerGroup");
  EXPECT_EQ(intf->agentName(), "KelpTunnelNi");
  EXPECT_EQ(intf->tableNamespace(), "KelpEmServer");
  EXPECT_EQ(intf->tableId(), TypeParam::tableId);
  EXPECT_TRUE(Asic::SwTableInterfacesSingleton::instance()->swTableIntfHas(
      "KelpEmServer::" + this->name("Interface")));
}

TYPED_TEST(CatalogueTables, TheCanonicalNameIsTheSameForEveryUnit) {
  const std::string expected = "OrderedSwTable.KelpEmServerGroup." + this->name();
  EXPECT_EQ(this->table()->canonicalName()->name(), expected);
  EXPECT_EQ(this->table(this->unit1)->canonicalName()->name(), expected);
  EXPECT_EQ(this->table()->canonicalName()->type(), Asic::OrderedTableType::orderedSwTable);
}

TYPED_TEST(CatalogueTables, ClassesAreNamedAfterTheTable) {
  using T = TypeParam;
  EXPECT_EQ(KelpEmServer::KelpInterface<T>::className(), this->name("Interface"));
  EXPECT_EQ(KelpEmServer::KelpSwTable<T>::className(), this->name("SwTable"));
  EXPECT_EQ(KelpEmServer::KelpSwTable<T>::EntryHandle::className(),
            this->name("SwTable::EntryHandle"));
  EXPECT_EQ(KelpEmServer::KelpSwTableIteratorState<T>::className(),
            this->name("SwTableIteratorState"));
  EXPECT_EQ(KelpEmServer::KelpSwTableHelperBase<T>::className(), this->name("SwTableHelperBase"));
  EXPECT_EQ(KelpEmServer::KelpEntryLog<T>::className(), this->name("EntryLog"));
  EXPECT_EQ(KelpEmServer::KelpEntryWrapper<T>::className(), this->name("EntryWrapper"));
  EXPECT_EQ(KelpEmServer::KelpResolverEntry<T>::className(), this->name("ResolverEntry"));
}

TYPED_TEST(CatalogueTables, TraceHandlesAreNamedAfterTheUnitThatTraces) {
  const auto table = this->table();
  this->commit(table, 1);
  (void)table->entryIteratorConst();
  std::set<std::string> names;
  Brio::TraceHandle::forEach([&](Brio::TraceHandle& handle) { names.insert(handle.name()); });
  EXPECT_THAT(names, IsSupersetOf({this->name("Interface"), this->name("SwTable"),
                                   this->name("EntryLog"), std::string("SwTableIter")}));
}

TYPED_TEST(CatalogueTables, EveryTableAndUnitHasAPathOfItsOwn) {
  std::set<std::string> paths;
  KelpEmServer::AllTables::forEach([&](auto tag) {
    using Constants = KelpEmServer::KelpConstants<typename decltype(tag)::Table>;
    paths.insert(Constants::tableEntryLogQuiltPath());
    for (std::uint16_t unit = 0; unit < 3; ++unit) {
      paths.insert(Constants::configQuiltPath(Asic::UnitId{unit}));
    }
  });
  EXPECT_EQ(paths.size(), 8U * 4U);
  (void)this->table(this->unit1);
  EXPECT_NE(
      this->memory()->getEntity(KelpEmServer::KelpConstants<TypeParam>::tableEntryLogQuiltPath()),
      nullptr);
  EXPECT_NE(this->memory()->getEntity(
                KelpEmServer::KelpConstants<TypeParam>::configQuiltPath(this->unit1)),
            nullptr);
}

TYPED_TEST(CatalogueTables, EachClassHasItsExportedFactory) {
  using Make = Factories<TypeParam>;
  using Table = typename TestFixture::Table;
  const auto table = this->table();
  const auto helper = Make::helper();
  EXPECT_NE(helper, nullptr);
  EXPECT_NE(Make::iteratorState(), nullptr);

  const auto handle = Table::entryHandleFactory({2, 3}, this->key(4), table.get());
  EXPECT_TRUE(handle->version().isEq({2, 3}));
  EXPECT_EQ(handle->key(), this->key(4));
  EXPECT_TRUE(Table::EntryHandleIs({2, 3}, this->key(4), table.get())->version().isEq({2, 3}));
  const auto wrapper = Make::wrapper(this->entry(4), handle);
  EXPECT_TRUE(TestSupport::isAsked(wrapper->entry(), this->entry(4)));
  EXPECT_EQ(wrapper->entryHandle().get(), handle.get());
  const auto gate = this->handleIn(table, 0);
  const auto entry =
      Make::resolverEntry(gate, Asic::EntryFlags::entryDeleted, table.get(), wrapper);
  EXPECT_EQ(entry->dependency().get(), gate.get());
  EXPECT_EQ(entry->swTable(), table.get());
  EXPECT_EQ(entry->swTableEntry(), wrapper);
  EXPECT_TRUE(entry->isEntryDeleted());

  const auto log = Make::entryLog(TypeParam::tableId, this->vault_, this->group(), "KelpTunnelNi");
  EXPECT_EQ(log->tableId(), TypeParam::tableId);
  EXPECT_EQ(log->agentName(), "KelpTunnelNi");
  const auto second =
      Make::swTable(table->canonicalName(), TypeParam::tableId, Asic::UnitId{5},
                    this->intf()->swTableSet().get(), this->log(), this->group()->groupResolver());
  EXPECT_EQ(second->unitId().value, 5);
  EXPECT_EQ(second->entryLog(), this->log());
  EXPECT_NE(second->swTableHelper(), nullptr);
}

}  // namespace
