#include <gtest/gtest.h>

#include <optional>
#include <set>
#include <string>

#include "Asic/CanonicalTableName.h"
#include "Asic/Constants.h"
#include "KelpEmServer/KelpConstants.h"
#include "KelpEmServer/TableCatalogue.h"

// Where collections lie, and the names by which tables are known.

namespace {

using Asic::Constants;

TEST(StorePaths, TheGroupNameIsAgentAndGroup) {
  EXPECT_EQ(Constants::canonicalizeGroupName("KelpTunnelNi", "KelpEmServerGroup"),
            "KelpTunnelNi/KelpEmServerGroup");
  EXPECT_NE(Constants::canonicalizeGroupName("a", "b"), Constants::canonicalizeGroupName("b", "a"));
}

TEST(StorePaths, LieBelowTheGroup) {
  const Lumen::String group = Constants::canonicalizeGroupName("Agent", "Group");
  EXPECT_EQ(Constants::groupStatusPath(group), "orderedTable/Agent/Group/status");
  EXPECT_EQ(Constants::groupNeededPath(group, Asic::SwTableId{0x29080403}),
            "orderedTable/Agent/Group/needed/0403");
  EXPECT_EQ(Constants::canonicalGroupTableEntryLogQuiltPath(group, "Space", "Table"),
            "orderedTable/Agent/Group/tables/Space/Table/log");
  EXPECT_EQ(Constants::canonicalGroupTableConfigQuiltPathBase(group, "Space", "Table"),
            "orderedTable/Agent/Group/tables/Space/Table/config");
  EXPECT_EQ(Constants::configQuiltPath("base", Asic::UnitId{17}), "base/17");
}

TEST(StorePaths, EveryTableHasItsOwn) {
  std::set<Lumen::String> paths;
  KelpEmServer::AllTables::forEach([&](auto tag) {
    using Table = typename decltype(tag)::Table;
    using TableConstants = KelpEmServer::KelpConstants<Table>;
    const std::string name(Table::name.view());
    EXPECT_EQ(
        TableConstants::tableEntryLogQuiltPath(),
        "orderedTable/KelpTunnelNi/KelpEmServerGroup/tables/KelpEmServer/" + name + "Kelp/log");
    EXPECT_EQ(TableConstants::configQuiltPath(Asic::UnitId{65535}),
              "orderedTable/KelpTunnelNi/KelpEmServerGroup/tables/KelpEmServer/" + name +
                  "Kelp/config/65535");
    paths.insert(TableConstants::tableEntryLogQuiltPath());
    paths.insert(TableConstants::configQuiltPath(Asic::UnitId{0}));
  });
  EXPECT_EQ(paths.size(), 2 * KelpEmServer::AllTables::size());
}

TEST(UnitOfAConfigPath, ComesBackAsItWent) {
  for (const unsigned unit : {0U, 1U, 9U, 10U, 100U, 4095U, 65534U, 65535U}) {
    const Asic::UnitId unitId{static_cast<std::uint16_t>(unit)};
    const auto path = KelpEmServer::KelpConstants<KelpEmServer::Isem1Tag>::configQuiltPath(unitId);
    EXPECT_EQ(Constants::getUnitIdFromConfigPath(path), unitId) << path;
  }
}

TEST(UnitOfAConfigPath, IsNoneForAnythingElse) {
  for (const char* path : {"",
                           "/",
                           "7",
                           "a/b/config/",
                           "a/b/config/00",
                           "a/b/config/01",
                           "a/b/config/007",
                           "a/b/config/65536",
                           "a/b/config/70000",
                           "a/b/config/4294967296",
                           "a/b/config/18446744073709551616",
                           "a/b/config/-1",
                           "a/b/config/+1",
                           "a/b/config/ 1",
                           "a/b/config/1 ",
                           "a/b/config/1x",
                           "a/b/config/x1",
                           "a/b/config/0x1",
                           "a/b/config/1.5",
                           "a/b/config/1.quilt",
                           "a/b/config/1.quilt.aside.77",
                           "a/b/config/1.aside",
                           "a/b/config/1.register",
                           "a/b/config/one"}) {
    EXPECT_EQ(Constants::getUnitIdFromConfigPath(path), std::nullopt) << '"' << path << '"';
  }
  EXPECT_EQ(Constants::getUnitIdFromConfigPath(std::string_view("config/1\0002", 10)),
            std::nullopt);
}

TEST(CanonicalNames, AreBuiltByType) {
  using Asic::CanonicalTableName;
  using Asic::OrderedTableType;
  const auto name = [](int type, const char* group, const char* space, const char* table) {
    return Lumen::makeNode<CanonicalTableName>(static_cast<OrderedTableType>(type), group, space,
                                               table)
        ->name();
  };
  EXPECT_EQ(name(0, "KelpEmServerGroup", "KelpEmServer", "Isem1TagKelp"),
            "OrderedSwTable.KelpEmServerGroup.Isem1TagKelp");
  EXPECT_EQ(name(1, "KelpEmServerGroup", "KelpEmServer", "Isem1TagKelp"),
            "PartiallyOrderedSwTable.Isem1TagKelp");
  EXPECT_EQ(name(2, "", "KelpTunnelNiLib", "InLifIndex.featureKelpEmServer"),
            "ResourceTable.KelpTunnelNiLib::InLifIndex.featureKelpEmServer");
}

TEST(CanonicalNamesDeathTest, AnUndefinedTypeEndsTheProcessWithASentence) {
  const auto name = Lumen::makeNode<Asic::CanonicalTableName>(
      static_cast<Asic::OrderedTableType>(3), "g", "n", "t");
  EXPECT_DEATH((void)name->name(), "false: Table type undefined!");
  EXPECT_DEATH((void)name->name(), "Assertion `\"false\" == nullptr' failed");
}

}  // namespace
