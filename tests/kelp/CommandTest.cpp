#include <gmock/gmock.h>

#include "RunKelp.h"
#include "common/Tables.h"

// kelp beside agents and hardware sides as processes: while they run, after they were killed, and
// without any. What it says to a command line that is wrong.

namespace {

using AgentTest::comesTrue;
using AgentTest::Json;
using AgentTest::Program;
using AgentTest::removeFodo;
using AgentTest::writeFodo;
using KelpTest::Result;
using testing::HasSubstr;

class KelpBeside : public AgentTest::WithStore {
 protected:
  Result kelp(std::vector<std::string> arguments) {
    return KelpTest::runKelp(root_.path(), "kelp", std::move(arguments));
  }
  Program kelpGoesOn(std::vector<std::string> arguments) {
    arguments.insert(arguments.end(), {"--root", root_.path()});
    return {KELP, std::move(arguments), path("follow" + std::to_string(++followers_))};
  }
  // A store with `count` entries of EsemFodo, left behind by an agent that was never reported to.
  void makeStore(unsigned count) {
    std::string lines;
    for (unsigned i = 1; i <= count; ++i) {
      lines += writeFodo(i, i);
    }
    auto run = agent({"--intents", file("made.jsonl", lines), "--exit-when-done", "--timeout",
                      "0.2", "--outcomes", "none"});
    ASSERT_EQ(run.ends(), 4) << run.err();
  }
  // Waits until the agent has made the collections of EsemFodo.
  [[nodiscard]] bool hasFodo() {
    return comesTrue([&] { return kelp({"entries", "EsemFodo"}).status == 0; });
  }
  // Waits until the program has mapped a file of this name.
  [[nodiscard]] static bool hasOpened(const Program& program, const std::string& name) {
    const std::string maps = "/proc/" + std::to_string(program.process()) + "/maps";
    return comesTrue([&] { return AgentTest::contentOf(maps).find(name) != std::string::npos; });
  }
  // Runs kelp in a shell, with what follows it there; gives the shell's last words.
  std::string shell(const std::string& script) {
    const std::string setting = "kelp='" KELP "'; root='" + root_.path() + "'; ";
    Program run("/bin/bash", {"-c", setting + script}, path("shell"));
    EXPECT_EQ(run.ends(), 0) << run.err();
    return run.out();
  }

 private:
  unsigned followers_ = 0;
};

TEST_F(KelpBeside, SaysThatThereIsNoStoreAndWhichThereAre) {
  Result run = kelp({"tables"});
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.err, HasSubstr(root_.path() + "/kelp is no store: kelp-agent with the same "
                                                "--name and --root makes one"));
  makeStore(1);
  run = KelpTest::runKelp(root_.path(), "klep", {"check"});
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.err, HasSubstr("in this root there are: kelp"));
  std::filesystem::create_directory(path("empty"));
  run = KelpTest::runKelp(root_.path(), "empty", {"check"});
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.err, HasSubstr("empty holds no collections"));
  EXPECT_TRUE(std::filesystem::is_empty(path("empty")));
}

