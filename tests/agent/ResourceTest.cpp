#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>

#include "Resources.h"

// Events of resources, as a feature or a file tells them to an agent with a chip.

namespace {

using namespace AgentTest;
using testing::HasSubstr;
using testing::Not;

class AgentResources : public AgentTest::WithResources {
 protected:
  // The first index of each interface that entries of a table have on the chip, by attachment
  // circuit: entries of one circuit have to agree. The circuit stands in the thousands of the VLAN.
  [[nodiscard]] std::map<unsigned, unsigned> indexes(const Program& hardware) const {
    std::map<unsigned, unsigned> all;
    for (const Json& entry : onChip(hardware, "Isem1Tag")) {
      const unsigned circuit = entry["key"]["vlan"].get<unsigned>() / 1000;
      const auto index = entry["inLif0Index"].get<unsigned>();
      EXPECT_EQ(entry["inLif1Index"], index + 1) << entry;
      EXPECT_EQ(all.emplace(circuit, index).first->second, index) << entry;
    }
    return all;
  }
};

TEST_F(AgentResources, AChangeRewritesEveryUserOnTheChip) {
  const auto hardware = programmedChip();
  const auto program = listeningAgent();
  Feature feature(socketPath());
  std::string intents;
  for (unsigned i = 0; i < 300; ++i) {
    intents += writeIsem(1000 + i, 1) + writeIsem(2000 + i, 2);
  }
  ASSERT_TRUE(feature.send(intents));
  ASSERT_TRUE(feature.receives("\"line\":599,"));
  ASSERT_TRUE(feature.receives("\"line\":600,"));
  const auto before = indexes(hardware);
  ASSERT_EQ(before.size(), 2U);
  sendAndWait(feature, circuitEvent(1, "change"), 601);
  EXPECT_EQ(all(feature, 601)[0],
            Json::parse(R"({"source":"socket:1","line":601,"op":"resource",)"
                        R"("resource":"inLifIndex","key":{"attachmentCircuit":1,"outerVlan":0,)"
                        R"("innerVlan":0,"bridgeDomain":0,"tunnel":0,"vrf":0,"flowLabel":0,)"
                        R"("encapId":0,"etherType":2048,"encapKind":6},"event":"change",)"
                        R"("outcome":"success"})"));
  // Nothing has to be said for the chip to hear of it.
  EXPECT_TRUE(comesTrue([&] {
    const Json table = tableOf(summaryOf(program, "s"), "Isem1Tag", 0);
    return table["tableVersion"] == 900 && table["lastCleanedVersion"] == 900;
  }));
  const auto after = indexes(hardware);
  EXPECT_NE(after.at(1), before.at(1));
  EXPECT_NE(after.at(1), before.at(2));
  EXPECT_EQ(after.at(2), before.at(2));
}

TEST_F(AgentResources, AChangeGoesToEveryTableAndUnitThatUsesIt) {
  const auto hardware = programmedChip();
  const auto program = listeningAgent({"--units", "2"});
  Feature feature(socketPath());
  const auto ofUnit = [](unsigned unit) {
    const std::string rest = R"("unit":)" + std::to_string(unit);
    const std::string circuit = R"(,"resources":{"attachmentCircuit":5}})"
                                "\n";
    return R"({"op":"write","table":"Isem2Tag",)" + rest +
           R"(,"key":{"port":1,"outerVlan":2,"innerVlan":3})" + circuit +
           R"({"op":"write","table":"IsemUntagged",)" + rest + R"(,"key":{"port":1})" + circuit +
           R"({"op":"write","table":"IsemMpls",)" + rest +
           R"(,"key":{"label":16,"labelSpace":0,"port":1})" + circuit;
  };
  const auto indexesOn = [&] {
    std::multiset<unsigned> all;
    for (const std::string table : {"Isem2Tag", "IsemUntagged", "IsemMpls"}) {
      for (const Json& entry : onChip(hardware, table)) {
        all.insert(entry["inLif0Index"].get<unsigned>());
      }
    }
    return all;
  };
  ASSERT_TRUE(feature.send(ofUnit(0) + ofUnit(1)));
  for (unsigned line = 1; line <= 6; ++line) {
    ASSERT_TRUE(feature.receives("\"line\":" + std::to_string(line) + ","));
  }
  const auto before = indexesOn();
  ASSERT_EQ(before.size(), 6U);
  EXPECT_EQ(before.count(*before.begin()), 6U);
  sendAndWait(feature, circuitEvent(5, "change"), 7);
  EXPECT_TRUE(comesTrue([&] { return indexesOn().count(*before.begin()) == 0; }));
  const auto after = indexesOn();
  EXPECT_EQ(after.count(*after.begin()), 6U);
}

TEST_F(AgentResources, AChangeThatCanNotBeIsSaidInWords) {
  const auto hardware = programmedChip();
  const auto program = listeningAgent();
  Feature feature(socketPath());
  sendAndWait(feature, vlanEvent(7, "change"), 1);
  EXPECT_EQ(all(feature, 1)[0]["outcome"], "failed");
  EXPECT_EQ(all(feature, 1)[0]["reason"], "nobody has this resource");
  std::string intents;
  for (unsigned vlan = 1; vlan <= 255; ++vlan) {
    intents += writeVd(vlan, withVlan(vlan));
  }
  sendAndWait(feature, intents, 256);
  sendAndWait(feature, vlanEvent(7, "change"), 257);
  EXPECT_EQ(all(feature, 257)[0]["outcome"], "failed");
  EXPECT_THAT(all(feature, 257)[0]["reason"].get<std::string>(),
              HasSubstr("no other index is free: all 255 are taken"));
  sendAndWait(feature, vlanEvent(7, "refuse") + vlanEvent(7, "change"), 259);
  EXPECT_EQ(all(feature, 259)[0]["reason"], "this resource is refused: allow it first");
  const Json summary = summaryOf(program, "s");
  EXPECT_EQ(summary["resourceEvents"], Json::parse(R"({"applied":1,"failed":3})"));
  EXPECT_EQ(summary["intents"]["accepted"], 255) << "events are no intents";
  EXPECT_EQ(summary["intents"]["failed"], 0);
}

TEST_F(AgentResources, WhatIsRefusedCanNotBeHadUntilItIsAllowed) {
  const auto hardware = programmedChip();
  const auto program = listeningAgent();
  Feature feature(socketPath());
  sendAndWait(feature, writeVd(1, withRemark("Lag5")), 1);
  sendAndWait(feature, remarkEvent("Lag5", "refuse"), 2);
  sendAndWait(feature, writeVd(2, withRemark("Lag5")), 3);
  EXPECT_EQ(all(feature, 3)[0],
            Json::parse(R"({"source":"socket:1","line":3,"op":"write","table":"EsemFodoVd",)"
                        R"("unit":0,"key":{"fodo":2,"vlanDomain":1,"port":1},"outcome":"failed",)"
                        R"("version":0,"reason":"remarkProfile is refused"})"));
  EXPECT_EQ(onChip(hardware, "EsemFodoVd").size(), 1U) << "who has it keeps it";
  sendAndWait(feature, remarkEvent("Lag5", "allow"), 4);
  ASSERT_TRUE(feature.receives("\"again\":true"));
  const auto told = all(feature, 3);
  ASSERT_EQ(told.size(), 2U);
  EXPECT_EQ(told[1],
            Json::parse(R"({"source":"socket:1","line":3,"op":"write","table":"EsemFodoVd",)"
                        R"("unit":0,"key":{"fodo":2,"vlanDomain":1,"port":1},"outcome":"success",)"
                        R"("version":2,"again":true})"));
  const auto entries = onChip(hardware, "EsemFodoVd");
  ASSERT_EQ(entries.size(), 2U);
  EXPECT_EQ(entries[0]["remarkProfile"], entries[1]["remarkProfile"]);
}

TEST_F(AgentResources, PrepareHoldsUpTheTableUntilItIsReady) {
  const auto hardware = programmedChip();
  const auto program = listeningAgent();
  Feature feature(socketPath());
  sendAndWait(feature, vlanEvent(7, "prepare"), 1);
  ASSERT_TRUE(feature.send(writeVd(1, withVlan(7)) + writeVd(2, "") + writeVd(3, withVlan(8))));
  sendAndWait(feature, writeFodo(1, 1), 5);
  EXPECT_EQ(intentsOf(program)["inFlight"], 3) << "another table goes on";
  EXPECT_EQ(tableOf(summary("s"), "EsemFodoVd", 0)["tableVersion"], 0);
  sendAndWait(feature, vlanEvent(7, "confirm"), 6);
  sendAndWait(feature, writeFodo(2, 1), 7);
  EXPECT_EQ(intentsOf(program)["inFlight"], 3);
  sendAndWait(feature, vlanEvent(7, "ready"), 8);
  for (unsigned line = 2; line <= 4; ++line) {
    ASSERT_TRUE(feature.receives("\"line\":" + std::to_string(line) + ","));
    EXPECT_EQ(all(feature, line)[0]["outcome"], "success");
  }
  // One that has its index keeps it.
  sendAndWait(feature, vlanEvent(7, "prepare") + writeVd(4, withVlan(7)), 10);
  EXPECT_EQ(all(feature, 10)[0]["outcome"], "success");
}

TEST_F(AgentResources, ADeadlineEndsTheWaitForWhatIsNotReady) {
  const auto hardware = programmedChip();
  const auto program = listeningAgent({"--resource-deadline", "0.05"});
  Feature feature(socketPath());
  sendAndWait(feature, vlanEvent(7, "prepare"), 1);
  ASSERT_TRUE(feature.send(writeVd(1, withVlan(7)) + writeVd(2, "")));
  ASSERT_TRUE(feature.receives("\"line\":2,"));
  ASSERT_TRUE(feature.receives("\"line\":3,"));
  EXPECT_EQ(all(feature, 2)[0]["outcome"], "failed");
  EXPECT_EQ(all(feature, 2)[0]["reason"], "vlanEditProfile was not ready in time");
  EXPECT_EQ(all(feature, 3)[0]["outcome"], "success") << "what stands behind it goes on";
  // It comes after all.
  sendAndWait(feature, vlanEvent(7, "ready"), 4);
  ASSERT_TRUE(feature.receives("\"again\":true"));
  EXPECT_EQ(all(feature, 2)[1]["outcome"], "success");
}

TEST_F(AgentResources, WrongLinesChangeNothing) {
  const auto hardware = programmedChip();
  const std::string lines = remarkEvent("Eth5", "refuse") + remarkEvent("Lag5", "refused") +
                            eventOf("remark", "\"Lag5\"", "refuse") + remarkEvent("", "refuse") +
                            R"({"op":"resource","resource":"remarkProfile","event":"refuse"})" +
                            "\n" + R"({"op":"resource","resource":"remarkProfile","key":"Lag5",)" +
                            R"("event":"refuse","unit":0})" + "\n";
  const std::string inFile = file("in", lines + writeVd(1, withRemark("Lag5")));
  auto program = agent({"--intents", inFile, "--exit-when-done"});
  EXPECT_EQ(program.ends(), 2);
  const std::string err = program.err();
  const auto said = [&](unsigned line, const std::string& text) {
    EXPECT_THAT(err, HasSubstr(inFile + ":" + std::to_string(line) + ": " + text));
  };
  said(1, "key: ");
  said(2, "event is \"refused\": write \"change\", ");
  said(3, "resource is \"remark\": write \"inLifIndex\", ");
  said(4, "key");
  said(5, "key is missing: write an interface name");
  said(6, "\"unit\" is no part of an event of a resource");
  EXPECT_EQ(outcomes(program.out()).size(), 1U);
  EXPECT_EQ(outcomeOf(program.out(), 7)["outcome"], "success");

  const auto listening = listeningAgent();
  Feature feature(socketPath());
  sendAndWait(feature, remarkEvent("Lag5", "refused"), 1);
  EXPECT_THAT(all(feature, 1)[0]["error"].get<std::string>(),
              HasSubstr("event is \"refused\": write \"change\", "));
}

TEST_F(AgentResources, AnEventThatFailsShowsInTheExitStatus) {
  const auto hardware = programmedChip();
  auto program = agent({"--intents", file("in", vlanEvent(7, "change")), "--exit-when-done"});
  EXPECT_EQ(program.ends(), 3);
  auto second = agent({"--intents", file("in", vlanEvent(7, "refuse")), "--exit-when-done"});
  EXPECT_EQ(second.ends(), 0);
}

TEST_F(AgentResources, AnEventHoldsForTheRunOfTheAgent) {
  const auto hardware = programmedChip();
  for (unsigned run = 1; run <= 2; ++run) {
    auto program = listeningAgent();
    Feature feature(socketPath());
    // Nobody has the VLAN when it is prepared: the next run is the first to ask for it.
    const std::string vlan = withVlan(5 + run) + ",";
    sendAndWait(feature, writeVd(run, vlan + withRemark("Lag5")), 1);
    EXPECT_EQ(all(feature, 1)[0]["outcome"], "success");
    sendAndWait(feature, remarkEvent("Lag5", "refuse") + vlanEvent(7, "prepare"), 3);
    EXPECT_EQ(all(feature, 2)[0]["outcome"], "success");
    EXPECT_EQ(all(feature, 3)[0]["outcome"], "success");
    program.kill(SIGTERM);
    EXPECT_EQ(program.ends(), 0);
  }
}

class AgentFoldsEvents : public AgentResources {
 protected:
  int runs(const std::string& lines) {
    auto program = agent({"--intents", file("in", lines), "--exit-when-done", "--timeout", "30",
                          "--summary", path("s")});
    const int status = program.ends();
    out_ = program.out();
    err_ = program.err();
    return status;
  }

