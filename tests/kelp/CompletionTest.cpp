#include "LiveKelp.h"

// Completion in bash, on a running agent and without one.

#ifndef KELP_COMPLETION
#define KELP_COMPLETION "kelp.bash"
#endif

namespace {

using AgentTest::Feature;
using AgentTest::writeFodo;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

class KelpCompletion : public KelpTest::WithLiveAgent {
 protected:
  // What bash is offered behind this line, of kelp on the store.
  std::vector<std::string> offered(const std::string& rest) {
    const std::string script =
        "source '" KELP_COMPLETION "'; PATH=$(dirname '" KELP
        "'):$PATH; COMP_LINE=\"$1\"; "
        "COMP_POINT=${#COMP_LINE}; COMPREPLY=(); _kelp; printf '%s\\n' \"${COMPREPLY[@]}\"";
    Program shell("/bin/bash", {"-c", script, "bash", "kelp --root " + root_.path() + " " + rest},
                  path("complete"));
    EXPECT_EQ(shell.ends(), 0);
    EXPECT_EQ(shell.err(), "") << "nothing disturbs the line";
    std::vector<std::string> words;
    std::istringstream lines(shell.out());
    for (std::string line; std::getline(lines, line);) {
      if (!line.empty()) {
        words.push_back(line);
      }
    }
    return words;
  }
};

TEST_F(KelpCompletion, KnowsCommandsOptionsAndTables) {
  EXPECT_THAT(offered("w"), UnorderedElementsAre("waiting", "watch"));
  EXPECT_THAT(offered("ch"), UnorderedElementsAre("changes", "check"));
  EXPECT_EQ(offered("").size(), 18U);
  EXPECT_THAT(offered("stats --pro"), ElementsAre("--prometheus"));
  EXPECT_THAT(offered("stats --in"), ElementsAre("--inspect"));
  EXPECT_THAT(offered("entries EsemFodo --wh"), ElementsAre("--where"));
  EXPECT_THAT(offered("entries Esem"), UnorderedElementsAre("EsemFodo", "EsemFodoVd"));
  EXPECT_THAT(offered("waiting --table Lem"), ElementsAre("LemVpwsAc"));
  EXPECT_THAT(offered("users re"), ElementsAre("remarkProfile"));
  EXPECT_THAT(offered("entries EsemFodo "), IsEmpty());
}

TEST_F(KelpCompletion, IsSilentWithoutAnAgent) {
  EXPECT_THAT(offered("get "), IsEmpty());
  EXPECT_THAT(offered("get KelpEm"), IsEmpty());
  const auto run = kelp({"ls", "--complete", "K"});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out + run.err, "");
}

TEST_F(KelpCompletion, KnowsThePathsOfARunningAgent) {
  const auto running = inspectedAgent();
  ASSERT_TRUE(listens());
  Feature feature(socketPath());
  ASSERT_TRUE(feature.send(AgentTest::vlanEvent(7, "prepare") +
                           AgentTest::writeVd(1, AgentTest::withVlan(7)) +
                           AgentTest::writeVd(2, "")));
  const std::string writes = tablePath("EsemFodoVd") + "/transientAddEntry";
  ASSERT_TRUE(AgentTest::comesTrue([&] { return kelp({"ls", writes}).lines().size() == 2; }));
  // Behind a colon bash begins a new word.
  EXPECT_THAT(offered("get KelpEmServer::EsemFodoK"), ElementsAre("EsemFodoKelpInterface/"));
  EXPECT_THAT(offered("get KelpEm"), Contains("KelpEmServer::EsemFodoKelpInterface/"));
  EXPECT_THAT(offered("get KelpEmServer::EsemFodoKelpInterface/swTableS"),
              UnorderedElementsAre("EsemFodoKelpInterface/swTableSet",
                                   "EsemFodoKelpInterface/swTableStatus"));
  EXPECT_THAT(offered("set " + tablePath("EsemFodoVd") + "/transientA"),
              ElementsAre("EsemFodoVdKelpInterface/swTableSet[0]/transientAddEntry["));
  EXPECT_THAT(
      offered("watch " + writes + "["),
      UnorderedElementsAre(
          "EsemFodoVdKelpInterface/swTableSet[0]/transientAddEntry[fodo=1,vlanDomain=1,port=1]",
          "EsemFodoVdKelpInterface/swTableSet[0]/transientAddEntry[fodo=2,vlanDomain=1,port=1]"));
  // And behind an equals sign.
  EXPECT_THAT(offered("ls " + writes + "[fodo=2"), ElementsAre("2,vlanDomain=1,port=1]"));
  EXPECT_THAT(offered("get " + writes + "[fodo=3"), IsEmpty());
  EXPECT_THAT(offered("get Nobody/x"), IsEmpty());
}

}  // namespace
