#include "agent/InspectionJson.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

#include "Asic/NeededEntry.h"
#include "agent/InspectionError.h"

namespace {

using Brio::InspectValue;
using Common::Json;

std::string textOf(const InspectValue& value) {
  std::string out = "x";
  Agent::appendInspectValue(out, value, [](const auto&) { return "a/\"b\""; });
  return out.substr(1);
}
InspectValue valueOf(const std::string& json) {
  return Agent::toInspectValue(Json::parse(json), "value");
}

TEST(InspectionJson, WritesEveryKindOfValue) {
  EXPECT_EQ(textOf({}), "null");
  EXPECT_EQ(textOf(true), "true");
  EXPECT_EQ(textOf(std::numeric_limits<std::uint64_t>::max()), "18446744073709551615");
  EXPECT_EQ(textOf(0U), "0");
  EXPECT_EQ(textOf(1.5), "1.5");
  EXPECT_EQ(textOf(std::numeric_limits<double>::infinity()), "null");
  EXPECT_EQ(textOf("a\"\n\xff"), R"("a\"\u000a\ufffd")");
  EXPECT_EQ(textOf(InspectValue::List{}), "[]");
  EXPECT_EQ(textOf(InspectValue::List{1U, "x"}), R"([1,"x"])");
  EXPECT_EQ(textOf(InspectValue::Record{}), "{}");
  EXPECT_EQ(textOf(InspectValue::Record{{"a", 1U}, {"b", InspectValue::Record{{"c", false}}}}),
            R"({"a":1,"b":{"c":false}})");
  EXPECT_EQ(textOf(InspectValue::NodePtr()), "null");
  EXPECT_EQ(textOf(InspectValue::NodePtr(Lumen::makeNode<Asic::NeededEntry>())),
            R"({"ref":"a/\"b\""})");
}

TEST(InspectionJson, ReadsThemBack) {
  for (const char* json : {"null", "true", "18446744073709551615", "1.5", R"("x\"y")", "[]",
                           R"([1,["x"],{"a":2}])", R"({"a":1,"b":{"c":false}})"}) {
    EXPECT_EQ(textOf(valueOf(json)), json);
  }
  EXPECT_NE(valueOf(R"({"ref":"a/b","x":1})").as<InspectValue::Record>(), nullptr);
  EXPECT_NE(valueOf(R"({"ref":1})").as<InspectValue::Record>(), nullptr);
  try {
    (void)valueOf(R"({"a":[0,{"b":-5}]})");
    FAIL() << "a negative number is none";
  } catch (const Agent::InspectionError& error) {
    EXPECT_EQ(error.code(), -32602);
    EXPECT_STREQ(error.what(), "value.a[1].b: -5 is negative: write a number from 0 on");
  }
  try {
    (void)valueOf(R"([{"a":{"ref":"a/b"}}])");
    FAIL() << "there is an object in it";
  } catch (const Agent::InspectionError& error) {
    EXPECT_EQ(error.code(), -32602);
    EXPECT_THAT(error.what(), testing::StartsWith("value[0].a: no place for an object: "));
  }
}

}  // namespace
