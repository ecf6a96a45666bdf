#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>

#include "Feature.h"
#include "Programs.h"

// What a start does with what an earlier run has left: agents and hardware sides as processes.

namespace {

using AgentTest::afterFodo;
using AgentTest::comesTrue;
using AgentTest::contentOf;
using AgentTest::Feature;
using AgentTest::Json;
using AgentTest::outcomeOf;
using AgentTest::outcomes;
using AgentTest::Program;
using AgentTest::removeFodo;
using AgentTest::writeFodo;
using AgentTest::writeInner;
using testing::HasSubstr;
using testing::Not;

const std::string kRemoveAllFodo = R"({"op":"removeAll","table":"EsemFodo","unit":0})"
                                   "\n";
const std::string kReplayComplete = R"({"op":"replayComplete"})"
                                    "\n";

class AgentReplay : public AgentTest::WithStore {
 protected:
  [[nodiscard]] std::string socketPath() const { return path("agent.sock"); }
  Program programmedChip() {
    return chip({"--summary", path("chip.json"), "--model", path("model.jsonl")});
  }
  // What has been done on the chip so far, by table: entries programmed, overwritten and deleted.
  [[nodiscard]] std::map<std::string, std::vector<unsigned>> programmed(const Program& hardware) {
    std::map<std::string, std::vector<unsigned>> all;
    const Json summary = chipSummary(hardware);
    for (const Json& table : summary["tables"]) {
      std::vector<unsigned>& of = all[table["table"]];
      of = {0, 0, 0};
      for (const Json& unit : table["units"]) {
        of[0] += unit["programmed"].get<unsigned>();
        of[1] += unit["overwritten"].get<unsigned>();
        of[2] += unit["deleted"].get<unsigned>();
      }
    }
    return all;
  }
  // The chip's entries of EsemFodo on unit 0: fodo and outLif.
  [[nodiscard]] std::map<unsigned, unsigned> fodosOn(const Program& hardware) {
    EXPECT_TRUE(chipSummary(hardware)["check"]["same"].get<bool>());
    std::map<unsigned, unsigned> fodos;
    std::istringstream lines(contentOf(path("model.jsonl")));
    for (std::string line; std::getline(lines, line);) {
      const Json one = Json::parse(line);
      if (one["table"] == "EsemFodo" && one["unit"] == 0) {
        fodos[one["entry"]["fodo"].get<unsigned>()] = one["entry"]["outLif"].get<unsigned>();
      }
    }
    return fodos;
  }
  // Runs an agent on a file of intents to its end.
  int runs(const std::string& intents, std::vector<std::string> more = {}) {
    more.insert(more.end(),
                {"--intents", file("in", intents), "--exit-when-done", "--summary", path("s")});
    auto program = agent(std::move(more));
    const int status = program.ends();
    out_ = program.out();
    err_ = program.err();
    return status;
  }
  [[nodiscard]] Json replayOf(const std::string& table) const {
    const Json all = summary("s");
    for (const Json& one : all["replay"]["tables"]) {
      if (one["table"] == table) {
        return one;
      }
    }
    return {};
  }
  [[nodiscard]] std::map<std::string, unsigned> versions() const {
    std::map<std::string, unsigned> all;
    const Json summarised = summary("s");
    for (const Json& one : summarised["tables"]) {
      all[one["table"]] = one["tableVersion"];
    }
    return all;
  }
  Program listeningAgent(std::vector<std::string> arguments = {}) {
    arguments.insert(arguments.end(), {"--socket", socketPath(), "--summary", path("s")});
    return agent(std::move(arguments));
  }

  std::string out_;
  std::string err_;