TEST_F(KelpBeside, SaysWhatIsWrongInACommandLine) {
  makeStore(3);
  const auto says = [&](std::vector<std::string> arguments, int status, const std::string& text) {
    const Result run = kelp(std::move(arguments));
    EXPECT_EQ(run.status, status) << run.err;
    EXPECT_THAT(run.err, HasSubstr(text));
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
  };
  says({"entries", "EsemFod"}, 2,
       R"(no table "EsemFod": did you mean "EsemFodo" or "EsemFodoVd"?)");
  says({"entries", "esemfodo"}, 2, R"(did you mean "EsemFodo")");
  says({"log", "x\n"}, 2, R"(no table "x\x0a": write "EsemFodo", "EsemFodoVd")");
  says({"entries", "EsemFodo", "--unit", "9"}, 1, "no unit 9 in this store: write one of 0");
  says({"entries", "EsemFodo", "--where", "outLaf=1"}, 2, R"(did you mean "payload.outLif"?)");
  says({"entries", "EsemFodo", "--where", "zzzzzzz=1"}, 2, R"(write "key.fodo", "payload.outLif")");
  says({"entries", "EsemFodo", "--where", "fodo"}, 2, "write FIELD=VALUE");
  says({"entries", "EsemFodo", "--where", "fodo=many"}, 2,
       R"(key.fodo is "many": write a whole number from 0 to 4294967295)");
  says({"entries", "EsemFodo", "--where", "fodo=-1"}, 2, "write a whole number from 0 to");
  says({"entries", "Isem2Tag", "--where", "outerVlan=4096"}, 2,
       R"(write "key.outerVlan" or "resources.outerVlan")");
  says({"entries", "Isem2Tag", "--where", "key.outerVlan=4096"}, 2,
       "key.outerVlan is 4096: write a whole number from 0 to 4095");
  says({"entries", "EsemFodoVd", "--where", "untagged.outerAction=lift"}, 2,
       R"(write "keep", "push", "pop" or "swap")");
  says({"entry", "Isem1Tag", "port=3"}, 2, "key.vlan is missing");
  says({"entry", "Isem1Tag", "3"}, 2, R"("3" is no part of a key: write an object such as)");
  says({"entry", "Isem1Tag", "{\"port\":3"}, 2, "is not JSON");
  says({"entry", "Isem1Tag", "port=3,port=4"}, 2, "stands twice");
  says({"entry", "Isem1Tag", "port=3,vlan=7"}, 1, R"(no entry {"port":3,"vlan":7} on any unit)");
  for (const auto& arguments :
       std::vector<std::vector<std::string>>{{},
                                             {"entrys"},
                                             {"entries"},
                                             {"entry", "EsemFodo"},
                                             {"entries", "EsemFodo", "--unit", "x"},
                                             {"log", "EsemFodo", "--folow"}}) {
    EXPECT_EQ(kelp(arguments).status, 2);
  }
  const Result help = kelp({"--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_THAT(help.out, HasSubstr("Exit status: 0 what was asked for was done"));
}

TEST_F(KelpBeside, TakesKeysAsObjectsPairsAndWhereThereIsOneFieldAlone) {
  makeStore(5);
  for (const std::string key : {"{\"fodo\":4}", "fodo=4", "key.fodo=4", "4"}) {
    const Result run = kelp({"entry", "EsemFodo", key, "--json"});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.json()["units"][0]["payload"]["outLif"], 4U);
  }
}

TEST_F(KelpBeside, FindsEntriesByResourcesAndNamesOfEnumerators) {
  auto run = agent(
      {"--intents",
       file("vd.jsonl", R"({"op":"write","table":"EsemFodoVd","unit":0,"key":{"fodo":6,)"
                        R"("vlanDomain":2,"port":3},"resources":{"vlanEditProfileKey":{"untagged":)"
                        R"({"outerAction":"push","outerVlan":100}},"remarkProfileKey":)"
                        R"("Ethernet3/1.100"},"payload":{"outLif":8}})"
                        "\n"),
       "--exit-when-done", "--timeout", "0.2"});
  run.ends();
  for (const std::string where :
       {"untagged.outerAction=push", "resources.vlanEditProfileKey.untagged.outerVlan=100",
        "remarkProfileKey=Ethernet3/1.100",
        R"(vlanEditProfileKey={"untagged":{"outerAction":"push","outerVlan":100}})"}) {
    EXPECT_EQ(kelp({"entries", "EsemFodoVd", "--json", "--where", where}).json()["shown"], 1U)
        << where;
  }
  EXPECT_EQ(kelp({"entries", "EsemFodoVd", "--where", "untagged.outerAction=pop"}).lines().back(),
            "0 entries");
  EXPECT_THAT(kelp({"entries", "EsemFodoVd"}).out,
              HasSubstr("vlanEditProfileKey.untagged.outerAction=push "
                        "vlanEditProfileKey.untagged.outerVlan=100 "
                        "remarkProfileKey=Ethernet3/1.100"));
}

TEST_F(KelpBeside, ShowsWhatARecordWaitsFor) {
  auto run = agent(
      {"--intents",
       file("after.jsonl", writeFodo(1, 2) + AgentTest::writeInner(7, AgentTest::afterFodo(1))),
       "--exit-when-done", "--timeout", "0.2"});
  run.ends();
  EXPECT_EQ(kelp({"log", "IsemInnerEth", "--json"}).json()["after"],
            Json::parse(R"([{"table":"EsemFodo","version":1}])"));
  EXPECT_THAT(kelp({"log", "IsemInnerEth"}).out, HasSubstr("after EsemFodo version 1"));
}

TEST_F(KelpBeside, ShowsAStoreThatAKilledAgentLeft) {
  auto killed = agent({"--intents", "-"}, AgentTest::Input::pipe);
  ASSERT_TRUE(hasFodo());
  killed.write(writeFodo(1, 10) + writeFodo(2, 20) + removeFodo(1));
  ASSERT_TRUE(comesTrue([&] { return kelp({"log", "EsemFodo"}).lines().size() == 3; }));
  killed.kill(SIGKILL);
  EXPECT_EQ(killed.ends(), 1000 + SIGKILL);
  EXPECT_EQ(kelp({"check"}).status, 0);
  const Json entries = kelp({"entries", "EsemFodo", "--json"}).json();
  EXPECT_EQ(entries["shown"], 1U);
  EXPECT_EQ(entries["beingDeleted"], 1U);
  EXPECT_EQ(kelp({"entry", "EsemFodo", "1", "--json"}).json()["units"][0]["state"], "beingDeleted");
}

// The agent writes, rewrites and removes as fast as it can, and the chip takes it in.
TEST_F(KelpBeside, FindsAStoreSoundThatIsBeingWritten) {
  std::string lines;
  for (unsigned i = 0; i < 60000; ++i) {
    const unsigned fodo = i % 900 + 1;
    lines += i % 7 == 3 ? removeFodo(fodo) : writeFodo(fodo, i + 1);
  }
  auto hardware = chip();
  auto writing = agent({"--intents", file("busy.jsonl", lines), "--exit-when-done", "--timeout",
                        "60", "--outcomes", path("outcomes")});
  ASSERT_TRUE(hasFodo());
  unsigned looks = 0;
  bool busy = true;
  while (busy || looks < 3) {
    const Result check = kelp({"check"});
    EXPECT_EQ(check.status, 0) << check.out << check.err;
    for (const std::string command : {"entries", "log"}) {
      const Result run = kelp({command, "EsemFodo", "--json"});
      EXPECT_EQ(run.status, 0) << run.err;
    }
    const Json entries = kelp({"entries", "EsemFodo", "--json"}).json();
    EXPECT_LE(entries["shown"], 900U);
    ++looks;
    const std::string end = "\"line\":60000,";
    busy = looks < 200 && AgentTest::contentOf(path("outcomes")).find(end) == std::string::npos;
  }
  EXPECT_EQ(writing.ends(), 0) << writing.err();
}

TEST_F(KelpBeside, FollowsTheChangesOfAnAgent) {
  auto writing = agent({"--intents", "-"}, AgentTest::Input::pipe);
  ASSERT_TRUE(hasFodo());
  writing.write(writeFodo(1, 10));
  ASSERT_TRUE(comesTrue([&] { return kelp({"log", "EsemFodo"}).lines().size() == 1; }));
  auto follower = kelpGoesOn({"log", "EsemFodo", "--follow", "--json"});
  ASSERT_TRUE(follower.prints(R"("version":1,)"));
  std::string more;
  for (unsigned i = 2; i <= 100; ++i) {
    more += writeFodo(i, i);
  }
  writing.write(more + removeFodo(50));
  ASSERT_TRUE(follower.prints(R"("version":101,)"));
  follower.kill(SIGINT);
  EXPECT_EQ(follower.ends(), 0);
  EXPECT_EQ(follower.err(), "");
  const auto lines = AgentTest::outcomes(follower.out());
  ASSERT_EQ(lines.size(), 101U);
  for (std::size_t i = 0; i < lines.size(); ++i) {
    EXPECT_EQ(lines[i]["version"], i + 1);
  }
  EXPECT_EQ(lines.back()["op"], "remove");
}

TEST_F(KelpBeside, SeesChangesThatTheHardwareSideHasTakenInAtOnce) {
  auto hardware = chip();
  auto writing = agent({"--intents", "-"}, AgentTest::Input::pipe);
  ASSERT_TRUE(hasFodo());
  auto follower = kelpGoesOn({"log", "EsemFodo", "-f", "--json"});
  ASSERT_TRUE(hasOpened(follower, "EsemFodoKelp/log.quilt"));
  for (unsigned i = 1; i <= 50; ++i) {
    writing.write(writeFodo(i, i));
    ASSERT_TRUE(follower.prints("\"version\":" + std::to_string(i) + ","));
  }
  writing.write(writeFodo(1, 51) + writeFodo(1, 52) + writeFodo(1, 53));
  ASSERT_TRUE(follower.prints("\"version\":53,"));
  follower.kill(SIGTERM);
  EXPECT_EQ(follower.ends(), 0);
  std::uint64_t next = 1;
  for (const Json& line : AgentTest::outcomes(follower.out())) {
    if (line.contains("missed")) {
      EXPECT_EQ(line["from"], next);
      next = line["to"].get<std::uint64_t>() + 1;
      continue;
    }
    EXPECT_EQ(line["version"], next++);
    EXPECT_EQ(line["op"], "write");
    EXPECT_EQ(line["payload"]["outLif"], line["version"]);
  }
  EXPECT_EQ(next, 54U) << "every version is accounted for";
}

TEST_F(KelpBeside, FollowsALogThatIsMadeAnew) {
  makeStore(3);
  auto follower = kelpGoesOn({"log", "EsemFodo", "--follow"});
  ASSERT_TRUE(follower.prints("fodo=3"));
  std::filesystem::remove_all(path("kelp"));
  ASSERT_TRUE(follower.says("the log of EsemFodo is gone"));
  makeStore(1);
  ASSERT_TRUE(follower.says("has been made anew"));
  ASSERT_TRUE(comesTrue([&] {
    const std::string out = follower.out();
    return out.find("fodo=1", out.find("fodo=3")) != std::string::npos;
  }));
  follower.kill(SIGINT);
  EXPECT_EQ(follower.ends(), 0);
}

TEST_F(KelpBeside, FollowsWithoutABusyLoop) {
  makeStore(3);
  auto follower = kelpGoesOn({"log", "EsemFodo", "--follow"});
  ASSERT_TRUE(follower.prints("fodo=3"));
  const auto ticks = [&] {
    std::ifstream stat("/proc/" + std::to_string(follower.process()) + "/stat");
    std::string field;
    long used = 0;
    for (int i = 1; stat >> field && i <= 15; ++i) {
      used += i == 14 || i == 15 ? std::stol(field) : 0;
    }
    return used;
  };
  const long before = ticks();
  std::this_thread::sleep_for(std::chrono::seconds(1));
  // In hundredths of a second; a busy loop would take nearly all of them.
  EXPECT_LE(ticks() - before, 25);
}

TEST_F(KelpBeside, HoldsNoLockThatAnAgentNeeds) {
  makeStore(3);
  auto follower = kelpGoesOn({"log", "EsemFodo", "--follow"});
  ASSERT_TRUE(follower.prints("fodo=3"));
  std::ifstream locks("/proc/locks");
  for (std::string line; std::getline(locks, line);) {
    EXPECT_EQ(line.find(" " + std::to_string(follower.process()) + " "), std::string::npos) << line;
  }
  auto hardware = chip();
  auto next = agent(
      {"--intents", file("next.jsonl", writeFodo(4, 4)), "--exit-when-done", "--timeout", "30"});
  EXPECT_EQ(next.ends(), 0) << next.err();
}

TEST_F(KelpBeside, EndsWhenNobodyReadsItsOutput) {
  makeStore(2000);
  EXPECT_EQ(shell("$kelp --root $root entries EsemFodo | read -r line; echo ${PIPESTATUS[0]}"),
            "141\n");
  EXPECT_EQ(shell("$kelp --root $root log EsemFodo --json | true; echo ${PIPESTATUS[0]}"), "141\n");
  EXPECT_EQ(AgentTest::contentOf(path("shell.err")), "");
  EXPECT_EQ(shell("$kelp --root $root log EsemFodo --follow | read -r line; echo ${PIPESTATUS[0]}"),
            "0\n");
  // Also when nothing more is to be written.
  EXPECT_EQ(shell("$kelp --root $root log Isem1Tag --follow | sleep 0.1; echo ${PIPESTATUS[0]}"),
            "0\n");
  EXPECT_EQ(shell("$kelp --root $root entries EsemFodo > /dev/full; echo $?"), "1\n");
  EXPECT_THAT(AgentTest::contentOf(path("shell.err")),
              HasSubstr("kelp: cannot write to the standard output: No space left on device"));
}

TEST_F(KelpBeside, StopsAtASignalWhileItsReaderTakesNothing) {
  makeStore(5000);
  // More than a pipe holds, to a reader that sleeps.
  EXPECT_EQ(shell("$kelp --root $root log EsemFodo --follow --json > >(sleep 5) & sleep 0.5; "
                  "kill -INT $!; wait $!; echo $?"),
            "0\n");
}

}  // namespace