  std::string out_;
  std::string err_;
};

TEST_F(AgentFoldsEvents, AChangeOfAnEarlierRunHasHappened) {
  const auto hardware = programmedChip();
  const std::string lines = writeIsem(1000, 1) + writeIsem(2000, 2) + circuitEvent(1, "change");
  ASSERT_EQ(runs(lines), 0) << err_;
  const auto before = indexes(hardware);
  EXPECT_EQ(before.at(1), 5U) << "over empty tables it is carried out";
  const auto version = tableOf(summary("s"), "Isem1Tag", 0)["tableVersion"];
  ASSERT_EQ(runs(lines), 0) << err_;
  EXPECT_EQ(indexes(hardware), before);
  EXPECT_EQ(tableOf(summary("s"), "Isem1Tag", 0)["tableVersion"], version);
  EXPECT_EQ(outcomeOf(out_, 3)["outcome"], "success");
  EXPECT_EQ(outcomes(out_).size(), 3U);
  // Not even if it could not be: nobody has this one.
  ASSERT_EQ(runs(lines + circuitEvent(3, "change")), 0) << err_;
  EXPECT_EQ(outcomeOf(out_, 4)["outcome"], "success");
  EXPECT_EQ(summary("s")["resourceEvents"], Json::parse(R"({"applied":2,"failed":0})"));
}

TEST_F(AgentFoldsEvents, TheLastWordOnAResourceCounts) {
  const auto hardware = programmedChip();
  ASSERT_EQ(runs(writeFodo(1, 1)), 0) << err_;
  // Each would stop an entry if it were the last word.
  const std::string lines = remarkEvent("Lag1", "refuse") + remarkEvent("Lag2", "allow") +
                            vlanEvent(1, "prepare") + vlanEvent(1, "confirm") +
                            writeVd(1, withVlan(1) + "," + withRemark("Lag1")) +
                            writeVd(2, withVlan(2) + "," + withRemark("Lag2")) + writeFodo(1, 1) +
                            remarkEvent("Lag1", "allow") + vlanEvent(1, "ready");
  ASSERT_EQ(runs(lines), 0) << err_;
  EXPECT_EQ(onChip(hardware, "EsemFodoVd").size(), 2U);
  EXPECT_EQ(outcomes(out_).size(), 9U);
  for (const Json& one : outcomes(out_)) {
    EXPECT_EQ(one["outcome"], "success") << one;
  }
  // And it counts before the first intent: also for what stands before it.
  EXPECT_EQ(runs(writeVd(3, withRemark("Lag3")) + remarkEvent("Lag3", "refuse") +
                 writeVd(4, withRemark("Lag4"))),
            3);
  EXPECT_EQ(outcomeOf(out_, 1)["reason"], "remarkProfile is refused");
  EXPECT_EQ(outcomeOf(out_, 2)["outcome"], "success");
  EXPECT_EQ(outcomeOf(out_, 3)["outcome"], "success");
}

// A refusal and what is said of being ready are two things.
TEST_F(AgentFoldsEvents, ARefusalOutlastsThatItIsReady) {
  const auto hardware = programmedChip();
  ASSERT_EQ(runs(writeFodo(1, 1)), 0) << err_;
  EXPECT_EQ(runs(remarkEvent("Lag1", "refuse") + remarkEvent("Lag1", "ready") +
                 writeVd(1, withRemark("Lag1"))),
            3);
  EXPECT_EQ(outcomeOf(out_, 3)["reason"], "remarkProfile is refused");
}

// One that is lost in the folding would hold its table up for ever.
TEST_F(AgentFoldsEvents, WhatStandsBehindTheFoldedIsTakenAsItComes) {
  const auto hardware = programmedChip();
  ASSERT_EQ(runs(writeFodo(1, 1)), 0) << err_;
  auto program = agent({"--intents", file("in", vlanEvent(1, "prepare") + writeVd(1, withVlan(1))),
                        "--intents", "-", "--summary", path("s")},
                       Input::pipe);
  EXPECT_TRUE(program.prints("\"line\":1,"));
  EXPECT_TRUE(comesTrue([&] { return intentsOf(program)["inFlight"] == 1; }));
  program.write(vlanEvent(1, "ready"));
  EXPECT_TRUE(program.prints("\"line\":2,"));
}

TEST_F(AgentResources, WhoGivesUpSaysWhatItWaitedFor) {
  const auto hardware = programmedChip();
  const std::string inFile = file("in", vlanEvent(7, "prepare") + writeVd(1, withVlan(7)) +
                                            remarkEvent("Lag5", "confirm") +
                                            writeVd(2, withRemark("Lag5")) + writeVd(3, ""));
  auto program = agent({"--intents", inFile, "--exit-when-done", "--timeout", "0.3"});
  EXPECT_EQ(program.ends(), 4);
  EXPECT_THAT(program.err(), HasSubstr(inFile + ":2: write EsemFodoVd, unit 0, key {\"fodo\":1,"));
  EXPECT_THAT(program.err(),
              HasSubstr(": waits for vlanEditProfile {\"untagged\":{\"outerAction\""));
  EXPECT_THAT(program.err(), HasSubstr("}}: being prepared\n"));
  EXPECT_THAT(program.err(), HasSubstr(": waits for remarkProfile \"Lag5\": being confirmed\n"));
  EXPECT_THAT(program.err(),
              HasSubstr(":5: write EsemFodoVd, unit 0, key {\"fodo\":3,\"vlanDomain\":1,"
                        "\"port\":1}: waits for EsemFodoVd, unit 0, key {\"fodo\":1,"
                        "\"vlanDomain\":1,\"port\":1}, which is before it in the queue\n"));
}

}  // namespace
