#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>

#include "Programs.h"

namespace {

using AgentTest::afterFodo;
using AgentTest::comesTrue;
using AgentTest::contentOf;
using AgentTest::Json;
using AgentTest::outcomeOf;
using AgentTest::outcomes;
using AgentTest::removeFodo;
using AgentTest::writeFodo;
using AgentTest::writeInner;
using testing::HasSubstr;
using testing::Not;

class AgentProcess : public AgentTest::WithStore {};

TEST_F(AgentProcess, EveryTablesExampleComesToAGoodEnd) {
  const auto hardware = chip();
  auto program =
      agent({"--units", "2", "--intents", KELP_EXAMPLES "/tables.jsonl", "--intents",
             KELP_EXAMPLES "/life.jsonl", "--exit-when-done", "--summary", path("summary")});
  EXPECT_EQ(program.ends(), 0);
  EXPECT_EQ(program.err(), "");
  const auto all = outcomes(program.out());
  EXPECT_EQ(all.size(), 19U);
  for (const Json& one : all) {
    EXPECT_EQ(one["outcome"], "success") << one;
  }
  const Json summary = this->summary("summary");
  EXPECT_EQ(summary["intents"],
            Json::parse(R"({"accepted":19,"skipped":0,"succeeded":19,"failed":0,"inFlight":0,)"
                        R"("waitingForResources":0,"cameThroughAgain":0})"));
  EXPECT_EQ(tableOf(summary, "EsemFodo", 0),
            Json::parse(R"({"table":"EsemFodo","unit":0,"written":5,"removed":2,"suppressed":0,)"
                        R"("failed":0,"inLog":0,"entries":1,"pending":false,"tableVersion":7,)"
                        R"("lastCleanedVersion":7})"));
  EXPECT_EQ(tableOf(summary, "IsemMpls", 1)["entries"], 1);
  EXPECT_EQ(summary["tables"].size(), 16U);
}

TEST_F(AgentProcess, AnOutcomeNamesItsIntent) {
  const auto hardware = chip();
  const std::string intents = file("in.jsonl", "# first\n\n" + writeFodo(5, 1) + removeFodo(6));
  auto program = agent({"--intents", intents, "--exit-when-done"});
  EXPECT_EQ(program.ends(), 0);
  EXPECT_THAT(program.out(),
              HasSubstr("{\"source\":\"" + intents +
                        R"(","line":3,"op":"write","table":"EsemFodo","unit":0,"key":{"fodo":5},)"
                        R"("outcome":"success","version":1})"));
  EXPECT_EQ(outcomeOf(program.out(), 4)["version"], 0);
}

TEST_F(AgentProcess, WrongLinesAreSkippedWithTheirPlace) {
  const auto hardware = chip();
  const std::string intents = file(
      "in.jsonl",
      writeFodo(1, 1) + "{\"op\":\"wri\n" + R"({"op":"removeAll","table":"Isem9","unit":0})" +
          "\n" + R"({"op":"remove","table":"EsemFodo","unit":1,"key":{"fodo":1}})" + "\n" +
          writeFodo(2, 70000) + writeFodo(0, 0) + std::string(70000, 'x') + "\n" + writeFodo(3, 3) +
          writeFodo(4, 4, R"(,"after":{"table":"EsemFodo","unit":7,"key":{"fodo":1}})"));
  auto program = agent({"--intents", intents, "--exit-when-done", "--summary", path("summary")});
  EXPECT_EQ(program.ends(), 2);
  const std::string err = program.err();
  const auto said = [&](unsigned line, const std::string& text) {
    EXPECT_THAT(err,
                HasSubstr("kelp-agent: " + intents + ":" + std::to_string(line) + ": " + text));
  };
  said(2, "not JSON, column 11: ");
  said(3, "table is \"Isem9\": write \"EsemFodo\", ");
  said(4, "unit 1 is not there: write 0, or start the agent with more --units");
  said(5, "payload.outLif is 70000: write a whole number from 0 to 65535");
  said(6, "the entry equals the default entry of EsemFodo");
  said(7, "the line is longer than 65536 bytes: write one intent on a line");
  said(9, "after.unit 7 is not there: write 0, or start the agent with more --units");
  EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 7) << err;
  EXPECT_EQ(outcomes(program.out()).size(), 2U);
  EXPECT_EQ(outcomeOf(program.out(), 8)["outcome"], "success");
  EXPECT_EQ(summary("summary")["intents"]["skipped"], 7);
}

