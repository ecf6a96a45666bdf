#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <vector>

#include "Inspector.h"
#include "agent/InspectionPace.h"

// What peers of the inspection socket make the agent hold, and when that ends.

namespace {

using AgentTest::Feature;
using AgentTest::Inspector;
using AgentTest::Json;
using testing::HasSubstr;

class InspectionHolds : public AgentTest::WithInspection {
 protected:
  static Json at(const std::string& path) { return {{"path", path}}; }
  // What is asked for and refused, and why.
  static void expectError(Inspector& inspector, const std::string& method, const Json& params,
                          int code, const std::string& message) {
    const Json response = inspector.ask(method, params);
    EXPECT_EQ(Inspector::codeOf(response), code) << response;
    EXPECT_THAT(response["error"]["message"].get<std::string>(), HasSubstr(message));
  }
  // Reads notifications up to the end of a subscription; gives them.
  static std::vector<Json> toldUntilEnded(Inspector& inspector, const Json& subscription) {
    std::vector<Json> told;
    do {
      told.push_back(inspector.notice());
    } while (!told.back().is_null() && (told.back()["method"] != "ended" ||
                                        told.back()["params"]["subscription"] != subscription));
    return told;
  }
};

TEST_F(InspectionHolds, ArgumentsAreLookedAtLast) {
  const auto program = inspectedAgent();
  Inspector inspector(inspectPath());
  const std::string root = interfaceOf("EsemFodo");
  const std::string table = tableOf("EsemFodo");
  const Json nobody = {{"ref", "Nobody"}};
  const Json copy = {{"ref", table + "/getTableEntries_py"}};
  expectError(inspector, "call", {{"path", root + "/tableName"}, {"args", Json::array({nobody})}},
              1, "no operation");
  expectError(inspector, "call", {{"path", root + "/makeSwTable"}, {"args", Json(5, nobody)}}, 1,
              "5 arguments, not the 3");
  expectError(inspector, "write", {{"path", table + "/inMarkingState"}, {"args", Json(5, nobody)}},
              1, "5 arguments, not the 1");
  // Nothing is made on the way to an argument, nor is an object anything but an argument.
  expectError(inspector, "call",
              {{"path", root + "/makeSwTable"}, {"args", Json::array({0, copy, false})}}, 1,
              "/getTableEntries_py: behind an operation: read it first");
  expectError(
      inspector, "call",
      {{"path", root + "/makeSwTable"}, {"args", Json::array({0, Json::array({copy}), false})}},
      -32602, "args[1][0]: no place for an object: only an argument itself can be one");
  expectError(inspector, "has", {{"path", table + "/markedKey"}, {"key", copy}}, -32602,
              "key: no place for an object");
  EXPECT_EQ(inspector.code("read", at("$1")), 2) << "nothing was made";
}

TEST_F(InspectionHolds, ResultsOfOperationsAreFewForAllPeers) {
  const auto program = inspectedAgent();
  Feature feature(socketPath());
  Inspector inspector(inspectPath());
  const std::string made = tableOf("EsemFodoVd") + "/getTableEntries_py";
  const std::string waiting = keepWaiting(feature, inspector, 6);
  for (unsigned i = 1; i <= 15; ++i) {
    EXPECT_EQ(inspector.read(made)["ref"], "$" + std::to_string(i));
  }
  Inspector other(inspectPath());
  EXPECT_EQ(other.read(made)["ref"], "$1");
  for (Inspector* one : {&inspector, &other}) {
    expectError(*one, "read", at(made), 6,
                "16 results of operations are held for all peers at most: release some");
    expectError(*one, "call", at(made), 6, "16 results");
    expectError(*one, "iterate", at(made + "/tableEntries"), 6, "16 results");
  }
  // Nothing is done whose result nobody could have.
  const Json remove = {{"path", tableOf("EsemFodoVd") + "/transientAddEntry"},
                       {"key", {{"fodo", 6}, {"vlanDomain", 1}, {"port", 1}}}};
  EXPECT_EQ(inspector.code("delete", remove), 6);
  EXPECT_EQ(inspector.result("has", remove), true);
  // What is there anyway costs nothing; a walk keeps what it walks.
  EXPECT_EQ(inspector.read(waiting), Json({{"ref", waiting}}));
  const std::string entries = "$1/tableEntries";
  EXPECT_EQ(inspector.result("iterate", at(entries))["cursor"], nullptr);
  EXPECT_EQ(inspector.result("release", {{"ref", "$1"}}), nullptr);
  EXPECT_EQ(inspector.read(made)["ref"], "$16");
  EXPECT_EQ(other.code("read", at(made)), 6);
  inspector.feature().close();
  EXPECT_TRUE(AgentTest::comesTrue([&] { return other.code("read", at(made)) == 0; }));
}

TEST_F(InspectionHolds, AWalkKeepsWhatIsReleased) {
  const auto hardware = chip();
  const auto program = inspectedAgent();
  Feature feature(socketPath());
  Inspector inspector(inspectPath());
  writeEntries(feature, 3);
  const std::string made = tableOf("EsemFodo") + "/getTableEntries_py";
  std::vector<Json> cursors;
  for (unsigned i = 1; i <= 16; ++i) {
    const std::string name = inspector.read(made)["ref"];
    const Json page = inspector.result("iterate", {{"path", name + "/tableEntries"}, {"limit", 1}});
    cursors.push_back(page["cursor"]);
    EXPECT_EQ(inspector.result("release", {{"ref", name}}), nullptr);
  }
  EXPECT_EQ(inspector.code("read", at(made)), 6);
  EXPECT_EQ(inspector.result("close", {{"cursor", cursors[4]}}), nullptr);
  EXPECT_EQ(inspector.code("read", at(made)), 0);
}

TEST_F(InspectionHolds, WhatNobodyHearsOfIsNotHeld) {
  const auto hardware = chip();
  const auto program = inspectedAgent();
  Feature feature(socketPath());
  Inspector inspector(inspectPath());
  writeEntries(feature, 3);
  const std::string made = tableOf("EsemFodo") + "/getTableEntries_py";
  const auto notify = [&](const std::string& method, const Json& params) {
    const Json one = {{"jsonrpc", "2.0"}, {"method", method}, {"params", params}};
    EXPECT_TRUE(inspector.feature().send(one.dump() + "\n"));
  };
  for (unsigned i = 0; i < 20; ++i) {
    notify("read", at(made));
    notify("iterate", {{"path", made + "/tableEntries"}, {"limit", 1}});
  }
  EXPECT_EQ(inspector.code("read", at("$1")), 2);
  EXPECT_EQ(inspector.code("iterate", {{"cursor", 1}}), 2);
  for (unsigned i = 0; i < 20; ++i) {
    EXPECT_EQ(inspector.code("iterate", at(made)), 1) << "it is no collection";
  }
  const std::string name = inspector.read(made)["ref"];
  EXPECT_EQ(inspector.count(name + "/tableEntries"), 3U);
  for (unsigned i = 0; i < 64; ++i) {
    (void)inspector.result("iterate", {{"path", name + "/tableEntries"}, {"limit", 1}});
  }
  for (unsigned i = 0; i < 20; ++i) {
    EXPECT_EQ(inspector.code("iterate", at(made + "/tableEntries")), 6) << "too many cursors";
  }
  EXPECT_EQ(inspector.code("read", at(made)), 0);
}

TEST_F(InspectionHolds, SubscriptionsAreOneForAnAttributeAndFewForAllPeers) {
  const auto program = inspectedAgent();
  Feature feature(socketPath());
  std::vector<std::unique_ptr<Inspector>> inspectors;
  for (unsigned i = 0; i < 5; ++i) {
    inspectors.push_back(std::make_unique<Inspector>(inspectPath()));
  }
  Inspector& first = *inspectors[0];
  std::vector<std::string> states;
  for (unsigned fodo = 1; fodo <= 257; ++fodo) {
    states.push_back(keepWaiting(feature, first, fodo) + "/entryHandle/entryState");
  }
  for (unsigned i = 0; i < 256; ++i) {
    EXPECT_EQ(first.result("subscribe", at(states[i])), i + 1);
    EXPECT_EQ(first.result("subscribe", at(states[i])), i + 1) << "there is one already";
  }
  expectError(first, "subscribe", at(states[256]), 6, "256 subscriptions of a peer at most");
  EXPECT_EQ(first.result("unsubscribe", {{"subscription", 256}}), nullptr);
  EXPECT_EQ(first.result("subscribe", at(states[256])), 257);
  for (unsigned peer = 1; peer < 4; ++peer) {
    for (unsigned i = 0; i < 256; ++i) {
      EXPECT_EQ(inspectors[peer]->result("subscribe", at(states[i])), i + 1);
    }
  }
  expectError(*inspectors[4], "subscribe", at(states[0]), 6,
              "1024 subscriptions of all peers at most");
  EXPECT_EQ(first.result("unsubscribe", {{"subscription", 1}}), nullptr);
  EXPECT_EQ(inspectors[4]->result("subscribe", at(states[0])), 1);
}

TEST_F(InspectionHolds, WhatOnlyPeersHoldEnds) {
  const auto hardware = chip();
  const auto program = inspectedAgent();
  Feature feature(socketPath());
  Inspector inspector(inspectPath());
  const std::string waiting = keepWaiting(feature, inspector, 6);
  EXPECT_TRUE(feature.send(AgentTest::vlanEvent(100, "ready")));
  EXPECT_TRUE(feature.receives("\"fodo\":6"));
  // The handle of a profile, by the one that uses it: it takes an index for as long as it lives.
  const std::string usages = tableOf("EsemFodoVd") + "/vlanEditProfileLinkage/entryUsageSm";
  const Json page = inspector.result("iterate", {{"path", usages}, {"limit", 1}});
  const std::string usage = page["members"][0][1]["ref"];
  EXPECT_THAT(usage, testing::StartsWith(usages + "[0={")) << "a path leads there";
  EXPECT_EQ(inspector.read(usage), Json({{"ref", usage}}));
  const std::string state = usage + "/resPtr/entryState";
  const Json subscription = inspector.result("subscribe", at(state));
  (void)inspector.read(state);
  EXPECT_TRUE(feature.send(AgentTest::removeVd(6)));
  const std::vector<Json> told = toldUntilEnded(inspector, subscription);
  ASSERT_FALSE(told.empty());
  EXPECT_EQ(told.back()["params"]["path"], state);
  EXPECT_EQ(told.back()["params"]["error"],
            "only peers still had the object: the subscription has ended");
  EXPECT_EQ(inspector.code("unsubscribe", {{"subscription", subscription}}), 3);
  EXPECT_EQ(inspector.code("read", at(state)), 3);
  EXPECT_EQ(Inspector(inspectPath()).code("read", at(state)), 2) << "another peer knew of none";
}

TEST_F(InspectionHolds, WhatSomebodyHasStays) {
  const auto hardware = chip();
  const auto program = inspectedAgent();
  Feature feature(socketPath());
  Inspector inspector(inspectPath());
  writeEntries(feature, 3);
  // Everything that can be subscribed to at the roots and one step below.
  std::set<Json> subscriptions;
  const auto subscribeAll = [&](const std::string& path) {
    std::vector<std::string> objects;
    const Json object = inspector.result("list", at(path));
    for (const Json& one : object["attributes"]) {
      const std::string attribute = path + "/" + one["name"].get<std::string>();
      const Json response = inspector.ask("subscribe", at(attribute));
      if (response.contains("result")) {
        subscriptions.insert(response["result"]);
      }
      const bool isObject =
          one["kind"] == "attribute" && one["flags"].dump().find("ptr") != std::string::npos;
      if (isObject && !inspector.read(attribute).is_null()) {
        objects.push_back(attribute);
      }
    }
    return objects;
  };
  for (const std::string& path : {interfaceOf("EsemFodo"), tableOf("EsemFodo")}) {
    for (const std::string& object : subscribeAll(path)) {
      (void)subscribeAll(object);
    }
  }
  EXPECT_GT(subscriptions.size(), 10U);
  const Json copy = inspector.read(tableOf("EsemFodo") + "/getTableEntries_py");
  // More looks at what is held than would be needed.
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  for (const Json& subscription : subscriptions) {
    EXPECT_EQ(inspector.result("unsubscribe", {{"subscription", subscription}}), nullptr);
  }
  EXPECT_EQ(inspector.read(copy["ref"]), copy);
}

TEST(InspectionPause, IsNineTimesAsLongAsTheWorkButNotLongerThanASecond) {
  using Pace = Agent::InspectionPace;
  using std::chrono::milliseconds;
  const Pace::Clock::time_point now{milliseconds(5000)};
  Pace pace;
  pace.worked(now, milliseconds(1), true);
  EXPECT_EQ(pace.next(), now + milliseconds(9));
  // What is done before the next turn comes on top.
  pace.worked(now + milliseconds(3), milliseconds(2), true);
  EXPECT_EQ(pace.next(), now + milliseconds(27));
  pace.worked(now + milliseconds(30), milliseconds(1), true);
  EXPECT_EQ(pace.next(), now + milliseconds(39));
  pace.worked(now + milliseconds(40), milliseconds(5000), true);
  EXPECT_EQ(pace.next(), now + milliseconds(1040));
  pace.worked(now + milliseconds(50), milliseconds(5000), false);
  EXPECT_EQ(pace.next(), now + milliseconds(50));
}

}  // namespace
