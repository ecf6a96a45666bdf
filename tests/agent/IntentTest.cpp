#include "common/Intent.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>

#include "KelpEmServer/TableCatalogue.h"
#include "SampleEntries.h"
#include "common/EntryJson.h"
#include "common/ResourceEvent.h"

namespace {

using Common::Intent;
using Common::IntentOp;
using testing::HasSubstr;
using testing::StartsWith;

// What is said about a line; empty if it is taken.
std::string errorOf(const std::string& line) {
  try {
    (void)Common::parseIntent(line);
    return "";
  } catch (const Common::InputError& error) {
    return error.what();
  }
}

std::string errorOfEvent(const std::string& line) {
  try {
    (void)Common::parseResourceEvent(line);
    return "";
  } catch (const Common::InputError& error) {
    return error.what();
  }
}

std::string textOf(const Intent& intent) {
  std::string text;
  Common::appendIntent(text, intent);
  return text;
}

// A write of Isem1Tag with `rest` behind its unit.
std::string isem1(const std::string& rest) {
  return R"({"op":"write","table":"Isem1Tag","unit":0,)" + rest + "}";
}
std::string vlanEdit(const std::string& edit) {
  return R"({"op":"write","table":"EsemFodoVd","unit":0,"key":{"fodo":1,"vlanDomain":2,"port":3},)"
         R"("resources":{"vlanEditProfileKey":)" +
         edit + "}}";
}

template <class T>
class IntentOfTable : public testing::Test {};
using AllTables =
    testing::Types<KelpEmServer::EsemFodo, KelpEmServer::EsemFodoVd, KelpEmServer::Isem1Tag,
                   KelpEmServer::Isem2Tag, KelpEmServer::IsemInnerEth, KelpEmServer::IsemMpls,
                   KelpEmServer::IsemUntagged, KelpEmServer::LemVpwsAc>;
TYPED_TEST_SUITE(IntentOfTable, AllTables);

TYPED_TEST(IntentOfTable, ReadsBackAsItWasWritten) {
  using Entry = typename TypeParam::Entry;
  using Key = typename Entry::Key;
  for (std::uint64_t number = 0; number < 5000; number += 7) {
    Intent intent;
    intent.unit = Asic::UnitId{static_cast<std::uint16_t>(number)};
    auto& entry = intent.entry.emplace<Common::EntryOf<TypeParam>>().entry;
    entry = TestSupport::sampleEntry<Entry>(TestSupport::sampleKey<Key>(number), number % 99);
    if (number % 2 == 0) {
      intent.after = Common::EntryName{
          Asic::UnitId{1}, Common::KeyOf<TypeParam>{TestSupport::sampleKey<Key>(number + 1)}};
    }
    const Intent read = Common::parseIntent(textOf(intent));
    EXPECT_EQ(read.op, IntentOp::write);
    EXPECT_EQ(read.unit, intent.unit);
    ASSERT_EQ(read.table(), Common::tableNumber<TypeParam>());
    EXPECT_TRUE(std::get<Common::EntryOf<TypeParam>>(read.entry).entry.isEq(entry));
    ASSERT_EQ(read.after.has_value(), intent.after.has_value());
    if (read.after) {
      EXPECT_EQ(read.after->key, intent.after->key);
      EXPECT_EQ(read.after->unit, intent.after->unit);
    }
    EXPECT_EQ(textOf(read), textOf(intent));
  }
}

TYPED_TEST(IntentOfTable, RemovesAreReadToo) {
  using Key = typename TypeParam::Entry::Key;
  const auto key = TestSupport::sampleKey<Key>(77);
  Intent intent;
  intent.op = IntentOp::remove;
  intent.entry.emplace<Common::EntryOf<TypeParam>>().entry.logEntry.key = key;
  const Intent read = Common::parseIntent(textOf(intent));
  EXPECT_EQ(read.op, IntentOp::remove);
  EXPECT_TRUE(Common::keyOf(read.entry) == Common::AnyKey(Common::KeyOf<TypeParam>{key}));
  intent.op = IntentOp::removeAll;
  EXPECT_EQ(Common::parseIntent(textOf(intent)).op, IntentOp::removeAll);
}

TYPED_TEST(IntentOfTable, TheDefaultEntryIsRefused) {
  using Entry = typename TypeParam::Entry;
  Intent intent;
  intent.entry.emplace<Common::EntryOf<TypeParam>>();
  // The default label lies outside of the labels that can be written.
  const bool keyRefused = std::is_same_v<TypeParam, KelpEmServer::IsemMpls>;
  EXPECT_THAT(errorOf(textOf(intent)),
              StartsWith(keyRefused ? std::string("key.label is 1048576")
                                    : "the entry equals the default entry of " +
                                          std::string(TypeParam::name.view())));
  // The same key with another value is an entry.
  auto& entry = std::get<Common::EntryOf<TypeParam>>(intent.entry).entry;
  entry = TestSupport::sampleEntry<Entry>(typename Entry::Key{}, 3);
  EXPECT_EQ(errorOf(textOf(intent)).empty(), !keyRefused);
}

TYPED_TEST(IntentOfTable, EveryKeyFieldIsAskedForAndHasItsRange) {
  using Entry = typename TypeParam::Entry;
  Intent intent;
  auto& entry = intent.entry.emplace<Common::EntryOf<TypeParam>>().entry;
  entry = TestSupport::sampleEntry<Entry>(TestSupport::sampleKey<typename Entry::Key>(5), 1);
  const Common::Json whole = Common::Json::parse(textOf(intent));
  for (const auto& [field, value] : whole["key"].items()) {
    Common::Json json = whole;
    json["key"].erase(field);
    EXPECT_THAT(errorOf(json.dump()),
                StartsWith("key." + field + " is missing: write a whole number from 0 to "));
    json["key"][field] = 0x100000000;
    EXPECT_THAT(errorOf(json.dump()),
                StartsWith("key." + field + " is 4294967296: write a whole number from 0 to "));
    for (const Common::Json& wrong : {Common::Json(-1), Common::Json(1.5), Common::Json("1"),
                                      Common::Json(true), Common::Json(nullptr)}) {
      json["key"][field] = wrong;
      EXPECT_THAT(errorOf(json.dump()), StartsWith("key." + field + " is " + wrong.dump() + ": "));
    }
  }
}

TEST(Intent, ResolvedFieldsAreNoPayload) {
  const auto countOf = [](const auto& payload) {
    return std::count(payload.begin(), payload.end(), true);
  };
  EXPECT_EQ(countOf(Common::payloadFields<KelpEmServer::Isem1Tag>()), 0);
  EXPECT_EQ(countOf(Common::payloadFields<KelpEmServer::IsemMpls>()), 0);
  EXPECT_EQ(countOf(Common::payloadFields<KelpEmServer::LemVpwsAc>()), 5);
  EXPECT_EQ(countOf(Common::payloadFields<KelpEmServer::EsemFodo>()), 2);
  EXPECT_EQ(countOf(Common::payloadFields<KelpEmServer::EsemFodoVd>()), 2);
}

TEST(Intent, BlankLinesAndCommentsHoldNone) {
  EXPECT_TRUE(Common::isBlankOrComment(""));
  EXPECT_TRUE(Common::isBlankOrComment(" \t\r"));
  EXPECT_TRUE(Common::isBlankOrComment("  # {"));
  EXPECT_FALSE(Common::isBlankOrComment(" {}"));
}

TEST(Intent, WhatIsNoJsonIsRefusedWithItsColumn) {
  EXPECT_THAT(errorOf(R"({"op":"wr)"), StartsWith("not JSON, column 10: "));
  EXPECT_THAT(errorOf("{} {}"), StartsWith("not JSON, column 4: "));
  EXPECT_THAT(errorOf("nonsense"),
              AllOf(StartsWith("not JSON, column 2: "), HasSubstr(": write one object on a line")));
  EXPECT_THAT(errorOf(R"({"op":1e999})"), StartsWith("not JSON, number overflow"));
  EXPECT_THAT(errorOf("[1]"), StartsWith("[1] is no object: "));
  EXPECT_THAT(errorOf("null"), StartsWith("null is no object: "));
}

TEST(Intent, OddBytesAreShownAsAscii) {
  for (const std::string& line :
       {std::string("{\"op\":\"\xff\xfe\"}"), std::string("\0\x01", 2),
        std::string("{\"op\":\"\\u0007\x1b[31m\"}"), std::string(R"({"op":"\u00e9\ud83d\ude00"})"),
        "{\"" + std::string(60000, 'x') + "\":1}"}) {
    const std::string error = errorOf(line);
    EXPECT_FALSE(error.empty());
    EXPECT_LT(error.size(), 2000U);
    EXPECT_TRUE(std::all_of(error.begin(), error.end(), [](char c) {
      return c >= ' ' && c <= '~';
    })) << error;
  }
}

TEST(Intent, DeepNestingIsRefused) {
  const std::string deep = std::string(60000, '[') + std::string(60000, ']');
  EXPECT_THAT(errorOf(deep), StartsWith("nested deeper than 8 levels"));
  EXPECT_THAT(errorOf(isem1(R"("key":{"port":)" + deep + "}")), StartsWith("nested deeper"));
}

TEST(Intent, ANameThatStandsTwiceIsRefused) {
  EXPECT_EQ(errorOf(isem1(R"("key":{"port":3,"vlan":1,"port":4})")),
            "\"port\" stands twice: write it once");
  // The same name in two objects is no repetition.
  EXPECT_EQ(errorOf(isem1(R"("key":{"port":3,"vlan":1},"resources":{"outerVlan":1},)"
                          R"("after":{"table":"Isem1Tag","unit":0,"key":{"port":3,"vlan":2}})")),
            "");
}

TEST(Intent, WhatIsMissingOrUnknownIsNamed) {
  const std::string ops = R"(write "write", "remove", "removeAll" or "resource")";
  EXPECT_EQ(errorOf("{}"), "op is missing: " + ops);
  EXPECT_EQ(errorOf(R"({"op":"wrote"})"), "op is \"wrote\": " + ops);
  EXPECT_EQ(errorOf(R"({"op":5})"), "op is 5: " + ops);
  EXPECT_THAT(errorOf(R"({"op":"removeAll"})"),
              StartsWith(R"(table is missing: write "EsemFodo", )"));
  EXPECT_THAT(errorOf(R"({"op":"removeAll","table":"Isem3Tag","unit":0})"),
              AllOf(StartsWith(R"(table is "Isem3Tag": write )"), HasSubstr(R"("LemVpwsAc")")));
  EXPECT_EQ(errorOf(R"({"op":"removeAll","table":"Isem1Tag"})"),
            "unit is missing: write the number of a chip unit, such as 0");
  EXPECT_EQ(errorOf(R"({"op":"removeAll","table":"Isem1Tag","unit":65536})"),
            "unit is 65536: write a whole number from 0 to 65535");
  EXPECT_EQ(errorOf(isem1(R"("payload":{})")),
            R"(key is missing: write an object such as {"port":0,"vlan":0})");
  EXPECT_EQ(errorOf(isem1(R"("key":7)")), "key is 7: write an object, {...}");
  EXPECT_EQ(errorOf(isem1(R"("key":{"port":1,"vlna":1})")),
            R"(key.vlna is unknown: leave it out, or write "port" or "vlan")");
  EXPECT_EQ(errorOf(R"({"op":"remove","table":"EsemFodo","unit":0,"key":{"port":5}})"),
            R"(key.port is unknown: leave it out, or write "fodo")");
}

TEST(Intent, WhatDoesNotBelongToTheOperationIsRefused) {
  EXPECT_EQ(errorOf(isem1(R"("key":{"port":1,"vlan":2},"paylaod":{})")),
            "\"paylaod\" is no part of a write, which has op, table, unit, key, resources, payload "
            "and after: leave it out");
  EXPECT_THAT(
      errorOf(R"({"op":"remove","table":"EsemFodo","unit":0,"key":{"fodo":5},"payload":{}})"),
      StartsWith("\"payload\" is no part of a remove"));
  EXPECT_THAT(errorOf(R"({"op":"removeAll","table":"EsemFodo","unit":0,"key":{"fodo":5}})"),
              StartsWith("\"key\" is no part of a removeAll"));
}

TEST(Intent, PayloadAndResourcesAreTheTablesOwn) {
  const std::string fodo = R"({"op":"write","table":"EsemFodo","unit":0,"key":{"fodo":5},)";
  EXPECT_EQ(errorOf(fodo + R"("payload":{"outLif":65536}})"),
            "payload.outLif is 65536: write a whole number from 0 to 65535");
  EXPECT_EQ(errorOf(fodo + R"("payload":{"outlif":1}})"),
            R"(payload.outlif is unknown: leave it out, or write "outLif" or "tpidProfile")");
  EXPECT_EQ(errorOf(fodo + R"("payload":{"fodo":1}})"),
            "payload.fodo is no payload: it belongs in the key");
  EXPECT_EQ(errorOf(fodo + R"("resources":{"attachmentCircuit":1}})"),
            "resources is not empty: leave it out, EsemFodo names no resources");
  EXPECT_EQ(errorOf(fodo + R"("resources":{}})"), "");
  const std::string key = R"("key":{"port":1,"vlan":2},)";
  EXPECT_EQ(errorOf(isem1(key + R"("payload":{"inLif0Index":5})")),
            "payload.inLif0Index is no payload: leave it out, it is filled in from the resources");
  EXPECT_EQ(errorOf(isem1(key + R"("payload":{"x":5})")), "payload.x is unknown: leave it out");
  EXPECT_THAT(errorOf(isem1(key + R"("resources":{"outerVlan":4096})")),
              StartsWith("resources.outerVlan is 4096: "));
}

TEST(Intent, VlanEditsGoByNames) {
  const Intent intent = Common::parseIntent(
      vlanEdit(R"({"untagged":{"outerAction":"push","outerVlan":7},"llcTpid3":{"flags":9}})"));
  const auto& key = std::get<Common::EntryOf<KelpEmServer::EsemFodoVd>>(intent.entry)
                        .entry.rsrcKeys.vlanEditProfileKey;
  using KelpTunnelNiLib::TagFormat;
  EXPECT_EQ(key[TagFormat::untagged].outerAction, KelpTunnelNiLib::VlanAction::push);
  EXPECT_EQ(key[TagFormat::untagged].outerVlan, 7U);
  EXPECT_EQ(key[TagFormat::llcTpid3].flags, 9U);
  EXPECT_EQ(key[TagFormat::singleTpid0], KelpTunnelNiLib::VlanOp());

  EXPECT_THAT(errorOf(vlanEdit(R"({"untaged":{}})")),
              StartsWith("resources.vlanEditProfileKey.untaged is unknown: write \"untagged\", "));
  EXPECT_EQ(errorOf(vlanEdit(R"({"untagged":{"outerAction":"shove"}})")),
            "resources.vlanEditProfileKey.untagged.outerAction is \"shove\": write \"keep\", "
            "\"push\", \"pop\" or \"swap\"");
  EXPECT_THAT(errorOf(vlanEdit(R"({"untagged":{"outerAction":1}})")),
              HasSubstr("outerAction is 1: write \"keep\""));
  EXPECT_EQ(errorOf(vlanEdit(R"({"untagged":{"innerPriority":8}})")),
            "resources.vlanEditProfileKey.untagged.innerPriority is 8: write a whole number from 0 "
            "to 7");
}

TEST(Intent, InterfacesGoByNames) {
  const std::string start =
      R"({"op":"write","table":"EsemFodoVd","unit":0,"key":{"fodo":1,"vlanDomain":2,"port":3},)"
      R"("resources":{"remarkProfileKey":)";
  const Intent intent = Common::parseIntent(start + R"("Lag5.7"}})");
  EXPECT_EQ(std::get<Common::EntryOf<KelpEmServer::EsemFodoVd>>(intent.entry)
                .entry.rsrcKeys.remarkProfileKey.intf.name(),
            "Lag5.7");
  EXPECT_THAT(errorOf(start + R"("Eth5"}})"),
              AllOf(StartsWith("resources.remarkProfileKey: "), HasSubstr("'Eth5'"),
                    HasSubstr("such as \"Ethernet3/1.100\"")));
  EXPECT_THAT(errorOf(start + "5}}"), StartsWith("resources.remarkProfileKey is 5: write an "));
}

TEST(Intent, AfterNamesAnEntryInFull) {
  const auto after = [](const std::string& text) {
    return errorOf(isem1(R"("key":{"port":1,"vlan":2},"after":)" + text));
  };
  EXPECT_EQ(after("5"), "after is 5: write an object, {...}");
  EXPECT_THAT(after("{}"), StartsWith("after.table is missing: write "));
  EXPECT_EQ(after(R"({"table":"EsemFodo"})"),
            "after.unit is missing: write the number of a chip unit, such as 0");
  EXPECT_EQ(after(R"({"table":"EsemFodo","unit":0})"),
            R"(after.key is missing: write an object such as {"fodo":0})");
  EXPECT_THAT(after(R"({"table":"EsemFodo","unit":0,"key":{"fodo":-3}})"),
              StartsWith("after.key.fodo is -3: "));
  EXPECT_THAT(after(R"({"table":"EsemFodo","unit":0,"key":{"fodo":3},"op":"write"})"),
              StartsWith("after.op is unknown: "));
}

// Every line that a reader may copy from the documentation or the examples is an intent, or an
// event of a resource.
TEST(Intent, TheExamplesAreIntents) {
  const auto errorOfLine = [](const std::string& line) {
    return Common::isResourceEvent(line) ? errorOfEvent(line) : errorOf(line);
  };
  unsigned read = 0;
  std::vector<std::filesystem::path> files = {KELP_INTENTS_DOCUMENT};
  for (const auto& file : std::filesystem::directory_iterator(KELP_EXAMPLES)) {
    if (file.path().extension() == ".jsonl") {
      files.push_back(file.path());
    }
  }
  for (const auto& path : files) {
    std::ifstream file(path);
    const bool document = path == KELP_INTENTS_DOCUMENT;
    for (std::string line; std::getline(file, line);) {
      if (document ? line.rfind("{\"op\"", 0) != 0 : Common::isBlankOrComment(line)) {
        continue;
      }
      EXPECT_EQ(errorOfLine(line), "") << path << ": " << line;
      ++read;
    }
  }
  EXPECT_GE(read, 20U);
}

}  // namespace