TEST_F(AgentProcess, ALastLineWithoutAnEndCountsIfItIsWhole) {
  const auto hardware = chip();
  std::string whole = writeFodo(1, 1);
  whole.pop_back();
  auto first = agent({"--intents", file("whole", whole), "--exit-when-done"});
  EXPECT_EQ(first.ends(), 0);
  EXPECT_EQ(outcomeOf(first.out(), 1)["outcome"], "success");

  const std::string cut = file("cut", writeFodo(2, 2) + whole.substr(0, whole.size() - 4));
  auto second = agent({"--intents", cut, "--exit-when-done"});
  EXPECT_EQ(second.ends(), 2);
  EXPECT_THAT(second.err(), HasSubstr(cut + ":2: not JSON, column "));
  EXPECT_THAT(second.err(), HasSubstr("(the line has no end: has all of the file been written?)"));
}

TEST_F(AgentProcess, AfterIsSatisfiedByWhatThisRunOrAnEarlierOneWrote) {
  auto hardware = chip();
  {
    auto program = agent({"--intents", file("a", writeFodo(1, 1)), "--exit-when-done"});
    EXPECT_EQ(program.ends(), 0);
  }
  const std::string intents =
      file("b", writeInner(1, afterFodo(1)) +      // an earlier run
                    writeInner(2, afterFodo(2)) +  // nobody: only the next line writes it
                    writeFodo(2, 2) +              //
                    writeInner(3, afterFodo(2)) +  // in flight
                    removeFodo(1, R"(,"after":{"table":"IsemInnerEth","unit":0,)"
                                  R"("key":{"tunnel":1,"vlan":1}})") +
                    writeInner(4, afterFodo(1)) +    // a remove is an operation too
                    writeFodo(2, 3, afterFodo(2)));  // the earlier operation on its own key
  auto program = agent({"--intents", intents, "--exit-when-done"});
  EXPECT_EQ(program.ends(), 2);
  EXPECT_EQ(
      program.err(),
      "kelp-agent: " + intents +
          ":2: after names an entry that nobody wrote, {\"fodo\":2} of EsemFodo, unit 0: "
          "write that entry on an earlier line, or leave `after` out\n"
          "kelp-agent: nothing is swept: 1 lines of intents were wrong, and what they ask for "
          "might be swept; correct them and start again\n");
  EXPECT_EQ(outcomes(program.out()).size(), 6U);
  for (const Json& one : outcomes(program.out())) {
    EXPECT_EQ(one["outcome"], "success") << one;
  }
}

TEST_F(AgentProcess, AfterIsSatisfiedByWhatHasEndedInThisRun) {
  const auto hardware = chip();
  auto program = agent({"--intents", "-"}, AgentTest::Input::pipe);
  program.write(writeFodo(1, 1) + removeFodo(1));
  EXPECT_TRUE(program.prints("\"op\":\"remove\""));
  program.write(writeInner(1, afterFodo(1)));
  EXPECT_TRUE(program.prints("\"table\":\"IsemInnerEth\""));
  EXPECT_EQ(outcomeOf(program.out(), 3)["outcome"], "success");
  program.kill(SIGTERM);
  EXPECT_EQ(program.ends(), 0);
}

