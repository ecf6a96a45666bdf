#include <algorithm>

#include "LiveKelp.h"

// ls, get, set, call and watch on a running agent, and what is said when there is none.

namespace {

using AgentTest::Feature;
using AgentTest::Json;
using AgentTest::writeFodo;
using KelpTest::Result;
using testing::HasSubstr;
using testing::StartsWith;

class KelpOnObjects : public KelpTest::WithLiveAgent {};

TEST_F(KelpOnObjects, SaysWhereNoAgentListens) {
  const std::string usual = root_.path() + "/kelp/inspect.sock";
  for (const std::vector<std::string>& arguments :
       std::vector<std::vector<std::string>>{{"ls"},
                                             {"get", "x"},
                                             {"set", "x", "1"},
                                             {"call", "x"},
                                             {"watch", "x"},
                                             {"trace"},
                                             {"waiting"},
                                             {"users", "inLifIndex", "attachmentCircuit=7"},
                                             {"stats"},
                                             {"top", "--once"}}) {
    says(arguments, 1,
         usual +
             ": no agent listens there (No such file or directory): start kelp-agent with "
             "--inspect, or name its socket with --inspect PATH or $KELP_INSPECT");
  }
  // One without --inspect is none either, and neither is a file.
  const auto plain = agent({});
  ASSERT_TRUE(started());
  says({"stats"}, 1, "no agent listens there");
  says({"stats", "--inspect", file("no.sock", "")}, 1,
       "no agent listens there (Connection refused)");
  says({"stats", "--inspect", "/" + std::string(120, 'x')}, 1, "at most 107 bytes");
}

TEST_F(KelpOnObjects, FindsTheAgentByOptionByEnvironmentAndByItself) {
  auto named = agent({"--inspect", path("other.sock")});
  ASSERT_TRUE(AgentTest::comesTrue([&] {
    return kelp({"ls", "--inspect", path("other.sock")}).status == 0;
  }));
  EXPECT_EQ(kelp({"ls"}).status, 1);
  setenv("KELP_INSPECT", path("other.sock").c_str(), 1);
  EXPECT_EQ(kelp({"ls"}).status, 0);
  EXPECT_EQ(kelp({"ls", "--inspect", path("nowhere.sock")}).status, 1) << "the option goes first";
  unsetenv("KELP_INSPECT");
  // The socket in its folder is none of the store's damage.
  named.kill(SIGKILL);
  (void)named.ends();
  const auto usual = inspectedAgent();
  ASSERT_TRUE(listens());
  EXPECT_EQ(kelp({"check"}).status, 0);
}

TEST_F(KelpOnObjects, ListsAndReadsWhatIsThere) {
  const auto running = inspectedAgent();
  ASSERT_TRUE(listens());
  Feature feature(socketPath());
  ASSERT_TRUE(feature.send(writeFodo(1, 7) + writeFodo(2, 8) + writeFodo(3, 9)));
  const std::string table = tablePath("EsemFodo");
  ASSERT_TRUE(AgentTest::comesTrue([&] {
    return kelp({"get", table + "/stats/commitCnt"}).out == "3\n";
  }));

  EXPECT_THAT(kelp({"ls"}).out, HasSubstr("KelpEmServer::EsemFodoKelpInterface"));
  const Json roots = kelpJson({"ls"});
  EXPECT_TRUE(std::any_of(roots.begin(), roots.end(), [](const Json& root) {
    return root["path"] == "KelpEmServer::EsemFodoKelpInterface";
  }));
  Result run = kelp({"ls", table});
  EXPECT_THAT(run.out, StartsWith(table + " (KelpEmServer::EsemFodoKelpSwTable)\nname "));
  EXPECT_THAT(run.out, HasSubstr("attribute, writable"));
  EXPECT_THAT(run.out, HasSubstr("operation, changes state"));
  EXPECT_EQ(kelpJson({"ls", table})["class"], "KelpEmServer::EsemFodoKelpSwTable");
  EXPECT_EQ(
      kelp({"ls", table + "/entryHandleInLog", "--limit", "2"}).lines(),
      (std::vector<std::string>{table + "/entryHandleInLog[1]", table + "/entryHandleInLog[2]",
                                "2 of 3 members; --limit N shows more"}));

  run = kelp({"get", table});
  EXPECT_THAT(run.out, HasSubstr("entryHandleInLog           [3 members]\n"));
  EXPECT_THAT(run.out, HasSubstr("inMarkingState             "));
  const Json object = kelpJson({"get", table + "/stats"});
  EXPECT_EQ(object["class"], "Asic::SwTableStats");
  EXPECT_EQ(object["attributes"]["entryWriteCnt"], 3);
  EXPECT_EQ(kelpJson({"get", table + "/stats/entryWriteCnt"}), 3);
  const Json members = kelpJson({"get", table + "/entryHandleInLog", "--limit", "2"});
  EXPECT_EQ(members["count"], 3);
  EXPECT_EQ(members["members"].size(), 2U);
  EXPECT_FALSE(members["whole"].get<bool>());
  EXPECT_TRUE(kelpJson({"get", table + "/entryHandleInLog"})["whole"].get<bool>());
  EXPECT_EQ(kelp({"get", table + "/entryHandleInLog"}).lines().size(), 3U);
}

TEST_F(KelpOnObjects, SaysWhatIsWrongWithAPath) {
  const auto running = inspectedAgent();
  ASSERT_TRUE(listens());
  const std::string table = tablePath("EsemFodo");
  says({"get", table + "/nothing"}, 1, table + ": no attribute 'nothing'");
  says({"get", "Nobody"}, 1, "Nobody");
  says({"get", table + "/entryHandleInLog["}, 2, "path: ");
  says({"set", table + "/unitId", "3"}, 2, table + "/unitId: it can only be read");
  says({"get", table + "/commitEntry"}, 2, "an operation that needs a call: kelp call " + table);
  says({"call", table + "/clearTable"}, 2, table + "/clearTable");
  says({"watch", table + "/nothing"}, 1, "no attribute 'nothing'");
  EXPECT_EQ(kelp({"get"}).status, 2);
  EXPECT_EQ(kelp({"set", table + "/inMarkingState"}).status, 2);
}

TEST_F(KelpOnObjects, WritesAndCalls) {
  const auto running = inspectedAgent();
  ASSERT_TRUE(listens());
  Feature feature(socketPath());
  ASSERT_TRUE(feature.send(writeFodo(1, 7) + writeFodo(2, 8)));
  const std::string table = tablePath("EsemFodo");
  const std::string marking = table + "/inMarkingState";
  for (const char* value : {"false", "true", "false"}) {
    Result run = kelp({"set", marking, value});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(kelp({"get", marking}).out, value + std::string("\n"));
  }
  EXPECT_EQ(kelpJson({"set", marking, "true"}), Json());
  ASSERT_TRUE(AgentTest::comesTrue([&] {
    return kelp({"get", table + "/stats/commitCnt"}).out == "2\n";
  }));

  EXPECT_EQ(kelp({"call", table + "/hasPendingHwWrites"}).out, "true\n");
  EXPECT_EQ(kelpJson({"call", table + "/entryFromConfig", "2"})["logEntry"]["outLif"], 8);
  // What only this connection holds is shown at once.
  const Json entries = kelpJson({"call", table + "/getTableEntries_py"});
  EXPECT_EQ(entries["count"], 2);
  EXPECT_EQ(entries["members"].size(), 2U);
}

TEST_F(KelpOnObjects, WatchesChangesUntilInterrupted) {
  const auto running = inspectedAgent();
  ASSERT_TRUE(listens());
  const std::string marking = tablePath("EsemFodo") + "/inMarkingState";
  ASSERT_EQ(kelp({"set", marking, "false"}).status, 0);
  auto plain = kelpGoesOn({"watch", marking});
  auto json = kelpGoesOn({"watch", marking, "--json"});
  ASSERT_TRUE(plain.says("watching " + marking));
  ASSERT_TRUE(json.says("watching " + marking));
  ASSERT_EQ(kelp({"set", marking, "true"}).status, 0);
  EXPECT_TRUE(plain.prints("Z " + marking + " true\n"));
  ASSERT_TRUE(json.prints("}\n"));
  const Json change = Json::parse(json.out());
  EXPECT_EQ(change["path"], marking);
  EXPECT_EQ(change["value"], true);
  EXPECT_TRUE(change.contains("time"));

  // A collection tells which member.
  const std::string writes = tablePath("EsemFodoVd") + "/transientAddEntry";
  auto members = kelpGoesOn({"watch", writes});
  ASSERT_TRUE(members.says("watching"));
  Feature feature(socketPath());
  ASSERT_TRUE(feature.send(AgentTest::writeVd(1, "")));
  EXPECT_TRUE(members.prints("transientAddEntry[fodo=1,vlanDomain=1,port=1] "));

  // A watch of an object that goes ends with it.
  const auto hardware = chip();
  ASSERT_TRUE(feature.send(R"({"op":"write","table":"Isem1Tag","unit":0,"key":{"port":3,"vlan":1},)"
                           R"("resources":{"attachmentCircuit":7}})"
                           "\n"));
  ASSERT_TRUE(feature.receives("\"port\":3"));
  const std::string state =
      tablePath("Isem1Tag") +
      "/inLifIndexLinkage/entryUsageSm[attachmentCircuit=7]/resPtr/entryState";
  auto resource = kelpGoesOn({"watch", state});
  ASSERT_TRUE(resource.says("watching"));
  ASSERT_TRUE(feature.send(R"({"op":"removeAll","table":"Isem1Tag","unit":0})"
                           "\n"));
  EXPECT_EQ(resource.ends(), 1);
  EXPECT_THAT(resource.err(), HasSubstr(state + ": only peers still had the object"));

  plain.kill(SIGINT);
  EXPECT_EQ(plain.ends(), 0);
  json.kill(SIGTERM);
  EXPECT_EQ(json.ends(), 0);
  running.kill(SIGKILL);
  EXPECT_EQ(members.ends(), 1);
  EXPECT_THAT(members.err(), HasSubstr("the agent has closed the connection"));
}

}  // namespace