 private:
  [[nodiscard]] Json chipSummary(const Program& hardware) {
    unlink(path("chip.json").c_str());
    unlink(path("model.jsonl").c_str());
    hardware.kill(SIGUSR1);
    EXPECT_TRUE(comesTrue([&] { return access(path("model.jsonl").c_str(), F_OK) == 0; }));
    return Json::parse(contentOf(path("chip.json")));
  }
};

// With rewrites, removes, remove-alls and dependencies, on all tables and two units.
TEST_F(AgentReplay, ASecondStartWithTheSameIntentsLeavesLogsAndChipAlone) {
  const auto hardware = programmedChip();
  const std::string intents =
      contentOf(KELP_EXAMPLES "/tables.jsonl") + contentOf(KELP_EXAMPLES "/life.jsonl") +
      writeFodo(1, 1, "", 1) + writeFodo(2, 1) + kRemoveAllFodo + writeFodo(2, 2) +
      writeInner(1, afterFodo(2)) + writeFodo(2, 3) + writeInner(2, afterFodo(2)) +
      writeFodo(3, 3) + removeFodo(3) + writeInner(3, afterFodo(3)) + writeFodo(3, 4);
  ASSERT_EQ(runs(intents, {"--units", "2"}), 0) << err_;
  EXPECT_EQ(err_, "");
  const auto written = outcomes(out_).size();
  const auto before = versions();
  const auto chipBefore = programmed(hardware);
  const Json tables = summary("s")["tables"];
  for (unsigned again = 0; again < 2; ++again) {
    EXPECT_EQ(runs(intents, {"--units", "2"}), 0) << err_;
    EXPECT_EQ(versions(), before);
    EXPECT_EQ(programmed(hardware), chipBefore);
    // Every line has its outcome, those that a later one replaces too.
    EXPECT_EQ(outcomes(out_).size(), written);
    for (const Json& one : outcomes(out_)) {
      EXPECT_EQ(one["outcome"], "success") << one;
    }
    unsigned restored = 0;
    for (const Json& one : tables) {
      restored += one["entries"].get<unsigned>();
    }
    EXPECT_EQ(err_, "kelp-agent: replay complete: " + std::to_string(restored) +
                        " entries restored; " + std::to_string(restored) +
                        " writes identical, 0 not; 0 entries swept, 0 units cleared\n");
  }
  EXPECT_TRUE(summary("s")["replay"]["complete"].get<bool>());
}

TEST_F(AgentReplay, AStartWithChangedIntentsLeavesExactlyTheDifference) {
  const auto hardware = programmedChip();
  std::string first;
  std::string second;
  for (unsigned fodo = 1; fodo <= 100; ++fodo) {
    first += writeFodo(fodo, fodo);
    second += fodo == 50 ? "" : writeFodo(fodo, fodo == 60 ? 1000 : fodo);
  }
  second += writeFodo(101, 101);
  ASSERT_EQ(runs(first + writeInner(1)), 0) << err_;
  const auto before = versions();
  const auto chipBefore = programmed(hardware);
  ASSERT_EQ(runs(second + writeInner(1)), 0) << err_;
  EXPECT_EQ(err_,
            "kelp-agent: replay complete: 101 entries restored; 99 writes identical, 2 not; "
            "1 entries swept, 0 units cleared\n");
  EXPECT_EQ(replayOf("EsemFodo"),
            Json::parse(R"({"table":"EsemFodo","restored":100,"suppressed":98,"rewritten":2,)"
                        R"("swept":1,"unitsCleared":0})"));
  auto expected = before;
  expected["EsemFodo"] += 3;
  EXPECT_EQ(versions(), expected);
  auto chipExpected = chipBefore;
  chipExpected["EsemFodo"] = {101, 1, 1};
  EXPECT_EQ(programmed(hardware), chipExpected);
}

TEST_F(AgentReplay, AUnitThatNobodyAsksForIsCleared) {
  const auto hardware = programmedChip();
  const std::string one = writeFodo(1, 1) + writeInner(1);
  ASSERT_EQ(runs(one + writeFodo(1, 1, "", 1) + writeFodo(2, 2, "", 1), {"--units", "2"}), 0);
  ASSERT_EQ(runs(one), 0);
  // All eight tables had a collection for it.
  EXPECT_EQ(err_,
            "kelp-agent: replay complete: 2 entries restored; 2 writes identical, 0 not; "
            "0 entries swept, 8 units cleared\n");
  EXPECT_EQ(programmed(hardware)["EsemFodo"], (std::vector<unsigned>{3, 0, 2}));
  ASSERT_EQ(runs(one), 0);
  EXPECT_EQ(programmed(hardware)["EsemFodo"], (std::vector<unsigned>{3, 0, 2}));
}

TEST_F(AgentReplay, AFileThatEndsInTheMiddleOfALineLosesNothing) {
  const auto hardware = programmedChip();
  const std::string intents = writeFodo(1, 1) + writeFodo(2, 2) + writeFodo(3, 3);
  ASSERT_EQ(runs(intents), 0);
  const auto before = versions();
  const std::string cut = intents.substr(0, writeFodo(1, 1).size() + 30);
  EXPECT_EQ(runs(cut), 2);
  EXPECT_THAT(err_, HasSubstr("in:2: not JSON, column "));
  EXPECT_THAT(err_, HasSubstr("nothing is swept: 1 lines of intents were wrong"));
  EXPECT_EQ(versions(), before);
  EXPECT_FALSE(summary("s")["replay"]["complete"].get<bool>());
  EXPECT_EQ(fodosOn(hardware), (std::map<unsigned, unsigned>{{1, 1}, {2, 2}, {3, 3}}));
  // Nor does a wrong line in its middle.
  EXPECT_EQ(runs(writeFodo(1, 1) + writeFodo(2, 70000) + writeFodo(3, 3)), 2);
  EXPECT_EQ(versions(), before);
}

TEST_F(AgentReplay, NothingIsSweptWithoutFilesOrAgainstTheOption) {
  const auto hardware = programmedChip();
  ASSERT_EQ(runs(writeFodo(1, 1)), 0);
  auto nothing = agent({"--exit-when-done"});
  EXPECT_EQ(nothing.ends(), 0);
  ASSERT_EQ(runs(writeFodo(2, 2), {"--no-sweep"}), 0);
  EXPECT_EQ(fodosOn(hardware), (std::map<unsigned, unsigned>{{1, 1}, {2, 2}}));
}

TEST_F(AgentReplay, ARemoveAllThatIsReplayedRemovesWhatIsNotWrittenAgain) {
  const auto hardware = programmedChip();
  ASSERT_EQ(runs(writeFodo(1, 1) + writeFodo(2, 2) + writeFodo(3, 3)), 0);
  // Not by the sweep.
  ASSERT_EQ(
      runs(writeFodo(4, 4) + kRemoveAllFodo + writeFodo(2, 2) + removeFodo(3) + writeFodo(5, 5),
           {"--no-sweep"}),
      0);
  EXPECT_EQ(fodosOn(hardware), (std::map<unsigned, unsigned>{{2, 2}, {5, 5}}));
  EXPECT_EQ(programmed(hardware)["EsemFodo"], (std::vector<unsigned>{4, 0, 2}));
  EXPECT_EQ(outcomes(out_).size(), 5U);
  EXPECT_EQ(outcomeOf(out_, 1)["outcome"], "success");
  EXPECT_EQ(outcomeOf(out_, 2)["op"], "removeAll");
  EXPECT_EQ(outcomeOf(out_, 2)["outcome"], "success");
}

TEST_F(AgentReplay, WhatComesAfterOthersFindsThemInTheReplay) {
  const auto hardware = programmedChip();
  ASSERT_EQ(runs(writeFodo(99, 99)), 0);
  const std::string innerOne =
      R"(,"after":{"table":"IsemInnerEth","unit":0,"key":{"tunnel":1,"vlan":1}})";
  const std::string intents =
      writeFodo(1, 1) + writeInner(1, afterFodo(1)) +  // rewritten below, after the inner one
      writeFodo(1, 2, innerOne) +                      // round in a circle
      writeInner(2, afterFodo(1)) +                    //
      writeFodo(3, 3) + writeInner(3, afterFodo(3)) + kRemoveAllFodo +  // gone again
      writeFodo(4, 4) + writeInner(4, afterFodo(4)) + writeFodo(4, 5) + writeFodo(1, 3);
  ASSERT_EQ(runs(intents), 0) << err_;
  EXPECT_EQ(outcomes(out_).size(), 11U);
  for (const Json& one : outcomes(out_)) {
    EXPECT_EQ(one["outcome"], "success") << one;
  }
  EXPECT_EQ(fodosOn(hardware), (std::map<unsigned, unsigned>{{1, 3}, {4, 5}}));
  const auto before = versions();
  ASSERT_EQ(runs(intents), 0);
  EXPECT_EQ(versions(), before);
  // What is wrong is as wrong in a replay.
  EXPECT_EQ(runs(writeInner(1, afterFodo(77)) + kRemoveAllFodo + writeInner(2, afterFodo(4)) +
                 writeInner(3, R"(,"after":{"table":"EsemFodo","unit":1,"key":{"fodo":1}})")),
            2);
  EXPECT_THAT(err_, HasSubstr("in:1: after names an entry that nobody wrote, {\"fodo\":77} of"));
  EXPECT_THAT(err_, HasSubstr("in:3: after names an entry that nobody wrote, {\"fodo\":4} of"));
  EXPECT_THAT(err_, HasSubstr("in:4: after.unit 1 is not there: write 0"));
}

// As of a chain that was written from its end: each entry goes behind the one that it needs.
TEST_F(AgentReplay, ALongChainIsReplayedInItsOrder) {
  constexpr unsigned kLinks = 20000;
  std::string chain = writeFodo(1, 1);
  for (unsigned fodo = 2; fodo <= kLinks; ++fodo) {
    chain += writeFodo(fodo, 1, afterFodo(fodo - 1));
  }
  std::string backwards;
  for (unsigned fodo = kLinks; fodo > 1; --fodo) {
    backwards += writeFodo(fodo, 2, afterFodo(fodo - 1));
  }
  const auto hardware = programmedChip();
  ASSERT_EQ(runs(writeInner(1)), 0);
  ASSERT_EQ(runs(chain + backwards + writeFodo(1, 2)), 0) << err_;
  EXPECT_EQ(outcomes(out_).size(), 2 * kLinks);
  // The first link is the one that was written last.
  EXPECT_EQ(outcomeOf(out_, 2 * kLinks)["version"], 1);
  EXPECT_EQ(outcomeOf(out_, kLinks + 1)["version"], kLinks);
}

TEST_F(AgentReplay, AFeatureSaysWhenAllIsThereThatIsWanted) {
  const auto hardware = programmedChip();
  ASSERT_EQ(runs(writeFodo(1, 1) + writeFodo(2, 2)), 0);
  {
    auto program = listeningAgent();
    Feature feature(socketPath());
    EXPECT_TRUE(feature.send(writeFodo(1, 1)));
    EXPECT_TRUE(feature.receives("\"line\":1,"));
    EXPECT_EQ(fodosOn(hardware).size(), 2U);
    EXPECT_TRUE(feature.send(R"({"op":"replayComplete","table":"EsemFodo"})"
                             "\n"));
    EXPECT_TRUE(
        feature.receives(R"("error":"\"table\" is no part of a replayComplete: leave it out"})"));
    EXPECT_TRUE(feature.send(kReplayComplete + kReplayComplete));
    EXPECT_TRUE(feature.receives(
        R"({"source":"socket:1","line":4,"op":"replayComplete","outcome":"success"})"));
    EXPECT_TRUE(program.says("1 entries swept"));
    EXPECT_TRUE(comesTrue([&] { return fodosOn(hardware).size() == 1; }));
    // From here on nothing is marked, and nothing swept.
    EXPECT_TRUE(feature.send(writeFodo(3, 3)));
    EXPECT_TRUE(feature.receives("\"line\":5,"));
    program.kill(SIGTERM);
    EXPECT_EQ(program.ends(), 0);
  }
  const auto program = listeningAgent({"--no-sweep"});
  Feature feature(socketPath());
  EXPECT_TRUE(feature.send(kReplayComplete));
  EXPECT_TRUE(feature.receives(R"("op":"replayComplete","outcome":"failed"})"));
}

TEST_F(AgentReplay, TheWordInAFileEndsWhatIsFolded) {
  const auto hardware = programmedChip();
  ASSERT_EQ(runs(writeFodo(1, 1) + writeFodo(2, 2)), 0);
  const std::string intents =
      writeFodo(1, 5) + writeFodo(1, 1) + kReplayComplete + writeFodo(1, 6) + writeFodo(1, 7);
  auto program = agent({"--intents", file("in", intents), "--summary", path("s")});
  EXPECT_TRUE(program.prints("\"line\":5,"));
  EXPECT_EQ(summaryOf(program, "s")["replay"]["complete"], true);
  EXPECT_EQ(fodosOn(hardware), (std::map<unsigned, unsigned>{{1, 7}}));
  EXPECT_EQ(programmed(hardware)["EsemFodo"], (std::vector<unsigned>{2, 2, 1}));
}

TEST_F(AgentReplay, WhatPeersSentIsThereAtTheNextStart) {
  const auto hardware = programmedChip();
  const std::string inFile = file("in", writeFodo(1, 1) + writeFodo(2, 2) + writeFodo(3, 3));
  {
    auto program = listeningAgent({"--intents", inFile});
    Feature feature(socketPath());
    EXPECT_TRUE(program.prints("\"line\":3,"));
    // Over what the file says: a change, a remove; and entries of its own.
    EXPECT_TRUE(feature.send(writeFodo(1, 10) + removeFodo(2) + writeFodo(4, 4) + writeFodo(5, 5) +
                             writeInner(9) +
                             R"({"op":"removeAll","table":"IsemInnerEth","unit":0})" + "\n" +
                             writeInner(1, afterFodo(4)) + writeFodo(5, 6) + removeFodo(4)));
    EXPECT_TRUE(feature.receives("\"line\":9,"));
    EXPECT_TRUE(comesTrue([&] { return feature.receives("\"op\":\"removeAll\""); }));
    program.kill(SIGKILL);
    (void)program.ends();
  }
  const std::map<unsigned, unsigned> wanted = {{1, 10}, {3, 3}, {5, 6}};
  EXPECT_EQ(fodosOn(hardware), wanted);
  const auto chipBefore = programmed(hardware);
  for (unsigned again = 0; again < 2; ++again) {
    auto program = listeningAgent({"--intents", inFile, "--exit-when-done"});
    EXPECT_EQ(program.ends(), 0) << program.err();
    EXPECT_EQ(programmed(hardware), chipBefore);
    EXPECT_EQ(outcomes(program.out()).size(), 3U);
    EXPECT_THAT(program.err(), HasSubstr("replay complete: 4 entries restored; 4 writes identical, "
                                         "0 not; 0 entries swept"));
  }
  auto forgetful = listeningAgent({"--intents", inFile, "--exit-when-done", "--forget"});
  EXPECT_EQ(forgetful.ends(), 0);
  EXPECT_EQ(fodosOn(hardware), (std::map<unsigned, unsigned>{{1, 1}, {2, 2}, {3, 3}}));
}

TEST_F(AgentReplay, WhatPeersSentIsThereAtAStartWithoutFilesToo) {
  const auto hardware = programmedChip();
  for (unsigned run = 0; run < 3; ++run) {
    auto program = listeningAgent();
    Feature feature(socketPath());
    // The first run's, kept by the first alone; one more each time.
    EXPECT_TRUE(feature.send(writeFodo(10 + run, 1) + writeFodo(20 + run, 1) +
                             removeFodo(20 + run) + kReplayComplete));
    EXPECT_TRUE(feature.receives("replayComplete"));
    EXPECT_TRUE(feature.receives("\"line\":3,"));
    EXPECT_TRUE(comesTrue([&] { return fodosOn(hardware).size() == run + 1; }));
    program.kill(SIGTERM);
    EXPECT_EQ(program.ends(), 0);
    EXPECT_THAT(program.err(), Not(HasSubstr("1 entries swept")));
  }
}

TEST_F(AgentReplay, WhatIsInALogAtAStopIsKept) {
  {
    auto program = listeningAgent();
    Feature feature(socketPath());
    EXPECT_TRUE(feature.send(writeFodo(1, 1)));
    EXPECT_TRUE(comesTrue(
        [&] { return tableOf(summaryOf(program, "s"), "EsemFodo", 0)["tableVersion"] == 1; }));
    program.kill(SIGTERM);
    EXPECT_EQ(program.ends(), 5);
  }
  const auto hardware = programmedChip();
  auto program = listeningAgent();
  Feature feature(socketPath());
  EXPECT_TRUE(feature.send(kReplayComplete));
  EXPECT_TRUE(feature.receives("\"success\""));
  EXPECT_TRUE(program.says("0 entries swept"));
}

TEST_F(AgentReplay, KilledAtAnyMomentNothingThatAPeerWasToldIsLost) {
  const auto hardware = programmedChip();
  std::mt19937 random(20);
  std::map<unsigned, std::set<unsigned>> possible;  // what a key may hold; 0: nothing
  unsigned next = 1;
  for (unsigned run = 0; run < 10; ++run) {
    auto program = listeningAgent();
    Feature feature(socketPath());
    ASSERT_TRUE(feature.send(kReplayComplete));
    ASSERT_TRUE(feature.receives("replayComplete"));
    std::vector<std::pair<unsigned, unsigned>> sent = {{0, 0}};  // by line
    std::string text;
    for (unsigned i = 0; i < 2000; ++i) {
      const unsigned fodo = 1 + random() % 500;
      const unsigned outLif = random() % 4 == 0 ? 0 : next++ % 60000 + 1;
      text += outLif == 0 ? removeFodo(fodo) : writeFodo(fodo, outLif);
      sent.emplace_back(fodo, outLif);
    }
    ASSERT_TRUE(feature.send(text));
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 30000));
    program.kill(SIGKILL);
    (void)program.ends();
    std::string seen = feature.all();
    seen.erase(seen.rfind('\n') + 1);
    std::set<unsigned> told;
    for (const Json& one : outcomes(seen)) {
      EXPECT_EQ(one["outcome"], "success");
      told.insert(one["line"].get<unsigned>());
    }
    for (unsigned line = 2; line < sent.size() + 1; ++line) {
      const auto& [fodo, outLif] = sent[line - 1];
      std::set<unsigned>& may = possible[fodo];
      if (may.empty()) {
        may.insert(0);
      }
      if (told.contains(line)) {
        may.clear();
      }
      may.insert(outLif);
    }
  }
  auto program = listeningAgent();
  Feature feature(socketPath());
  ASSERT_TRUE(feature.send(kReplayComplete));
  ASSERT_TRUE(feature.receives("replayComplete"));
  ASSERT_TRUE(comesTrue([&] {
    const Json now = tableOf(summaryOf(program, "s"), "EsemFodo", 0);
    return now["lastCleanedVersion"] == now["tableVersion"] &&
           summary("s")["intents"]["inFlight"] == 0;
  }));
  auto fodos = fodosOn(hardware);
  for (const auto& [fodo, may] : possible) {
    EXPECT_TRUE(may.contains(fodos[fodo])) << fodo << " is " << fodos[fodo];
  }
}

}  // namespace