TEST_F(AgentProcess, WhatFindsNoRoomFailsAndWithItWhatComesAfter) {
  const auto hardware = chip();
  constexpr unsigned kRoom = 65536;
  std::string text;
  for (unsigned fodo = 1; fodo <= kRoom + 1; ++fodo) {
    text += writeFodo(fodo, 7);
  }
  // In flight together, and once more when the failure is long known.
  // Between them a wrong line, which is the lesser evil.
  text += writeInner(1, afterFodo(kRoom + 1)) + "wrong\n" + writeInner(2, afterFodo(kRoom));
  auto program = agent(
      {"--intents", file("in", text), "--intents", "-", "--summary", path("s"), "--exit-when-done"},
      AgentTest::Input::pipe);
  EXPECT_TRUE(program.prints("\"key\":{\"tunnel\":1,\"vlan\":2}"));
  program.write(writeInner(3, afterFodo(kRoom + 1)));
  program.closeInput();
  EXPECT_EQ(program.ends(), 3);
  EXPECT_THAT(program.err(), HasSubstr(":65539: not JSON"));
  std::vector<std::string> failed;
  for (const Json& one : outcomes(program.out())) {
    if (one["outcome"] == "failed") {
      failed.push_back(one["key"].dump());
    }
  }
  EXPECT_THAT(failed, testing::UnorderedElementsAre("{\"fodo\":65537}", R"({"tunnel":1,"vlan":1})",
                                                    R"({"tunnel":1,"vlan":3})"));
  EXPECT_EQ(tableOf(summary("s"), "EsemFodo", 0)["failed"], 1);
  EXPECT_EQ(tableOf(summary("s"), "IsemInnerEth", 0)["failed"], 2);
}

TEST_F(AgentProcess, ARemoveAllEndsWhenTheHardwareHasTakenItIn) {
  const std::string removeAll = R"({"op":"removeAll","table":"EsemFodo","unit":0})";
  auto program =
      agent({"--intents", "-", "--exit-when-done", "--summary", path("s")}, AgentTest::Input::pipe);
  // Nothing is there to be removed, so nothing has to be told to anybody.
  program.write(removeAll + "\n");
  EXPECT_TRUE(program.prints("\"line\":1,"));
  program.write(writeFodo(1, 1) + removeAll + "\n" + removeAll + "\n" + writeFodo(2, 2));
  program.closeInput();
  EXPECT_TRUE(comesTrue([&] { return summaryOf(program, "s")["intents"]["inFlight"] == 4; }));
  EXPECT_EQ(outcomes(program.out()).size(), 1U);

  const auto hardware = chip();
  EXPECT_EQ(program.ends(), 0);
  const Json outcome = outcomeOf(program.out(), 3);
  EXPECT_EQ(outcome["op"], "removeAll");
  EXPECT_EQ(outcome["outcome"], "success");
  EXPECT_FALSE(outcome.contains("key"));
  EXPECT_EQ(outcomeOf(program.out(), 4)["outcome"], "success");
  EXPECT_EQ(tableOf(summary("s"), "EsemFodo", 0)["entries"], 1);
}

TEST_F(AgentProcess, IntentsWaitForAChipThatIsNotThere) {
  const std::string intents = file(
      "in", writeFodo(1, 1) + writeInner(1) + R"({"op":"removeAll","table":"EsemFodo","unit":0})");
  {
    auto program = agent({"--intents", intents, "--exit-when-done", "--timeout", "0.3"});
    EXPECT_EQ(program.ends(), 4);
    EXPECT_THAT(program.err(), HasSubstr("gave up: nothing has moved for 0.3 s; is the hardware "
                                         "side running on --name kelp --root " +
                                         root_.path() + "?"));
    EXPECT_THAT(program.err(), HasSubstr("pending: " + intents +
                                         ":1: write EsemFodo, unit 0, key {\"fodo\":1}: in the log "
                                         "at version 1, the hardware side has reported 0\n"));
    EXPECT_THAT(program.err(), HasSubstr(":3: removeAll EsemFodo, unit 0: "));
    EXPECT_THAT(program.err(), HasSubstr("pending: table IsemInnerEth: its log is at version 1"));
    EXPECT_EQ(program.out(), "");
  }
  // What was committed waits for the next run, and then for the chip.
  auto program = agent({"--exit-when-done", "--timeout", "0.3"});
  EXPECT_EQ(program.ends(), 4);
  EXPECT_THAT(program.err(), HasSubstr("pending: table EsemFodo: its log is at version 2"));
  const auto hardware = chip();
  auto last = agent({"--exit-when-done"});
  EXPECT_EQ(last.ends(), 0);
}

