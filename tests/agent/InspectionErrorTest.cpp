#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <memory>

#include "Inspector.h"

// What the inspection socket refuses, and what it says then.

namespace {

using AgentTest::comesTrue;
using AgentTest::Feature;
using AgentTest::Inspector;
using AgentTest::Json;
using testing::HasSubstr;

class InspectionErrors : public AgentTest::WithInspection {
 protected:
  // Asks, and expects an error whose message begins with `message`.
  static void expectError(Inspector& inspector, const std::string& method, const Json& params,
                          int code, const std::string& message) {
    const Json response = inspector.ask(method, params);
    EXPECT_EQ(Inspector::codeOf(response), code) << response;
    EXPECT_THAT(response["error"]["message"].get<std::string>(), testing::StartsWith(message));
    if (code > 0 && params.contains("path")) {
      EXPECT_TRUE(response["error"]["data"].contains("path")) << response;
    }
  }
  static Json at(const std::string& path) { return {{"path", path}}; }
  // A peer that may not change anything; only root can be one.
  std::unique_ptr<Inspector> nobody() {
    EXPECT_EQ(chmod(root_.path().c_str(), 0755), 0);
    EXPECT_EQ(seteuid(65534), 0);
    auto made = std::make_unique<Inspector>(inspectPath());
    EXPECT_EQ(seteuid(0), 0);
    return made;
  }
};

TEST_F(InspectionErrors, NameThePlaceAndTheRemedy) {
  const auto program = inspectedAgent();
  Feature feature(socketPath());
  Inspector inspector(inspectPath());
  const std::string root = interfaceOf("EsemFodo");
  const std::string table = tableOf("EsemFodo");
  const auto expect = [&](const std::string& method, const Json& params, int code,
                          const std::string& message) {
    expectError(inspector, method, params, code, message);
  };
  // 2: what is not there.
  expect("attributes", {{"class", "Nobody"}}, 2, "Nobody: no such class; the method \"classes\"");
  expect("read", at("Nobody/x"), 2, "Nobody: no such root; there are: ");
  expect("read", at(root + "/swTableSets"), 2,
         root + ": no attribute 'swTableSets' in EsemFodoKelpInterface; there are: tableName, ");
  expect("read", at(root + "/swTableSet[7]"), 2, root + "/swTableSet: no member [7] among 1");
  expect("read", at(root + "/tableName/x"), 2, root + "/tableName: no field 'x' in \"EsemFodo");
  const std::string waiting = keepWaiting(feature, inspector, 6);
  expect("read", at(waiting + "/remarkProfileKeyResPtr/x"), 2,
         waiting + "/remarkProfileKeyResPtr: null; nothing is below it");
  expect("read", at("$1"), 2, "$1: no object is held by this name");
  expect("read", at("$x"), 2, "$x: no object is held by this name");
  expect("release", {{"ref", "$1"}}, 2, "$1: no object is held by this name");
  expect("iterate", {{"cursor", 1}}, 2, "no cursor 1: it never was, or has ended");
  expect("close", {{"cursor", 1}}, 2, "no cursor 1: ");
  expect("unsubscribe", {{"subscription", 1}}, 2, "no subscription 1: ");
  // 1: what the attribute does not take.
  expect("write", {{"path", root + "/tableName"}, {"value", "x"}}, 1,
         root + "/tableName: it can only be read");
  expect("write", {{"path", table + "/inMarkingState"}, {"value", 3}}, 1,
         table + "/inMarkingState: argument 1: 3 is neither true nor false");
  expect("write", {{"path", table + "/inMarkingState"}, {"args", Json::array()}}, 1,
         table + "/inMarkingState: 0 arguments, not the 1 that it takes: (bool)");
  expect("call", at(root + "/entryLog/entryHas"), 1,
         root + "/entryLog/entryHas: 0 arguments, not the 2 that it takes");
  expect("call", {{"path", root + "/entryLog/entryHas"}, {"args", Json::array({"x", 0})}}, 1,
         root + "/entryLog/entryHas: argument 1: \"x\" is no number");
  expect("call", {{"path", root + "/makeSwTable"}, {"args", Json::array({70000, nullptr, false})}},
         1, root + "/makeSwTable: argument 1: 70000 is above the largest value, 65535");
  expect("call",
         {{"path", root + "/makeSwTable"}, {"args", Json::array({0, Json{{"ref", root}}, false})}},
         1, root + "/makeSwTable: argument 2: a EsemFodoKelpInterface is no ");
  expect("call",
         {{"path", root + "/makeSwTable"},
          {"args", Json::array({0, Json{{"ref", root + "/tableName"}}, false})}},
         1, root + "/tableName: \"EsemFodoKelp\" is no object: name one");
  expect("call", at(root + "/tableName"), 1, root + "/tableName: no operation");
  expect("read", at(table + "/clearTable"), 1, table + "/clearTable: an operation that changes");
  expect("read", at(table + "/markedKey"), 1, table + "/markedKey: a collection; name a member");
  expect("count", at(table), 1, table + ": no collection");
  expect("iterate", at(root + "/tableName"), 1, root + "/tableName: no collection");
  expect("has", {{"path", table + "/markedKey"}, {"key", "x"}}, 1,
         table + "/markedKey: key: \"x\" is no number");
  expect("delete", {{"path", table + "/entryHandleInLog"}, {"key", 0}}, 1,
         table + "/entryHandleInLog: its members are not deleted");
  expect("subscribe", at(root + "/tableName"), 1, root + "/tableName: tableName: a EsemFodoKelp");
  expect("subscribe", at(table), 1, table + ": no attribute that can change");
  expect("subscribe", at(table + "/clearTable"), 1,
         table + "/clearTable: no attribute that can change");
  // 4: what an operation throws.
  expect("write", {{"path", table + "/transientAddEntry"}, {"value", nullptr}}, 4,
         table + "/transientAddEntry: ");
  EXPECT_EQ(inspector.count(table + "/transientAddEntry"), 0U);
  EXPECT_EQ(inspector.count(table + "/markedKey"), 0U);
}

TEST_F(InspectionErrors, NameTheParamThatDoesNotFit) {
  const auto program = inspectedAgent();
  Inspector inspector(inspectPath());
  const std::string table = tableOf("EsemFodo");
  const auto expect = [&](const std::string& method, const Json& params,
                          const std::string& message) {
    expectError(inspector, method, params, -32602, message);
  };
  expect("read", nullptr, "path: missing: write a string");
  expect("read", {{"path", 5}}, "path: number: write a string");
  expect("read", {{"path", table}, {"depth", 1}},
         "depth: no param of this method: leave it out, or write \"path\"");
  expect("objects", {{"path", table}}, "path: no param of this method: leave it out");
  expect("attributes", Json::object(), "class: missing");
  expect("has", at(table + "/markedKey"), "key: missing");
  expect("write", at(table + "/inMarkingState"), "value: write either \"value\" or \"args\"");
  expect("write", {{"path", table + "/inMarkingState"}, {"value", true}, {"args", Json::array()}},
         "value: write either");
  expect("call", {{"path", table + "/clearTable"}, {"args", true}}, "args: boolean: write a list");
  expect("call", {{"path", table + "/clearTable"}, {"args", Json::array({-1})}},
         "args[0]: -1 is negative");
  expect("iterate", {{"path", table + "/markedKey"}, {"limit", 0}},
         "limit: 0 is out of range: write a whole number from 1 to 10000");
  expect("iterate", {{"path", table + "/markedKey"}, {"limit", 10001}}, "limit: 10001 is out of");
  expect("iterate", {{"path", table + "/markedKey"}, {"limit", "x"}}, "limit: no whole number");
  expect("iterate", {{"cursor", -1}}, "cursor: no whole number");
  expect("iterate", {{"cursor", 1}, {"path", table}}, "path: no param of this method");
  expect("iterate", Json::object(), "path: missing");
  // A path that is none, and one that goes in a circle for too long.
  expect("read", {{"path", table + "//x"}}, "path: " + table + "/<here>/x: a name is missing");
  expect("read", {{"path", table + "/markedKey[3"}}, "path: " + table + "/markedKey[3<here>: ']'");
  expect("read", {{"path", std::string(5000, 'x')}}, "path: a path has 4096 characters at most");
  std::string circle = tableOf("EsemFodoVd");
  for (unsigned i = 0; i < 31; ++i) {
    circle += "/vlanEditProfileLinkage/swTable";
  }
  EXPECT_EQ(inspector.read(circle), Json({{"ref", circle}}));
  expect("read", {{"path", circle + "/stats"}}, "path: a path has 64 steps at most");
}

TEST_F(InspectionErrors, WhatIsNoRequestLeavesTheConnection) {
  const auto program = inspectedAgent();
  Inspector inspector(inspectPath());
  const auto expect = [&](const std::string& line, int code, const std::string& message) {
    EXPECT_TRUE(inspector.feature().send(line + "\n"));
    const Json response = inspector.answer();
    EXPECT_EQ(Inspector::codeOf(response), code) << response;
    EXPECT_THAT(response["error"]["message"].get<std::string>(), HasSubstr(message));
  };
  expect("nonsense", -32700, "no JSON, column 2: ");
  expect("{\"a\":\"\xff\"}", -32700, "ill-formed UTF-8");
  expect("5", -32600, "no request: write an object, {...}");
  expect("[]", -32600, "a batch of 0 requests: send 1 to 64");
  std::string batch = "[1";
  for (unsigned i = 0; i < 64; ++i) {
    batch += ",1";
  }
  expect(batch + "]", -32600, "a batch of 65 requests: send 1 to 64");
  expect(R"({"jsonrpc":"2.0","id":1,"method":"zork"})", -32601, "zork: no such method");
  expect(R"({"jsonrpc":"2.0","id":1,"method":"read","params":["x"]})", -32602, "params: write an");
  EXPECT_FALSE(inspector.result("objects").empty());
}

TEST_F(InspectionErrors, APeerHasOnlySoManyCursors) {
  const auto program = inspectedAgent();
  Feature feature(socketPath());
  Inspector inspector(inspectPath());
  const std::string table = tableOf("EsemFodoVd");
  (void)keepWaiting(feature, inspector, 1);
  (void)keepWaiting(feature, inspector, 2);
  const Json walk = {{"path", table + "/transientAddEntry"}, {"limit", 1}};
  for (unsigned i = 1; i <= 64; ++i) {
    EXPECT_EQ(inspector.result("iterate", walk)["cursor"], i);
  }
  expectError(inspector, "iterate", walk, 6, "64 cursors are kept for a peer at most: close some");
  EXPECT_EQ(inspector.result("close", {{"cursor", 5}}), nullptr);
  EXPECT_EQ(inspector.result("iterate", walk)["cursor"], 65);

  // Another one has its own.
  Inspector other(inspectPath());
  EXPECT_EQ(other.result("iterate", walk)["cursor"], 1);
}

TEST_F(InspectionErrors, OnlyTheAgentsOwnUserAndRootChangeAnything) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can be somebody else";
  }
  const auto program = inspectedAgent({"--inspect-mode", "0666"});
  Inspector root(inspectPath());
  const auto nobody = this->nobody();
  const std::string table = tableOf("EsemFodo");
  const Json write = {{"path", table + "/inMarkingState"}, {"value", false}};
  const Json remove = {{"path", table + "/markedKey"}, {"key", 5}};
  const Json clear = {{"path", table + "/clearTable"}, {"args", Json::array({false})}};
  expectError(*nobody, "write", write, 5,
              table + "/inMarkingState: not allowed: ask as the agent's");
  expectError(*nobody, "delete", remove, 5, table + "/markedKey: not allowed");
  expectError(*nobody, "call", clear, 5, table + "/clearTable: not allowed");
  // Before anything is looked at that it gives.
  expectError(*nobody, "call",
              {{"path", table + "/clearTable"}, {"args", Json::array({Json{{"ref", "Nobody"}}})}},
              5, table + "/clearTable: not allowed");
  EXPECT_EQ(nobody->read(table + "/inMarkingState"), true);
  EXPECT_EQ(nobody->read(table + "/getTableEntries_py"), Json({{"ref", "$1"}}));
  EXPECT_EQ(nobody->result("call", {{"path", interfaceOf("EsemFodo") + "/entryLog/entryHas"},
                                    {"args", Json::array({5, 0})}}),
            false);
  EXPECT_EQ(nobody->result("subscribe", at(table + "/inMarkingState")), 1);
  EXPECT_EQ(root.result("write", write), nullptr);
  EXPECT_EQ(nobody->change()["value"], false);
  EXPECT_EQ(root.result("delete", remove), false);
  EXPECT_EQ(root.result("call", clear), nullptr);
}

