#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>

#include "Inspector.h"

// Peers of the inspection socket that want too much, too little, or nothing, and what the agent
// does meanwhile.

namespace {

using AgentTest::comesTrue;
using AgentTest::Feature;
using AgentTest::Inspector;
using AgentTest::Json;
using AgentTest::outcomes;
using AgentTest::writeFodo;
using testing::HasSubstr;

class InspectionLoad : public AgentTest::WithInspection {
 protected:
  // Whether the agent serves other peers and carries out intents.
  void expectServing(Feature& feature, unsigned count) {
    Inspector inspector(inspectPath());
    EXPECT_FALSE(inspector.result("objects").empty());
    writeEntries(feature, count);
  }
};

TEST_F(InspectionLoad, ALineWithoutAnEndIsCutOff) {
  const auto hardware = chip();
  const auto program = inspectedAgent();
  Feature feature(socketPath());
  Inspector endless(inspectPath());
  const std::string piece(1 << 16, 'x');
  std::size_t sent = 0;
  EXPECT_TRUE(comesTrue([&] {
    const ssize_t count = endless.feature().trySend(piece);
    sent += count > 0 ? static_cast<std::size_t>(count) : 0;
    return (count < 0 && errno != EAGAIN) || sent > 64U << 20U;
  }));
  EXPECT_LT(sent, 64U << 20U);
  const Json answer = endless.line();
  EXPECT_EQ(Inspector::codeOf(answer), -32600) << answer;
  EXPECT_THAT(answer.dump(), HasSubstr("the line is longer than 1048576 bytes: send less"));
  EXPECT_TRUE(program.says("inspect:1 is dropped: line 1 is longer than 1048576 bytes"));
  expectServing(feature, 10);
}

TEST_F(InspectionLoad, ALineOfTheLongestLengthIsTaken) {
  const auto program = inspectedAgent();
  Inspector inspector(inspectPath());
  std::string line = Inspector::request("1", "objects");
  line.insert(line.size() - 1, std::string((1 << 20) + 1 - line.size(), ' '));
  std::thread sender([&] { EXPECT_TRUE(inspector.feature().send(line)); });
  EXPECT_FALSE(inspector.answer()["result"].empty());
  sender.join();
}

TEST_F(InspectionLoad, PeersThatSendHalfARequestOrNothingHoldNobodyUp) {
  const auto hardware = chip();
  const auto program = inspectedAgent({"--peer-timeout", "0.2"});
  Feature feature(socketPath());
  std::vector<std::unique_ptr<Inspector>> silent;
  const std::string request = Inspector::request("1", "objects");
  for (unsigned i = 0; i < 20; ++i) {
    silent.push_back(std::make_unique<Inspector>(inspectPath()));
    if (i % 2 == 0) {
      EXPECT_TRUE(silent.back()->feature().send(request.substr(0, 20)));
    }
  }
  expectServing(feature, 1000);
  // Whoever only takes his time is left alone, for more than the timeout.
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  for (unsigned i = 0; i < 20; i += 2) {
    EXPECT_TRUE(silent[i]->feature().send(request.substr(20)));
    EXPECT_FALSE(silent[i]->answer()["result"].empty());
  }
  EXPECT_FALSE(silent[1]->result("objects").empty());
  EXPECT_EQ(program.err(), "");
}

TEST_F(InspectionLoad, APeerThatTakesNothingIsDroppedAndIntentsGoOn) {
  const auto hardware = chip();
  const auto program = inspectedAgent({"--peer-timeout", "1"});
  Feature feature(socketPath());
  Inspector slow(inspectPath());
  std::string text;
  for (unsigned i = 0; i < 100; ++i) {
    text += Inspector::request(std::to_string(i), "classes");
  }
  // The buffers of the socket fill, and then the agent reads no more.
  std::size_t sent = 0;
  unsigned written = 0;
  EXPECT_TRUE(comesTrue([&] {
    const ssize_t count = slow.feature().trySend(text);
    sent += count > 0 ? static_cast<std::size_t>(count) : 0;
    writeEntries(feature, ++written);
    return (count < 0 && errno == EPIPE) || sent > 64U << 20U;
  }));
  EXPECT_LT(sent, 64U << 20U) << "the agent takes whatever it is sent";
  EXPECT_TRUE(program.says("inspect:1 is dropped: it has taken no output for 1 s"));
  expectServing(feature, 10);
}

TEST_F(InspectionLoad, ASubscriberThatTakesNothingIsToldHowMuchItHasMissed) {
  const auto hardware = chip();
  const auto program = inspectedAgent({"--peer-timeout", "3600"});
  Feature feature(socketPath());
  Inspector slow(inspectPath());
  (void)slow.result("subscribe", {{"path", tableOf("EsemFodo") + "/transientAddEntry"}});
  constexpr unsigned kEntries = 40000;  // each comes, and goes
  std::thread sender([&] {
    for (unsigned fodo = 1; fodo <= kEntries; ++fodo) {
      EXPECT_TRUE(feature.send(writeFodo(fodo, fodo % 60000)));
    }
    feature.endSending();
  });
  EXPECT_EQ(outcomes(feature.all()).size(), kEntries);
  sender.join();
  Inspector other(inspectPath());
  EXPECT_FALSE(other.result("objects").empty());
  // What had room is told, and the number of those that had none.
  Json one = slow.notice();
  std::size_t told = 0;
  for (; one["method"] == "changed"; one = slow.notice()) {
    ++told;
  }
  EXPECT_EQ(one["method"], "lost") << one;
  EXPECT_EQ(one["params"]["subscription"], 1);
  EXPECT_GT(one["params"]["changes"], 0);
  EXPECT_THAT(one["params"]["error"].get<std::string>(), HasSubstr("changes had no room: read"));
  EXPECT_GT(told, 10000U);
  EXPECT_LE(told + one["params"]["changes"].get<std::size_t>(), 2 * kEntries);
  // It goes on.
  writeEntries(*std::make_unique<Feature>(socketPath()), 1);
  EXPECT_EQ(slow.change()["key"], 1);
}

// Twice, or once if it has left by then.
TEST_F(InspectionLoad, ASubscriberThatReadsIsToldOfEveryMember) {
  const auto hardware = chip();
  const auto program = inspectedAgent();
  Feature feature(socketPath());
  Inspector inspector(inspectPath());
  const std::string path = tableOf("EsemFodo") + "/transientAddEntry";
  (void)inspector.result("subscribe", {{"path", path}});
  constexpr unsigned kEntries = 3000;
  std::thread sender([&] { writeEntries(feature, kEntries); });
  std::vector<unsigned> came(kEntries + 1);
  std::vector<unsigned> left(kEntries + 1);
  for (unsigned gone = 0; gone < kEntries;) {
    const Json change = inspector.change();
    const auto key = change["key"].get<unsigned>();
    ++(change["value"].is_null() ? left : came).at(key);
    gone += change["value"].is_null() ? 1 : 0;
    if (!change["value"].is_null()) {
      EXPECT_EQ(change["value"]["ref"], path + "[" + std::to_string(key) + "]");
      EXPECT_EQ(left[key], 0U);
    }
  }
  sender.join();
  EXPECT_LE(*std::max_element(came.begin(), came.end()), 1U);
  EXPECT_EQ(std::count(left.begin(), left.end(), 1U), kEntries);
}

TEST_F(InspectionLoad, PeersTakeTurns) {
  const auto program = inspectedAgent();
  Inspector greedy(inspectPath());
  Inspector modest(inspectPath());
  std::string text;
  for (unsigned i = 0; i < 2000; ++i) {
    text += Inspector::request(std::to_string(i), "objects");
  }
  std::thread sender([&] { EXPECT_TRUE(greedy.feature().send(text)); });
  EXPECT_FALSE(modest.result("objects").empty());
  for (unsigned i = 0; i < 2000; ++i) {
    EXPECT_EQ(greedy.answer()["id"], i);
  }
  sender.join();
}

TEST_F(InspectionLoad, ALargeBatchIsAnsweredUpToItsBound) {
  const auto hardware = chip();
  const auto program = inspectedAgent();
  Feature feature(socketPath());
  Inspector inspector(inspectPath());
  writeEntries(feature, 6000);
  ASSERT_EQ(inspector.read(tableOf("EsemFodo") + "/getTableEntries_py"), Json({{"ref", "$1"}}));
  std::string batch = "[";
  for (unsigned i = 0; i < 64; ++i) {
    std::string one = Inspector::request(std::to_string(i), "iterate",
                                         {{"path", "$1/tableEntries"}, {"limit", 10000}});
    one.pop_back();
    batch += (i == 0 ? "" : ",") + one;
  }
  EXPECT_TRUE(inspector.feature().send(batch + "]\n"));
  const Json answer = inspector.line();
  ASSERT_EQ(answer.size(), 64U);
  unsigned whole = 0;
  while (whole < 64 && answer[whole].contains("result")) {
    ++whole;
  }
  for (unsigned i = 0; i < 64; ++i) {
    EXPECT_EQ(answer[i]["id"], i);
    EXPECT_EQ(Inspector::codeOf(answer[i]), i < whole ? 0 : 6) << "what fits comes first";
  }
  EXPECT_GT(whole, 4U);
  EXPECT_LT(whole, 64U);
}

}  // namespace