TEST_F(AgentProcess, ReadsNoFurtherThanThereIsRoomInFlight) {
  std::string text;
  for (unsigned fodo = 1; fodo <= 500; ++fodo) {
    text += writeFodo(fodo, 7);
  }
  auto program = agent({"--intents", file("in", text), "--in-flight", "8", "--summary", path("s"),
                        "--exit-when-done"});
  ASSERT_TRUE(started());
  const auto accepted = [&] {
    return summaryOf(program, "s")["intents"]["accepted"].get<unsigned>();
  };
  EXPECT_TRUE(comesTrue([&] { return accepted() == 8; }));
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(accepted(), 8U);
  const auto hardware = chip();
  EXPECT_EQ(program.ends(), 0);
  EXPECT_EQ(outcomes(program.out()).size(), 500U);
}

TEST_F(AgentProcess, TakesIntentsFromItsStandardInputAsTheyCome) {
  const auto hardware = chip();
  auto program = agent({"--intents", "-", "--exit-when-done"}, AgentTest::Input::pipe);
  const std::string line = writeFodo(1, 1);
  program.write(line.substr(0, 20));
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  program.write(line.substr(20));
  EXPECT_TRUE(program.prints("{\"source\":\"stdin\",\"line\":1,"));
  program.write(removeFodo(1));
  EXPECT_TRUE(program.prints("\"line\":2,"));
  program.closeInput();
  EXPECT_EQ(program.ends(), 0);
}

TEST_F(AgentProcess, TakesIntentsFromANamedPipe) {
  const auto hardware = chip();
  ASSERT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
  auto program = agent({"--intents", path("pipe"), "--exit-when-done"});
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  file("pipe", writeFodo(1, 1));
  EXPECT_EQ(program.ends(), 0);
  EXPECT_EQ(outcomes(program.out()).size(), 1U);
}

TEST_F(AgentProcess, SaysWhatItCannotOpen) {
  const auto refused = [&](std::vector<std::string> arguments, const std::string& text) {
    auto program = agent(std::move(arguments));
    EXPECT_EQ(program.ends(), 1);
    EXPECT_THAT(program.err(), HasSubstr(text));
  };
  refused({"--intents", path("none")}, path("none") + ": cannot read intents: No such file");
  refused({"--intents", root_.path()}, "cannot read intents: it is a folder: name a readable file");
  refused({"--outcomes", path("none/x")}, path("none/x") + ": cannot write outcomes: No such file");
  refused({"--summary", path("none/x"), "--exit-when-done"}, "cannot write the summary");
  refused({"--name", "a/b"}, "a/b");
  refused({"--units", "0"}, "--units");
  refused({"--timeout", "1"}, "--exit-when-done");
}

TEST_F(AgentProcess, OutcomesGoWhereTheyAreSent) {
  const auto hardware = chip();
  auto first = agent({"--intents", file("a", writeFodo(1, 1)), "--exit-when-done", "--outcomes",
                      path("outcomes")});
  EXPECT_EQ(first.ends(), 0);
  EXPECT_EQ(first.out(), "");
  EXPECT_EQ(outcomes(contentOf(path("outcomes"))).size(), 1U);
  auto second =
      agent({"--intents", file("b", writeFodo(2, 2)), "--exit-when-done", "--outcomes", "none"});
  EXPECT_EQ(second.ends(), 0);
  EXPECT_EQ(second.out(), "");
  auto third = agent(
      {"--intents", file("c", writeFodo(3, 3)), "--exit-when-done", "--outcomes", "/dev/full"});
  EXPECT_EQ(third.ends(), 1);
  EXPECT_THAT(third.err(), HasSubstr("/dev/full: cannot write outcomes: No space left on device"));
}

