#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "KelpEmServer/TableCatalogue.h"
#include "Resources.h"
#include "common/StoreReader.h"
#include "common/Tables.h"

// Writes that fail for want of a resource, and are written again when there is one.

namespace {

using namespace AgentTest;
using testing::HasSubstr;
using testing::Not;

const std::string kRemoveAllVd = R"({"op":"removeAll","table":"EsemFodoVd","unit":0})"
                                 "\n";
const std::string kReplayComplete = R"({"op":"replayComplete"})"
                                    "\n";

class AgentRetries : public AgentTest::WithResources {
 protected:
  // The keys of EsemFodoVd that the chip holds.
  [[nodiscard]] std::vector<unsigned> fodosOn(const Program& hardware) const {
    std::vector<unsigned> fodos;
    for (const Json& entry : onChip(hardware, "EsemFodoVd")) {
      fodos.push_back(entry["key"]["fodo"].get<unsigned>());
    }
    std::sort(fodos.begin(), fodos.end());
    return fodos;
  }
  // Whether a line has had two outcomes: the first failed, the second, marked so, this one.
  static void expectAgain(Feature& feature, unsigned line, const std::string& outcome) {
    while (all(feature, line).size() < 2 && feature.receivesMore()) {
    }
    const auto told = all(feature, line);
    ASSERT_EQ(told.size(), 2U) << line;
    EXPECT_EQ(told[0]["outcome"], "failed");
    EXPECT_FALSE(told[0].contains("again"));
    EXPECT_EQ(told[1]["outcome"], outcome);
    EXPECT_EQ(told[1]["again"], true);
  }
  // What has had one outcome, and will have no other: something behind it has.
  static void expectOnce(const Feature& feature, unsigned line) {
    EXPECT_EQ(all(feature, line).size(), 1U) << line;
  }
  // Ends the agent, and starts another one, which has been told that there is nothing else.
  void expectKept(const Program& hardware, const std::vector<unsigned>& fodos) {
    const auto program = listeningAgent();
    Feature feature(socketPath());
    sendAndWait(feature, kReplayComplete, 1);
    EXPECT_TRUE(comesTrue([&] { return fodosOn(hardware) == fodos; }));
    EXPECT_EQ(fodosOn(hardware), fodos);
  }
};

TEST_F(AgentRetries, WhoWaitsForAProfileGetsItInItsTurn) {
  const auto hardware = programmedChip();
  const auto program = listeningAgent();
  Feature feature(socketPath());
  std::string intents;
  for (unsigned vlan = 1; vlan <= 258; ++vlan) {
    intents += writeVd(vlan, withVlan(vlan));
  }
  sendAndWait(feature, intents, 255);
  for (unsigned line = 256; line <= 258; ++line) {
    ASSERT_TRUE(feature.receives("\"line\":" + std::to_string(line) + ","));
    EXPECT_EQ(all(feature, line)[0]["outcome"], "failed");
    EXPECT_EQ(all(feature, line)[0]["reason"], "no vlanEditProfile is free");
  }
  EXPECT_EQ(intentsOf(program)["waitingForResources"], 3);
  // A new one has to wait behind them.
  sendAndWait(feature, writeVd(259, withVlan(259)), 259);
  sendAndWait(feature, removeVd(7) + removeVd(8), 261);
  expectAgain(feature, 256, "success");
  expectAgain(feature, 257, "success");
  const Json figures = intentsOf(program);
  EXPECT_EQ(figures["waitingForResources"], 2);
  EXPECT_EQ(figures["cameThroughAgain"], 2);
  EXPECT_EQ(figures["accepted"], 261);
  EXPECT_EQ(figures["succeeded"], 257);
  EXPECT_EQ(figures["failed"], 4);
  expectOnce(feature, 258);
  expectOnce(feature, 259);
  auto fodos = fodosOn(hardware);
  EXPECT_EQ(fodos.size(), 255U);
  EXPECT_EQ(fodos[253], 256U);
  EXPECT_EQ(fodos[254], 257U);
  // All that is there goes: so does what waits, or it would come now.
  sendAndWait(feature, kRemoveAllVd + writeVd(300, withVlan(300)), 263);
  EXPECT_TRUE(comesTrue([&] { return fodosOn(hardware) == std::vector<unsigned>{300}; }));
  EXPECT_EQ(intentsOf(program)["waitingForResources"], 0);
}

TEST_F(AgentRetries, ANewerIntentTakesThePlace) {
  const auto hardware = programmedChip();
  const auto program = listeningAgent();
  Feature feature(socketPath());
  sendAndWait(feature, remarkEvent("Lag1", "refuse"), 1);
  std::string intents;
  for (unsigned fodo = 1; fodo <= 4; ++fodo) {
    intents += writeVd(fodo, withRemark("Lag1"));
  }
  sendAndWait(feature, intents, 5);
  EXPECT_EQ(intentsOf(program)["waitingForResources"], 4);
  // Another value, nothing at all, and the same once more.
  sendAndWait(feature, writeVd(1, withRemark("Lag2")) + removeVd(2), 7);
  EXPECT_EQ(intentsOf(program)["waitingForResources"], 2);
  sendAndWait(feature, writeVd(3, withRemark("Lag1")), 8);
  EXPECT_EQ(intentsOf(program)["waitingForResources"], 2);
  sendAndWait(feature, remarkEvent("Lag1", "allow"), 9);
  expectAgain(feature, 5, "success");
  expectAgain(feature, 8, "success");
  for (const unsigned line : {2U, 3U, 4U, 6U, 7U}) {
    expectOnce(feature, line);
  }
  EXPECT_EQ(fodosOn(hardware), (std::vector<unsigned>{1, 3, 4}));
  EXPECT_EQ(intentsOf(program)["cameThroughAgain"], 2);
}

// The newer intent has come before the older one has failed.
TEST_F(AgentRetries, ANewerIntentThatIsOnItsWayTakesThePlaceToo) {
  const auto hardware = programmedChip();
  const auto program = listeningAgent();
  Feature feature(socketPath());
  sendAndWait(feature, remarkEvent("Lag1", "refuse") + vlanEvent(7, "prepare"), 2);
  // The first holds all of them up.
  ASSERT_TRUE(feature.send(writeVd(1, withVlan(7)) + writeVd(2, withRemark("Lag1")) +
                           writeVd(3, withRemark("Lag1")) + removeVd(2) + vlanEvent(7, "ready")));
  for (unsigned line = 3; line <= 7; ++line) {
    ASSERT_TRUE(feature.receives("\"line\":" + std::to_string(line) + ","));
  }
  EXPECT_EQ(all(feature, 4)[0]["reason"], "remarkProfile is refused");
  EXPECT_EQ(intentsOf(program)["waitingForResources"], 1);
  sendAndWait(feature, remarkEvent("Lag1", "allow"), 8);
  expectAgain(feature, 5, "success");
  expectOnce(feature, 4);
  EXPECT_EQ(fodosOn(hardware), (std::vector<unsigned>{1, 3}));
}

TEST_F(AgentRetries, ARemoveAllTakesThePlaceOfAllOnItsUnit) {
  const auto hardware = programmedChip();
  const auto program = listeningAgent({"--units", "2"});
  Feature feature(socketPath());
  sendAndWait(feature, remarkEvent("Lag1", "refuse"), 1);
  sendAndWait(feature,
              writeVd(1, withRemark("Lag1")) + writeVd(2, withRemark("Lag1")) +
                  writeVd(1, withRemark("Lag1"), 1),
              4);
  ASSERT_TRUE(feature.receives("\"line\":3,"));
  EXPECT_EQ(intentsOf(program)["waitingForResources"], 3);
  sendAndWait(feature, kRemoveAllVd, 5);
  EXPECT_EQ(intentsOf(program)["waitingForResources"], 1);
  sendAndWait(feature, remarkEvent("Lag1", "allow"), 6);
  expectAgain(feature, 4, "success");
  expectOnce(feature, 2);
  expectOnce(feature, 3);
  const auto entries = onChip(hardware, "EsemFodoVd");
  ASSERT_EQ(entries.size(), 1U);
  EXPECT_EQ(entries[0]["unit"], 1);
}

TEST_F(AgentRetries, ASecondFailureForWantOfAResourceIsNotTold) {
  const auto hardware = programmedChip();
  const auto program = listeningAgent();
  Feature feature(socketPath());
  sendAndWait(feature, remarkEvent("Lag1", "refuse"), 1);
  sendAndWait(feature, writeVd(1, withRemark("Lag1")) + writeVd(2, withRemark("Lag1")), 3);
  // Both are written again behind one that holds them up, so that they can fail again.
  ASSERT_TRUE(feature.send(vlanEvent(7, "prepare") + writeVd(3, withVlan(7)) +
                           remarkEvent("Lag1", "allow")));
  EXPECT_TRUE(comesTrue([&] { return intentsOf(program)["inFlight"] == 3; }));
  EXPECT_EQ(summary("s")["intents"]["waitingForResources"], 0);
  // For one of them there is something newer by then.
  sendAndWait(feature, remarkEvent("Lag1", "refuse"), 7);
  ASSERT_TRUE(feature.send(removeVd(2) + vlanEvent(7, "ready")));
  ASSERT_TRUE(feature.receives("\"line\":5,"));
  ASSERT_TRUE(feature.receives("\"line\":8,"));
  const Json figures = intentsOf(program);
  EXPECT_EQ(figures["waitingForResources"], 1);
  EXPECT_EQ(figures["failed"], 2) << "lines that failed";
  EXPECT_EQ(figures["inFlight"], 0);
  expectOnce(feature, 2);
  sendAndWait(feature, remarkEvent("Lag1", "allow"), 10);
  expectAgain(feature, 2, "success");
  expectOnce(feature, 3);
  EXPECT_EQ(fodosOn(hardware), (std::vector<unsigned>{1, 3}));
}

TEST_F(AgentRetries, TwoResourcesAreBothWaitedFor) {
  const auto hardware = programmedChip();
  const auto program = listeningAgent();
  Feature feature(socketPath());
  sendAndWait(feature, remarkEvent("Lag1", "refuse") + vlanEvent(1, "refuse"), 2);
  sendAndWait(feature, writeVd(1, withVlan(1) + "," + withRemark("Lag1")), 3);
  EXPECT_EQ(all(feature, 3)[0]["reason"], "vlanEditProfile is refused; remarkProfile is refused");
  sendAndWait(feature, writeVd(2, withVlan(1)), 4);
  sendAndWait(feature, vlanEvent(1, "allow"), 5);
  // Who needs that one only has it, so the other one has been looked at.
  expectAgain(feature, 4, "success");
  expectOnce(feature, 3);
  EXPECT_EQ(intentsOf(program)["waitingForResources"], 1);
  sendAndWait(feature, remarkEvent("Lag1", "allow"), 6);
  expectAgain(feature, 3, "success");
}

// Neither is kept from who can use it while the other one is missing.
TEST_F(AgentRetries, WhoWaitsForTwoResourcesHoldsNeither) {
  const auto hardware = programmedChip();
  const auto program = listeningAgent();
  Feature feature(socketPath());
  std::string intents = remarkEvent("Lag1", "refuse");
  for (unsigned vlan = 1; vlan <= 255; ++vlan) {
    intents += writeVd(vlan, withVlan(vlan));
  }
  sendAndWait(feature, intents, 256);
  sendAndWait(feature, writeVd(300, withVlan(300) + "," + withRemark("Lag1")), 257);
  sendAndWait(feature, writeVd(301, withVlan(301)), 258);
  sendAndWait(feature, removeVd(1), 259);
  expectAgain(feature, 258, "success");
  expectOnce(feature, 257);
  sendAndWait(feature, remarkEvent("Lag1", "allow") + removeVd(2), 261);
  expectAgain(feature, 257, "success");
}

TEST_F(AgentRetries, OtherFailuresAreForGood) {
  const auto hardware = programmedChip();
  const auto program = listeningAgent();
  Feature feature(socketPath());
  sendAndWait(feature, remarkEvent("Lag1", "refuse"), 1);
  const std::string after =
      R"(,"after":{"table":"EsemFodoVd","unit":0,"key":{"fodo":1,"vlanDomain":1,"port":1}})";
  // The second and third have failed with the first, whatever they name.
  sendAndWait(feature,
              writeVd(1, withRemark("Lag1")) + writeVd(2, withRemark("Lag1"), 0, after) +
                  writeIsem(3, 3, after),
              4);
  ASSERT_TRUE(feature.receives("\"line\":3,"));
  EXPECT_TRUE(all(feature, 2)[0].contains("reason"));
  EXPECT_FALSE(all(feature, 3)[0].contains("reason"));
  EXPECT_FALSE(all(feature, 4)[0].contains("reason"));
  EXPECT_EQ(intentsOf(program)["waitingForResources"], 1);
  sendAndWait(feature, remarkEvent("Lag1", "allow"), 5);
  expectAgain(feature, 2, "success");
  // From here on it is there to come after.
  sendAndWait(feature, writeVd(4, "", 0, after), 6);
  EXPECT_EQ(all(feature, 6)[0]["outcome"], "success");
  expectOnce(feature, 3);
  expectOnce(feature, 4);
  EXPECT_EQ(fodosOn(hardware), (std::vector<unsigned>{1, 4}));
}

TEST_F(AgentRetries, AFullTableIsNoWantOfAResource) {
  const auto hardware = programmedChip();
  std::string intents;
  for (unsigned i = 0; i < 0x10000; ++i) {
    intents += R"({"op":"write","table":"Isem1Tag","unit":0,"key":{"port":)" +
               std::to_string(i / 4096) + R"(,"vlan":)" + std::to_string(i % 4096) +
               R"(},"resources":{"attachmentCircuit":1}})" + "\n";
  }
  const auto program = listeningAgent({"--intents", file("in", intents), "--outcomes", "none"});
  Feature feature(socketPath());
  EXPECT_TRUE(comesTrue([&] { return intentsOf(program)["succeeded"] == 0x10000; }));
  const auto write = [](unsigned port) {
    return R"({"op":"write","table":"Isem1Tag","unit":0,"key":{"port":)" + std::to_string(port) +
           R"(,"vlan":1},"resources":{"attachmentCircuit":9}})" + "\n";
  };
  sendAndWait(feature, circuitEvent(9, "refuse") + write(100) + write(1), 3);
  ASSERT_TRUE(feature.receives("\"line\":2,"));
  EXPECT_EQ(all(feature, 2)[0]["outcome"], "failed");
  EXPECT_FALSE(all(feature, 2)[0].contains("reason"));
  EXPECT_EQ(all(feature, 3)[0]["reason"], "inLifIndex is refused") << "that key is there";
  EXPECT_EQ(intentsOf(program)["waitingForResources"], 1);
}

TEST_F(AgentRetries, WhatComesThroughIsKept) {
  const auto hardware = programmedChip();
  {
    auto program = listeningAgent();
    Feature feature(socketPath());
    sendAndWait(feature, remarkEvent("Lag1", "refuse") + remarkEvent("Lag2", "refuse"), 2);
    sendAndWait(feature, writeVd(1, withRemark("Lag1")) + writeVd(2, withRemark("Lag2")), 4);
    sendAndWait(feature, remarkEvent("Lag1", "allow"), 5);
    expectAgain(feature, 3, "success");
    program.kill(SIGKILL);
    (void)program.ends();
  }
  // Nor is the other one kept, which has failed.
  expectKept(hardware, {1});
}

TEST_F(AgentRetries, APeerThatHasGoneIsNotMissed) {
  const auto hardware = programmedChip();
  {
    auto program = listeningAgent();
    {
      Feature feature(socketPath());
      sendAndWait(feature, remarkEvent("Lag1", "refuse"), 1);
      sendAndWait(feature, writeVd(1, withRemark("Lag1")), 2);
      feature.endSending();
      (void)feature.all();
    }
    Feature other(socketPath());
    sendAndWait(other, remarkEvent("Lag1", "allow"), 1);
    EXPECT_TRUE(comesTrue([&] { return intentsOf(program)["cameThroughAgain"] == 1; }));
    EXPECT_EQ(fodosOn(hardware), std::vector<unsigned>{1});
    EXPECT_EQ(outcomes(other.seen()).size(), 1U) << "it is none of this one's";
    program.kill(SIGTERM);
    EXPECT_EQ(program.ends(), 3);
  }
  expectKept(hardware, {1});
}

TEST_F(AgentRetries, TheOldestAreGivenUp) {
  constexpr unsigned kMost = 16384;
  const auto hardware = programmedChip();
  std::string intents = circuitEvent(1, "refuse");
  for (unsigned i = 1; i <= kMost + 100; ++i) {
    intents += R"({"op":"write","table":"Isem1Tag","unit":0,"key":{"port":)" +
               std::to_string(i / 4096) + R"(,"vlan":)" + std::to_string(i % 4096) +
               R"(},"resources":{"attachmentCircuit":1}})" + "\n";
  }
  // Few go at a time, both ways.
  const auto program = listeningAgent({"--intents", file("in", intents), "--in-flight", "64"});
  Feature feature(socketPath());
  EXPECT_TRUE(comesTrue([&] { return intentsOf(program)["failed"] == kMost + 100; }));
  EXPECT_EQ(summary("s")["intents"]["waitingForResources"], kMost);
  sendAndWait(feature, circuitEvent(1, "allow"), 1);
  EXPECT_TRUE(comesTrue([&] {
    const Json figures = intentsOf(program);
    EXPECT_LE(figures["inFlight"], 64);
    return figures["cameThroughAgain"] == kMost;
  }));
  EXPECT_EQ(program.err(),
            "kelp-agent: more than 16384 failed writes wait for resources: the oldest are given "
            "up, write them again\n");
  EXPECT_TRUE(comesTrue([&] { return outcomes(program.out()).size() == 2 * kMost + 101; }));
  unsigned again = 0;
  for (const Json& one : outcomes(program.out())) {
    again += one.contains("again") ? 1 : 0;
    EXPECT_FALSE(one.contains("again") && one["line"] <= 101) << one;
  }
  EXPECT_EQ(again, kMost);
}

TEST_F(AgentRetries, TheEndOfARunDoesNotWaitForThem) {
  const auto hardware = programmedChip();
  std::string intents;
  for (unsigned vlan = 1; vlan <= 257; ++vlan) {
    intents += writeVd(vlan, withVlan(vlan));
  }
  auto program = agent(
      {"--intents", file("in", intents + removeVd(3)), "--exit-when-done", "--summary", path("s")});
  EXPECT_EQ(program.ends(), 3);
  // But for what has just got what it waited for.
  const Json figures = summary("s")["intents"];
  EXPECT_EQ(figures["waitingForResources"], 1);
  EXPECT_EQ(figures["cameThroughAgain"], 1);
  EXPECT_THAT(program.out(), HasSubstr("\"again\":true"));
  EXPECT_THAT(program.err(),
              HasSubstr("1 writes that failed still wait for their resources and are "
                        "given up: ask for them again"));
  EXPECT_EQ(fodosOn(hardware).size(), 255U);
}

TEST_F(AgentRetries, LinesThatWereReplacedAreToldAgainToo) {
  const auto hardware = programmedChip();
  {
    auto first = agent({"--intents", file("in", writeFodo(1, 1)), "--exit-when-done"});
    EXPECT_EQ(first.ends(), 0);
  }
  const auto program = listeningAgent(
      {"--intents", file("in", remarkEvent("Lag1", "refuse") + writeVd(1, withRemark("Lag2")) +
                                   writeVd(1, withRemark("Lag1")) + writeFodo(1, 1))});
  EXPECT_TRUE(program.prints("\"line\":4,"));
  Feature feature(socketPath());
  sendAndWait(feature, remarkEvent("Lag1", "allow"), 1);
  EXPECT_TRUE(comesTrue([&] { return intentsOf(program)["cameThroughAgain"] == 2; }));
  EXPECT_TRUE(comesTrue([&] { return outcomes(program.out()).size() == 6; }));
  for (const unsigned line : {2U, 3U}) {
    const auto all = outcomes(program.out());
    EXPECT_EQ(std::count_if(all.begin(), all.end(),
                            [&](const Json& one) {
                              return one["line"] == line && one["outcome"] == "failed" &&
                                     one["reason"] == "remarkProfile is refused";
                            }),
              1);
    EXPECT_EQ(std::count_if(all.begin(), all.end(),
                            [&](const Json& one) {
                              return one["line"] == line && one["outcome"] == "success" &&
                                     one.contains("again");
                            }),
              1);
  }
  EXPECT_EQ(fodosOn(hardware), std::vector<unsigned>{1});
}

// The hardware side has not taken in yet what it comes after.
TEST_F(AgentRetries, TheSecondTryComesAfterWhatTheFirstCameAfter) {
  const auto program = listeningAgent();
  Feature feature(socketPath());
  sendAndWait(feature, circuitEvent(1, "refuse"), 1);
  ASSERT_TRUE(feature.send(writeFodo(1, 1) + writeIsem(1, 1, afterFodo(1))));
  ASSERT_TRUE(feature.receives("\"line\":3,"));
  sendAndWait(feature, circuitEvent(1, "allow"), 4);
  EXPECT_TRUE(comesTrue(
      [&] { return tableOf(summaryOf(program, "s"), "Isem1Tag", 0)["tableVersion"] == 1; }));
  BrioSharedMem::EntityManager::rootIs("kelp", root_.path());
  const auto memory = BrioSharedMem::EntityManager::getEntityManager("kelp", false);
  const auto needed = Common::openNeeded(*memory, Common::tableId(*Common::findTable("Isem1Tag")));
  unsigned needs = 0;
  Common::forEachRecord(needed->map(), [&](const auto&) { ++needs; });
  EXPECT_EQ(needs, 1U);
}

}  // namespace
