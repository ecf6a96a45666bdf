#include <gmock/gmock.h>

#include "StoreOfTable.h"

// Every command, on every table, for people and for programs.

namespace {

using KelpTest::Json;
using testing::HasSubstr;

template <class T>
class KelpShows : public KelpTest::StoreOfTable<T> {};
TYPED_TEST_SUITE(KelpShows, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(KelpShows, EveryEntryAsJsonThatAnIntentTakes) {
  using T = TypeParam;
  this->writeEntries(20);
  this->remove(3, 1);
  const auto run = this->kelpOn("entries", {"--json"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.err, "");
  const Json json = run.json();
  EXPECT_EQ(json["table"], T::name.view());
  EXPECT_EQ(json["shown"], 39U);
  EXPECT_EQ(json["beingDeleted"], 1U);
  ASSERT_EQ(json["entries"].size(), 39U);
  for (const Json& one : json["entries"]) {
    typename T::Entry::Key key{};
    Common::readKey<T>(one["key"], key, Common::Place{"key"});
    const auto& config = this->intf()->entryLog();
    const Asic::UnitId unit{one["unit"].template get<std::uint16_t>()};
    EXPECT_TRUE(config->entryHas(key, unit)) << one;
    EXPECT_EQ(one["version"], config->entryLogVersion(key, unit).value);
    EXPECT_EQ(one["reported"], false);
    typename T::Entry read;
    read.logEntry.key = key;
    if (one.contains("payload")) {
      Common::readPayload<T>(one["payload"], read.logEntry, Common::Place{"payload"});
    }
    if constexpr (Common::kFieldCount<typename T::Entry::ResourceKeys> != 0) {
      Common::readJson(one["resources"], read.rsrcKeys, Common::Place{"resources"}, 0);
      EXPECT_TRUE(read.rsrcKeys.isEq(config->entryRsrcKeys(key, unit))) << one;
    }
    EXPECT_TRUE(TestSupport::isAsked(config->entry(key, unit), read.logEntry)) << one;
  }
}

TYPED_TEST(KelpShows, EntriesAsAlignedColumns) {
  this->writeEntries(3);
  this->report(2);
  const auto run = this->kelpOn("entries", {"--unit", "0"});
  EXPECT_EQ(run.status, 0) << run.err;
  const auto lines = run.lines();
  ASSERT_EQ(lines.size(), 5U) << run.out;
  EXPECT_EQ(lines.back(), "3 entries");
  const std::size_t chip = lines[0].find("  chip");
  ASSERT_NE(chip, std::string::npos);
  unsigned reported = 0;
  for (std::size_t i = 1; i < 4; ++i) {
    const std::string state = lines[i].substr(chip + 2);
    reported += state.rfind("reported", 0) == 0 ? 1 : 0;
    EXPECT_THAT(state,
                testing::AnyOf(testing::StartsWith("reported"), testing::StartsWith("pending")))
        << run.out;
  }
  EXPECT_EQ(reported, 1U) << "unit 1 took version 2";
  const Json key = this->keyJson(0);
  for (const auto& [name, value] : key.items()) {
    EXPECT_THAT(lines[0], HasSubstr(" " + name));
  }
}

TYPED_TEST(KelpShows, EntriesThatHaveAValueInAField) {
  this->writeEntries(9);
  std::vector<std::string> arguments = {"--json", "--unit", "1"};
  const Json key = this->keyJson(4);
  for (const auto& [name, value] : key.items()) {
    arguments.insert(arguments.end(), {"--where", "key." + name + "=" + value.dump()});
  }
  const Json byKey = this->kelpOn("entries", arguments).json();
  ASSERT_EQ(byKey["entries"].size(), 1U);
  EXPECT_EQ(byKey["entries"][0]["key"], this->keyJson(4));
  EXPECT_EQ(byKey["entries"][0]["unit"], 1U);
  const Json byVersion = this->kelpOn("entries", {"--json", "--where", "version=7"}).json();
  ASSERT_EQ(byVersion["entries"].size(), 1U);
  EXPECT_EQ(byVersion["entries"][0]["version"], 7U);
  const auto none = this->kelpOn("entries", {"--where", "version=99"});
  EXPECT_EQ(none.status, 0);
  EXPECT_EQ(none.lines().back(), "0 entries");
}

TYPED_TEST(KelpShows, OneEntryFromTheWriteToTheReport) {
  this->writeEntries(4);
  const auto find = [&] {
    const auto run = this->kelpOn("entry", {this->keyText(1), "--json", "--unit", "1"});
    EXPECT_EQ(run.status, 0) << run.err;
    const Json json = run.json();
    EXPECT_EQ(json["key"], this->keyJson(1));
    EXPECT_EQ(json["units"].size(), 1U);
    return json["units"][0];
  };
  Json one = find();
  EXPECT_EQ(one["state"], "live");
  EXPECT_EQ(one["version"], 4U);
  EXPECT_EQ(one["unit"], 1U);
  EXPECT_EQ(one["log"]["op"], "write");
  EXPECT_EQ(one["log"]["version"], 4U);
  EXPECT_EQ(one["log"]["key"], this->keyJson(1));
  EXPECT_TRUE(one["chip"].is_null());
  this->report(3);
  EXPECT_EQ(find()["chip"], Json::parse(R"({"reported":3,"covered":false})"));
  this->report(4);
  one = find();
  EXPECT_EQ(one["chip"], Json::parse(R"({"reported":4,"covered":true})"));
  EXPECT_TRUE(one["log"].is_null()) << "cleaned up";
  this->remove(1, 1);
  one = find();
  EXPECT_EQ(one["state"], "beingDeleted");
  EXPECT_EQ(one["log"]["op"], "remove");
  this->report(9);
  EXPECT_EQ(this->kelpOn("entry", {this->keyText(1), "--unit", "1"}).status, 1);
}

TYPED_TEST(KelpShows, OneEntryInWordsOfEveryUnitThatHasIt) {
  this->writeEntries(2);
  this->report(1);
  const auto run = this->kelpOn("entry", {this->keyPairs(0, ",")});
  EXPECT_EQ(run.status, 0) << run.err;
  const std::string table(TypeParam::name.view());
  EXPECT_THAT(run.out, HasSubstr(table + " unit 0, "));
  EXPECT_THAT(run.out, HasSubstr(table + " unit 1, "));
  EXPECT_THAT(run.out, HasSubstr("state      live"));
  EXPECT_THAT(run.out, HasSubstr("has it: reported up to version 1"));
  EXPECT_THAT(run.out, HasSubstr("has not reported it yet: only up to version 1"));
  EXPECT_THAT(run.out, HasSubstr("write of version 2"));
  EXPECT_THAT(run.out, HasSubstr("not in the log any more"));
}

TYPED_TEST(KelpShows, TheLogInTheOrderOfVersions) {
  this->writeEntries(2);
  this->remove(1, 0);
  this->removeAll(1);
  const auto run = this->kelpOn("log", {"--json"});
  EXPECT_EQ(run.status, 0) << run.err;
  const auto lines = run.jsonLines();
  ASSERT_EQ(lines.size(), 6U) << run.out;
  for (std::size_t i = 0; i < 6; ++i) {
    EXPECT_EQ(lines[i]["version"], i + 1);
    EXPECT_EQ(lines[i]["op"], i < 4 ? "write" : i == 4 ? "remove" : "removeAll");
  }
  EXPECT_EQ(lines[3]["key"], this->keyJson(1));
  EXPECT_EQ(lines[3]["unit"], 1U);
  EXPECT_EQ(lines[4]["key"], this->keyJson(1));
  EXPECT_FALSE(lines[5].contains("key"));
  this->report(4);
  const auto rest = this->kelpOn("log").lines();
  ASSERT_EQ(rest.size(), 2U);
  EXPECT_THAT(rest[0], HasSubstr("5  unit 0      remove"));
  EXPECT_THAT(rest[1], HasSubstr("6  unit 1      removeAll  all entries"));
}

TYPED_TEST(KelpShows, HowFarTheChangesAre) {
  this->writeEntries(3);
  this->report(4);
  const auto run = this->kelp({"pending", "--json"});
  EXPECT_EQ(run.status, 0) << run.err;
  const Json json = run.json();
  EXPECT_EQ(json["tables"].size(), 8U);
  for (const Json& table : json["tables"]) {
    if (table["table"] == TypeParam::name.view()) {
      EXPECT_EQ(table["log"], Json::parse(R"({"issued":6,"published":6,"reported":4,"held":2,)"
                                          R"("capacity":1000000,"pending":2})"));
    } else {
      EXPECT_TRUE(table["log"].is_null()) << table;
    }
  }
  const auto text = this->kelp({"pending"});
  EXPECT_THAT(text.out, HasSubstr("log records held"));
  EXPECT_THAT(text.out,
              testing::ContainsRegex(std::string(TypeParam::name.view()) + " +6 +6 +4 +2 +2\n"));
  EXPECT_THAT(text.out, HasSubstr("no log"));
}

TYPED_TEST(KelpShows, TheTablesWithTheirUnits) {
  this->writeEntries(3);
  this->remove(0, 1);
  const Json json = this->kelp({"tables", "--json"}).json();
  for (const Json& table : json["tables"]) {
    if (table["table"] != TypeParam::name.view()) {
      EXPECT_TRUE(table["units"].empty());
      continue;
    }
    EXPECT_EQ(table["tableId"], fmt::format("{}", Asic::SwTableId(TypeParam::tableId)));
    EXPECT_EQ(table["units"], Json::parse(R"([
        {"unit":0,"entries":3,"beingDeleted":0,"capacity":65536,"whole":true},
        {"unit":1,"entries":2,"beingDeleted":1,"capacity":65536,"whole":true}])"));
  }
  const auto text = this->kelp({"tables"});
  EXPECT_EQ(text.status, 0);
  EXPECT_THAT(text.out, testing::ContainsRegex(std::string(TypeParam::name.view()) +
                                               " +29:08:040. +1 +2 +1 +65536\n"));
}

TYPED_TEST(KelpShows, ThatASoundStoreIsSound) {
  this->writeEntries(30);
  this->remove(2, 0);
  this->report(20);
  const auto run = this->kelp({"check", "--json"});
  EXPECT_EQ(run.status, 0) << run.out << run.err;
  const Json json = run.json();
  EXPECT_EQ(json["sound"], true);
  EXPECT_EQ(json["collections"].size(), 14U)
      << "status, log, needed and two units, and three of each resource table";
  // Entries that name resources name two of them.
  const unsigned records = 60U + 41U + 1U + (this->linkages() == 0 ? 0U : 4U);
  EXPECT_EQ(json["records"], records);
  this->stopAgent();
  const auto text = this->kelp({"check"});
  EXPECT_EQ(text.status, 0) << text.out;
  EXPECT_THAT(text.out, HasSubstr(fmt::format("14 collections, {} records: all sound", records)));
}

TYPED_TEST(KelpShows, ResourcesWithWhoHoldsThemAndWhatWaits) {
  this->writeEntries(2);
  const auto run = this->kelp({"resources", "--json"});
  EXPECT_EQ(run.status, 0) << run.err;
  const Json json = run.json();
  ASSERT_EQ(json["tables"].size(), 3U);
  unsigned held = 0;
  for (const Json& table : json["tables"]) {
    for (const Json& resource : table["resources"]) {
      ++held;
      EXPECT_EQ(resource["state"], "given out");
      EXPECT_EQ(resource["version"], 1U);
      EXPECT_NE(resource["index"], 0U);
      const unsigned index = resource["index"];
      EXPECT_EQ(resource["result"], table["resource"] == "inLifIndex"
                                        ? Json({2 * index - 1, 2 * index})
                                        : Json::array({index}));
      ASSERT_EQ(resource["clients"].size(), 1U) << "each unit names one of its own";
      EXPECT_EQ(resource["clients"][0]["table"], TypeParam::name.view());
      EXPECT_EQ(resource["clients"][0]["seen"], 1U);
    }
    EXPECT_TRUE(table["releases"].empty());
  }
  EXPECT_EQ(held, this->linkages() == 0 ? 0U : 2U);
  if (this->linkages() == 0) {
    return;
  }
  // The last users of one of the two go; the chip has not heard of it.
  this->remove(0, 1);
  this->remove(1, 1);
  const auto version = this->intf()->entryLog()->tableVersion().value;
  const auto text = this->kelp({"resources"});
  EXPECT_EQ(text.status, 0) << text.err;
  EXPECT_THAT(text.out, HasSubstr("given out"));
  EXPECT_THAT(text.out, HasSubstr(fmt::format("{} 0 (seen 1)", TypeParam::name.view())));
  EXPECT_THAT(text.out, HasSubstr(fmt::format("{} 1 at {}", TypeParam::name.view(), version)));
  this->report(version);
  EXPECT_THAT(this->kelp({"resources"}).out,
              testing::Not(HasSubstr(fmt::format("{} 1", TypeParam::name.view()))));
}

TYPED_TEST(KelpShows, AStoreWithoutLeavingATrace) {
  this->writeEntries(10);
  this->remove(2, 0);
  this->stopAgent();
  const auto before = KelpTest::imageOf(this->folder());
  for (const std::string command : {"tables", "pending", "check"}) {
    EXPECT_EQ(this->kelp({command}).status, 0);
  }
  for (const std::string command : {"entries", "log"}) {
    EXPECT_EQ(this->kelpOn(command).status, 0);
  }
  EXPECT_EQ(this->kelpOn("entry", {this->keyText(1)}).status, 0);
  EXPECT_EQ(KelpTest::imageOf(this->folder()), before);
}

}  // namespace
