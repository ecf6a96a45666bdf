#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstdint>
#include <cstring>
#include <set>

#include "Feature.h"
#include "Programs.h"

namespace {

using AgentTest::afterFodo;
using AgentTest::comesTrue;
using AgentTest::Feature;
using AgentTest::Json;
using AgentTest::outcomes;
using AgentTest::Program;
using AgentTest::removeFodo;
using AgentTest::writeFodo;
using AgentTest::writeInner;
using testing::HasSubstr;

class AgentSocket : public AgentTest::WithStore {
 protected:
  [[nodiscard]] std::string socketPath() const { return path("agent.sock"); }
  Program listeningAgent(std::vector<std::string> arguments = {}) {
    arguments.insert(arguments.end(), {"--socket", socketPath(), "--summary", path("s")});
    return agent(std::move(arguments));
  }
  // Whether the agent still serves a peer.
  void expectServing(unsigned fodo = 4000000) {
    Feature feature(socketPath());
    EXPECT_TRUE(feature.send(removeFodo(fodo)));
    EXPECT_TRUE(feature.receives("\"outcome\":\"success\""));
  }
};

TEST_F(AgentSocket, APeerGetsTheOutcomesOfItsOwnIntents) {
  const auto hardware = chip();
  const auto program = listeningAgent();
  Feature one(socketPath());
  Feature two(socketPath());
  EXPECT_TRUE(one.send(writeFodo(1, 1) + "\n# a comment\n" + writeFodo(2, 2)));
  EXPECT_TRUE(two.send(writeInner(1)));
  EXPECT_TRUE(two.receives("\n"));
  EXPECT_TRUE(one.receives("\"line\":4,"));
  EXPECT_EQ(two.seen(),
            R"({"source":"socket:2","line":1,"op":"write","table":"IsemInnerEth","unit":0,)"
            R"("key":{"tunnel":1,"vlan":1},"outcome":"success","version":1})"
            "\n");
  EXPECT_EQ(outcomes(one.seen()).size(), 2U);
  EXPECT_EQ(program.out(), "");
  // What one peer wrote another may name.
  EXPECT_TRUE(two.send(writeInner(2, afterFodo(2))));
  EXPECT_TRUE(two.receives("\"line\":2,"));
  ASSERT_EQ(outcomes(two.seen()).size(), 2U);
  EXPECT_EQ(outcomes(two.seen())[1]["outcome"], "success");
}

TEST_F(AgentSocket, APeerThatHasSentAllGetsTheRestAndTheEnd) {
  const auto program = listeningAgent();
  Feature feature(socketPath());
  std::string text;
  for (unsigned fodo = 1; fodo <= 3000; ++fodo) {
    text += writeFodo(fodo, 7);
  }
  EXPECT_TRUE(feature.send(text));
  feature.endSending();
  const auto hardware = chip();
  EXPECT_EQ(outcomes(feature.all()).size(), 3000U);
}

TEST_F(AgentSocket, AWrongLineIsAnsweredAndTheNextIsTaken) {
  const auto program = listeningAgent();
  Feature feature(socketPath());
  EXPECT_TRUE(feature.send("{\"op\":\"\xff\"}\n" + writeFodo(1, 70000) + removeFodo(1)));
  EXPECT_TRUE(feature.receives("\"line\":3,"));
  const auto answers = outcomes(feature.seen());
  ASSERT_EQ(answers.size(), 3U);
  EXPECT_THAT(answers[0]["error"].get<std::string>(), HasSubstr("ill-formed UTF-8"));
  EXPECT_EQ(answers[1]["error"], "payload.outLif is 70000: write a whole number from 0 to 65535");
  EXPECT_EQ(answers[2]["outcome"], "success");
}

TEST_F(AgentSocket, APeerThatSendsGarbageIsDropped) {
  const auto program = listeningAgent();
  Feature feature(socketPath());
  std::string garbage;
  for (unsigned i = 0; i < 1000; ++i) {
    garbage += "\x01\x02garbage\xff\n";
  }
  (void)feature.trySend(garbage);
  EXPECT_EQ(outcomes(feature.all()).size(), 20U);
  EXPECT_TRUE(
      program.says("socket:1 is dropped: 20 lines in a row are wrong, the last is line 20: "
                   "not JSON, "));
  expectServing();
}

TEST_F(AgentSocket, WrongLinesAmongGoodOnesAreNoGarbage) {
  const auto program = listeningAgent();
  Feature feature(socketPath());
  for (unsigned i = 0; i < 100; ++i) {
    EXPECT_TRUE(feature.send("nonsense\n" + removeFodo(1)));
  }
  EXPECT_TRUE(feature.receives("\"line\":200,"));
}

TEST_F(AgentSocket, APeerThatSendsAnEndlessLineIsDropped) {
  const auto program = listeningAgent();
  Feature feature(socketPath());
  const std::string piece(10000, 'x');
  EXPECT_TRUE(comesTrue([&] { return feature.trySend(piece) < 0 && errno != EAGAIN; }));
  EXPECT_TRUE(program.says("socket:1 is dropped: line 1 is longer than 65536 bytes"));
  expectServing();
}

TEST_F(AgentSocket, ALineWithoutItsEndIsLeftOut) {
  const auto program = listeningAgent();
  std::string line = writeFodo(1, 1);
  line.pop_back();
  {
    Feature feature(socketPath());
    EXPECT_TRUE(feature.send(line));
    feature.endSending();
    EXPECT_THAT(feature.all(), HasSubstr("the line has no end: send one, the line is left out"));
  }
  {
    Feature feature(socketPath());
    EXPECT_TRUE(feature.send(line.substr(0, 30)));
  }
  EXPECT_TRUE(program.says("socket:2:1: the peer has ended in the middle of a line"));
  EXPECT_EQ(summaryOf(program, "s")["intents"]["accepted"], 0);
}

TEST_F(AgentSocket, WhatAPeerThatWentAwayHadSentGoesOn) {
  auto program = listeningAgent();
  {
    Feature feature(socketPath());
    std::string text;
    for (unsigned fodo = 1; fodo <= 100; ++fodo) {
      text += writeFodo(fodo, 7);
    }
    EXPECT_TRUE(feature.send(text));
    EXPECT_TRUE(comesTrue([&] { return summaryOf(program, "s")["intents"]["accepted"] == 100; }));
  }
  const auto hardware = chip();
  EXPECT_TRUE(comesTrue([&] { return summaryOf(program, "s")["intents"]["succeeded"] == 100; }));
  EXPECT_TRUE(program.says("socket:1 is dropped: "));
  expectServing();
  program.kill(SIGTERM);
  EXPECT_EQ(program.ends(), 0);
  EXPECT_NE(access(socketPath().c_str(), F_OK), 0) << "the socket's file is left";
}

TEST_F(AgentSocket, APeerThatTakesNoOutcomesIsDroppedAndHoldsNobodyUp) {
  const auto program = listeningAgent({"--peer-timeout", "1"});
  Feature slow(socketPath());
  // Each line has its outcome at once; the socket's buffers fill, and then the agent stops reading.
  std::string text;
  for (unsigned fodo = 1; fodo <= 1000; ++fodo) {
    text += removeFodo(fodo);
  }
  unsigned sent = 0;
  EXPECT_TRUE(comesTrue([&] {
    const ssize_t count = slow.trySend(text);
    sent += count > 0 ? static_cast<unsigned>(count) : 0;
    if (sent < 1000000) {
      return count < 0 && errno == EPIPE;
    }
    return true;
  }));
  expectServing();
  EXPECT_TRUE(program.says("socket:1 is dropped: it has taken no outcome for 1 s"));
  EXPECT_LT(sent, 1000000U) << "the agent holds whatever it is sent";
  expectServing(4000001);
}

TEST_F(AgentSocket, APeerThatReadsSlowlyGetsEverything) {
  const auto program = listeningAgent();
  Feature feature(socketPath());
  constexpr unsigned kLines = 20000;
  std::thread sender([&] {
    for (unsigned fodo = 1; fodo <= kLines; ++fodo) {
      (void)feature.send(removeFodo(fodo));
    }
    feature.endSending();
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_EQ(outcomes(feature.all()).size(), kLines);
  sender.join();
}

TEST_F(AgentSocket, AnAgentThatIsStoppedGivesEveryOutcomeOnceAtMost) {
  for (int round = 0; round < 5; ++round) {
    auto program = listeningAgent();
    Feature feature(socketPath());
    std::string burst;
    for (unsigned i = 0; i < 1000; ++i) {
      burst += removeFodo(i + 1);
    }
    EXPECT_TRUE(feature.send(burst));
    EXPECT_TRUE(feature.receives("\n"));
    program.kill(SIGTERM);
    std::set<std::uint64_t> answered;
    for (const Json& outcome : outcomes(feature.all())) {
      EXPECT_TRUE(answered.insert(outcome["line"].get<std::uint64_t>()).second) << outcome;
    }
    EXPECT_GE(program.ends(), 0);
  }
}

TEST_F(AgentSocket, TooManyPeersAreTurnedAway) {
  const auto program = listeningAgent();
  std::vector<std::unique_ptr<Feature>> features;
  for (unsigned i = 0; i < 64; ++i) {
    features.push_back(std::make_unique<Feature>(socketPath()));
    EXPECT_TRUE(features.back()->send(removeFodo(1)));
    EXPECT_TRUE(features.back()->receives("success"));
  }
  Feature late(socketPath());
  EXPECT_THAT(late.all(), HasSubstr("too many peers"));
  features.pop_back();
  EXPECT_TRUE(comesTrue([&] {
    Feature again(socketPath());
    return again.trySend(removeFodo(1)) > 0 && again.receives("success");
  }));
}

TEST_F(AgentSocket, ASocketThatNobodyListensOnIsTakenOver) {
  {
    auto program = listeningAgent();
    expectServing();
    program.kill(SIGKILL);
    EXPECT_EQ(program.ends(), 1000 + SIGKILL);
  }
  EXPECT_EQ(access(socketPath().c_str(), F_OK), 0);
  const auto program = listeningAgent();
  expectServing();
}

TEST_F(AgentSocket, AnotherListenerOrAFileIsLeftAlone) {
  const auto program = listeningAgent();
  expectServing();
  auto second = agent({"--name", "other", "--socket", socketPath()});
  EXPECT_EQ(second.ends(), 1);
  EXPECT_THAT(second.err(),
              HasSubstr(socketPath() + ": cannot listen: another process listens there: end it, "));
  expectServing();

  const std::string plain = file("plain", "precious");
  auto third = agent({"--name", "other", "--socket", plain});
  EXPECT_EQ(third.ends(), 1);
  EXPECT_THAT(third.err(), HasSubstr("what stands there is no socket"));
  EXPECT_EQ(AgentTest::contentOf(plain), "precious");

  auto fourth = agent({"--name", "other", "--socket", path(std::string(200, 'x'))});
  EXPECT_EQ(fourth.ends(), 1);
  EXPECT_THAT(fourth.err(), HasSubstr("the name is too long for a socket"));
}

}  // namespace