TEST_F(AgentProcess, OutcomesThatNobodyTakesHoldNobodyUp) {
  const auto hardware = chip();
  std::string text;
  constexpr unsigned kIntents = 20000;  // some 2.5 MB of outcomes
  for (unsigned fodo = 1; fodo <= kIntents; ++fodo) {
    text += writeFodo(fodo, 7);
  }
  const std::string intents = file("in", text);
  ASSERT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
  // Once to a named pipe, once to the standard output.
  for (const bool named : {true, false}) {
    const int reader = open(path("pipe").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(reader, 0);
    std::vector<std::string> arguments = {
        "--intents", intents, "--exit-when-done", "--summary", path("s"), "--in-flight", "100"};
    if (named) {
      arguments.insert(arguments.end(), {"--outcomes", path("pipe")});
    }
    const auto start = [&] {
      return named ? agent(arguments) : agentInto(path("pipe"), arguments);
    };
    auto program = start();
    const auto accepted = [&] {
      return summaryOf(program, "s")["intents"]["accepted"].get<unsigned>();
    };
    EXPECT_TRUE(comesTrue([&] {
      pollfd first{reader, POLLIN, 0};
      return poll(&first, 1, 0) == 1 && (first.revents & POLLIN) != 0;
    }));
    // It stops to take intents, and not to listen.
    unsigned last = 0;
    EXPECT_TRUE(comesTrue([&] {
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      return std::exchange(last, accepted()) == last && last > 1000;
    }));
    EXPECT_LT(last, kIntents);
    program.kill(SIGTERM);
    EXPECT_EQ(program.ends(), 5);
    EXPECT_THAT(program.err(), HasSubstr("bytes of outcomes are lost: nobody has taken them"));
    // Whoever comes late gets them all.
    char bytes[4096];
    while (read(reader, bytes, sizeof(bytes)) > 0) {
    }
    auto again = start();
    std::string seen;
    EXPECT_TRUE(comesTrue([&] {
      for (ssize_t count = 0; (count = read(reader, bytes, sizeof(bytes))) > 0;) {
        seen.append(bytes, static_cast<std::size_t>(count));
      }
      return std::count(seen.begin(), seen.end(), '\n') == kIntents;
    }));
    EXPECT_EQ(again.ends(), 0);
    EXPECT_EQ(outcomes(seen).size(), kIntents);
    close(reader);
  }
}

TEST_F(AgentProcess, GivesUpOnAReaderOfOutcomesThatTakesNone) {
  const auto hardware = chip();
  std::string text;
  for (unsigned fodo = 1; fodo <= 1000; ++fodo) {
    text += writeFodo(fodo, 7);
  }
  ASSERT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
  auto early = agent({"--outcomes", path("pipe"), "--exit-when-done"});
  EXPECT_EQ(early.ends(), 1);
  EXPECT_THAT(early.err(), HasSubstr("nobody reads this pipe: start its reader first"));
  const int reader = open(path("pipe").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  auto program = agent({"--intents", file("in", text), "--outcomes", path("pipe"),
                        "--exit-when-done", "--timeout", "0.5"});
  EXPECT_EQ(program.ends(), 4);
  EXPECT_THAT(program.err(), HasSubstr("gave up: nobody has taken an outcome for 0.5 s"));
  close(reader);
}

TEST_F(AgentProcess, AStandardInputThatIsASocketHoldsNobodyUp) {
  const auto hardware = chip();
  auto program = agent({"--intents", "-", "--exit-when-done", "--summary", path("s")},
                       AgentTest::Input::socket);
  program.write(writeFodo(1, 1) + "{\"op\"");
  EXPECT_TRUE(program.prints("\"line\":1,"));
  EXPECT_EQ(summaryOf(program, "s")["intents"]["accepted"], 1);
  program.write(std::string(":\"removeAll\",\"table\":\"EsemFodo\",\"unit\":0}\n"));
  EXPECT_TRUE(program.prints("\"line\":2,"));
  program.closeInput();
  EXPECT_EQ(program.ends(), 0);
}

TEST_F(AgentProcess, AKeyThatWasRemovedLongAgoIsNotKnownAnyMore) {
  const auto hardware = chip();
  constexpr unsigned kRemembered = 65536;
  std::string text = writeInner(1);
  // The removed ones are remembered, the one that stays needs not be.
  for (unsigned fodo = 1; fodo <= kRemembered + 1; ++fodo) {
    text += removeFodo(fodo);
  }
  auto program = agent({"--intents", file("in", text), "--intents", "-", "--exit-when-done"},
                       AgentTest::Input::pipe);
  EXPECT_TRUE(program.prints("\"line\":65538,"));
  program.write(writeInner(2, afterFodo(1)) + writeInner(3, afterFodo(2)) +
                writeInner(4, R"(,"after":{"table":"IsemInnerEth","unit":0,)"
                              R"("key":{"tunnel":1,"vlan":1}})"));
  program.closeInput();
  EXPECT_EQ(program.ends(), 2);
  EXPECT_THAT(program.err(),
              HasSubstr("stdin:1: after names an entry that nobody wrote, {\"fodo\":1} of"));
  EXPECT_EQ(outcomes(program.out()).size(), kRemembered + 4U);
}

TEST_F(AgentProcess, AfterMayNotNameWhatARemoveAllHasTakenAway) {
  const std::string removeAll = R"({"op":"removeAll","table":"EsemFodo","unit":0})"
                                "\n";
  const std::string intents = file("in", writeFodo(1, 1) + removeAll + writeInner(1, afterFodo(1)) +
                                             writeFodo(1, 2) + writeInner(2, afterFodo(1)));
  // Whether it is in flight still or has ended.
  for (const bool inFlight : {true, false}) {
    const std::string name = inFlight ? "kelp" : "other";
    const auto hardware = chip({"--name", "other"});
    auto program = agent({"--intents", intents, "--name", name, "--exit-when-done", "--timeout",
                          inFlight ? "0.3" : "60"});
    EXPECT_EQ(program.ends(), inFlight ? 4 : 2);
    EXPECT_THAT(program.err(), HasSubstr(intents + ":3: after names an entry that nobody wrote"));
    EXPECT_THAT(program.err(), Not(HasSubstr(intents + ":5: after")));
  }
}

TEST_F(AgentProcess, TheHelpAndTheDocumentTellEveryExitStatus) {
  auto program = agent({"--help"});
  EXPECT_EQ(program.ends(), 0);
  const std::string document = contentOf(KELP_INTENTS_DOCUMENT);
  for (unsigned status = 0; status <= 5; ++status) {
    EXPECT_THAT(program.out(), testing::ContainsRegex("[ :]" + std::to_string(status) + " [a-z]"));
    EXPECT_THAT(document, HasSubstr("\n| " + std::to_string(status) + " | "));
  }
}

TEST_F(AgentProcess, TellsHowFarItIs) {
  const auto hardware = chip();
  auto program = agent({"--intents", file("a", writeFodo(1, 1)), "--exit-when-done", "--progress"});
  EXPECT_EQ(program.ends(), 0);
  EXPECT_THAT(program.err(),
              HasSubstr("kelp-agent: 1 accepted, 0 skipped, 0 in flight, 1 ended, 0 failed\n"));
}

TEST_F(AgentProcess, WritesARingBufferTrace) {
  auto program = agent({"--exit-when-done", "--brisk", path("trace")});
  EXPECT_EQ(program.ends(), 0);
  EXPECT_THAT(contentOf(path("trace")), HasSubstr(" Restored {} entries for table: IsemMplsKelp"));
}

}  // namespace