TEST_F(InspectionErrors, WhoMayNotChangeAnythingHasShorterLinesAndFewerPlaces) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can be somebody else";
  }
  const auto program = inspectedAgent({"--inspect-mode", "0666"});
  std::string line = Inspector::request("1", "objects");
  line.insert(line.size() - 1, std::string((1 << 16) + 1 - line.size(), ' '));
  {
    const auto one = nobody();
    std::thread sender([&] { EXPECT_TRUE(one->feature().send(line + " " + line)); });
    EXPECT_FALSE(one->answer()["result"].empty());
    EXPECT_EQ(Inspector::codeOf(one->line()), -32600);
    EXPECT_TRUE(one->line().empty()) << "the stream ends";
    sender.join();
  }
  Inspector own(inspectPath());
  EXPECT_FALSE(own.result("objects").empty());
  std::vector<std::unique_ptr<Inspector>> inspectors;
  for (unsigned i = 0; i < 55; ++i) {
    inspectors.push_back(nobody());
    EXPECT_FALSE(inspectors.back()->result("objects").empty());
  }
  const auto late = nobody();
  EXPECT_EQ(Inspector::codeOf(late->line()), 6);
  Inspector other(inspectPath());
  EXPECT_FALSE(other.result("objects").empty());
  EXPECT_TRUE(program.says("inspection: 1 peers were turned away: "));
}

TEST_F(InspectionErrors, TooManyPeersAreTurnedAway) {
  const auto program = inspectedAgent();
  std::vector<std::unique_ptr<Inspector>> inspectors;
  for (unsigned i = 0; i < 64; ++i) {
    inspectors.push_back(std::make_unique<Inspector>(inspectPath()));
    EXPECT_FALSE(inspectors.back()->result("objects").empty());
  }
  {
    Inspector late(inspectPath());
    EXPECT_EQ(Inspector::codeOf(late.line()), 6);
    EXPECT_TRUE(late.line().empty()) << "the stream ends";
  }
  inspectors.pop_back();
  EXPECT_TRUE(comesTrue([&] {
    Inspector again(inspectPath());
    return again.feature().trySend(Inspector::request("1", "objects")) > 0 &&
           again.line().contains("result");
  }));
}

}  // namespace
