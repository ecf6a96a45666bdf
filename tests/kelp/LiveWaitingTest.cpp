#include "LiveKelp.h"

// waiting and users: what intents wait for, and who uses a resource.

namespace {

using AgentTest::comesTrue;
using AgentTest::Feature;
using AgentTest::Json;
using AgentTest::vlanEdit;
using AgentTest::vlanEvent;
using AgentTest::withRemark;
using AgentTest::withVlan;
using AgentTest::writeFodo;
using AgentTest::writeVd;
using KelpTest::Result;
using testing::HasSubstr;
using testing::StartsWith;

class KelpOnIntents : public KelpTest::WithLiveAgent {
 protected:
  // Waits until so many operations wait, and gives them by their lines.
  std::map<unsigned, Json> waitingOf(std::size_t count, std::vector<std::string> arguments = {}) {
    arguments.insert(arguments.begin(), "waiting");
    Json found;
    EXPECT_TRUE(comesTrue([&] {
      found = kelpJson(arguments);
      return found["count"] == count;
    })) << found;
    std::map<unsigned, Json> byLine;
    for (const Json& one : found["waiting"]) {
      byLine[one["line"].get<unsigned>()] = one;
    }
    return byLine;
  }
  [[nodiscard]] static std::vector<std::string> kindsOf(const Json& operation) {
    std::vector<std::string> kinds;
    for (const Json& reason : operation["waitsFor"]) {
      kinds.push_back(reason["kind"]);
    }
    return kinds;
  }
  [[nodiscard]] static std::string afterVd(unsigned fodo) {
    return R"(,"after":{"table":"EsemFodoVd","unit":0,"key":{"fodo":)" + std::to_string(fodo) +
           R"(,"vlanDomain":1,"port":1}})";
  }
};

TEST_F(KelpOnIntents, TellsWhatEachOneWaitsFor) {
  const auto running = inspectedAgent();
  const auto hardware = programmedChip();
  ASSERT_TRUE(listens());
  EXPECT_EQ(kelp({"waiting"}).out, "nothing waits\n");
  EXPECT_EQ(kelpJson({"waiting"}), Json::parse(R"({"waiting":[],"count":0})"));

  Feature feature(socketPath());
  ASSERT_TRUE(feature.send(vlanEvent(7, "prepare") + writeVd(1, withVlan(7)) + writeVd(2, "") +
                           writeFodo(3, 3, afterVd(1)) +
                           R"({"op":"removeAll","table":"IsemInnerEth","unit":0)" + afterVd(1) +
                           "}\n" + AgentTest::writeInner(5)));
  auto waiting = waitingOf(5);
  // A resource that is being prepared.
  ASSERT_EQ(kindsOf(waiting[2]), std::vector<std::string>{"resource"});
  const Json resource = waiting[2]["waitsFor"][0];
  EXPECT_EQ(resource["resource"], "vlanEditProfile");
  EXPECT_EQ(resource["key"]["untagged"]["outerVlan"], 7);
  EXPECT_EQ(resource["state"], "being prepared");
  EXPECT_EQ(waiting[2]["op"], "write");
  EXPECT_EQ(waiting[2]["source"], "socket:1");
  EXPECT_EQ(waiting[2]["key"], Json::parse(R"({"fodo":1,"vlanDomain":1,"port":1})"));
  EXPECT_THAT(waiting[2]["since"].get<std::string>(), testing::EndsWith("Z"));
  EXPECT_FALSE(waiting[2]["again"].get<bool>());
  // The one before it in the queue of its table.
  ASSERT_EQ(kindsOf(waiting[3]), std::vector<std::string>{"entry"});
  EXPECT_EQ(waiting[3]["waitsFor"][0]["key"], waiting[2]["key"]);
  EXPECT_TRUE(waiting[3]["waitsFor"][0]["before"].get<bool>());
  // The one that `after` names, in another table.
  ASSERT_EQ(kindsOf(waiting[4]), std::vector<std::string>{"entry"});
  EXPECT_EQ(waiting[4]["waitsFor"][0]["table"], "EsemFodoVd");
  EXPECT_EQ(waiting[4]["waitsFor"][0]["key"], waiting[2]["key"]);
  EXPECT_FALSE(waiting[4]["waitsFor"][0]["before"].get<bool>());
  // And so with a remove-all, which holds back what comes after it.
  EXPECT_EQ(kindsOf(waiting[5]), std::vector<std::string>{"entry"});
  EXPECT_FALSE(waiting[5].contains("key"));
  EXPECT_EQ(kindsOf(waiting[6]), std::vector<std::string>{"removeAll"});

  // By table, by unit, by key, in pages.
  EXPECT_EQ(waitingOf(2, {"--table", "EsemFodoVd"}).size(), 2U);
  EXPECT_EQ(waitingOf(5, {"--unit", "0"}).size(), 5U);
  EXPECT_EQ(waitingOf(5, {"--limit", "2"}).size(), 2U);
  EXPECT_EQ(waitingOf(1, {"--table", "EsemFodoVd", "--key", "fodo=2,vlanDomain=1,port=1"}).size(),
            1U);
  says({"waiting", "--unit", "1"}, 2, "unit 1 is not there: write 0");
  says({"waiting", "--table", "EsemFod"}, 2, R"(did you mean "EsemFodo")");
  const Result text = kelp({"waiting", "--table", "EsemFodoVd"});
  EXPECT_THAT(text.out, StartsWith("for "));
  EXPECT_THAT(text.out,
              HasSubstr("write EsemFodoVd unit 0 fodo=1 vlanDomain=1 port=1  socket:1:2"));
  EXPECT_THAT(text.out, HasSubstr("being prepared\n"));
  EXPECT_THAT(text.out, HasSubstr("which is before it in the queue\n"));

  ASSERT_TRUE(feature.send(vlanEvent(7, "ready")));
  EXPECT_TRUE(comesTrue([&] { return kelp({"waiting"}).out == "nothing waits\n"; }));
}

TEST_F(KelpOnIntents, TellsWhatWaitsForTheHardware) {
  const auto running = inspectedAgent();
  ASSERT_TRUE(listens());
  Feature feature(socketPath());
  ASSERT_TRUE(
      feature.send(writeFodo(1, 7) + R"({"op":"removeAll","table":"EsemFodo","unit":0})" + "\n"));
  auto waiting = waitingOf(2);
  for (unsigned line = 1; line <= 2; ++line) {
    ASSERT_EQ(kindsOf(waiting[line]), std::vector<std::string>{"hardware"});
    EXPECT_EQ(waiting[line]["waitsFor"][0]["version"], line);
    EXPECT_EQ(waiting[line]["waitsFor"][0]["reported"], 0);
  }
  EXPECT_THAT(kelp({"waiting"}).out,
              HasSubstr("in the log at version 2, the hardware side has reported 0\n"));
  auto hardware = programmedChip();
  EXPECT_TRUE(comesTrue([&] { return kelpJson({"waiting"})["count"] == 0; }));
  // Stopped, it reports no more.
  hardware.kill(SIGSTOP);
  ASSERT_TRUE(feature.send(writeFodo(2, 7)));
  EXPECT_EQ(kindsOf(waitingOf(1)[3]), std::vector<std::string>{"hardware"});
  hardware.kill(SIGCONT);
  EXPECT_TRUE(comesTrue([&] { return kelpJson({"waiting"})["count"] == 0; }));
}

TEST_F(KelpOnIntents, TellsWhatIsTriedAgain) {
  const auto running = inspectedAgent();
  const auto hardware = programmedChip();
  ASSERT_TRUE(listens());
  Feature feature(socketPath());
  ASSERT_TRUE(feature.send(vlanEvent(7, "refuse") + writeVd(1, withVlan(7))));
  const Json again = waitingOf(1)[2];
  EXPECT_TRUE(again["again"].get<bool>());
  ASSERT_EQ(kindsOf(again), std::vector<std::string>{"resource"});
  EXPECT_EQ(again["waitsFor"][0]["state"], "refused");
  EXPECT_THAT(kelp({"waiting"}).out, HasSubstr("second write EsemFodoVd unit 0"));
  EXPECT_EQ(kelpJson({"stats"})["agent"]["writesToTryAgain"], 1);
  EXPECT_EQ(kelpJson({"stats"})["resources"][1]["failed"], 1);
  ASSERT_TRUE(feature.send(vlanEvent(7, "allow")));
  EXPECT_TRUE(comesTrue([&] { return kelpJson({"waiting"})["count"] == 0; }));
}

TEST_F(KelpOnIntents, TellsOfMoreThanOnePage) {
  const auto running = inspectedAgent();
  ASSERT_TRUE(listens());
  Feature feature(socketPath());
  std::string lines;
  for (unsigned fodo = 1; fodo <= 2500; ++fodo) {
    lines += writeFodo(fodo, 1);
  }
  ASSERT_TRUE(feature.send(lines));
  const auto waiting = waitingOf(2500, {"--limit", "5000"});
  EXPECT_EQ(waiting.size(), 2500U) << "each one once";
  EXPECT_EQ(kelp({"waiting", "--limit", "3"}).lines().back(),
            "3 of 2500, the longest first; --limit N shows more");
}

TEST_F(KelpOnIntents, TellsWhoUsesAResource) {
  const auto running = inspectedAgent({"--units", "2"});
  const auto hardware = programmedChip();
  ASSERT_TRUE(listens());
  const auto usersOf = [&](unsigned vlan) {
    return kelpJson({"users", "vlanEditProfile", vlanEdit(vlan)});
  };
  EXPECT_EQ(usersOf(7)["state"], Json());
  EXPECT_THAT(kelp({"users", "vlanEditProfile", vlanEdit(7)}).out,
              HasSubstr("  state    nobody has asked for it\n"));

  // Asked for, and not acknowledged.
  Feature feature(socketPath());
  ASSERT_TRUE(
      feature.send(vlanEvent(7, "prepare") + writeVd(1, withVlan(7)) + writeVd(2, withVlan(7), 1)));
  Json users;
  ASSERT_TRUE(comesTrue([&] { return (users = usersOf(7))["waitingCount"] == 2; }));
  EXPECT_EQ(users["state"], "being prepared");
  EXPECT_EQ(users["entries"], 0);
  ASSERT_EQ(users["clients"].size(), 2U);
  EXPECT_EQ(users["clients"][0]["acknowledged"], Json());
  EXPECT_TRUE(users["clients"][0]["behind"].get<bool>());
  EXPECT_EQ(users["waiting"][0]["table"], "EsemFodoVd");
  Result text = kelp({"users", "vlanEditProfile", vlanEdit(7)});
  EXPECT_THAT(text.out, HasSubstr("has not acknowledged this version"));
  EXPECT_THAT(text.out,
              HasSubstr(": write EsemFodoVd unit 0 fodo=1 vlanDomain=1 port=1 of socket"));

  // Given out, and acknowledged by both.
  ASSERT_TRUE(feature.send(vlanEvent(7, "ready")));
  ASSERT_TRUE(comesTrue([&] { return (users = usersOf(7))["entries"] == 2; }));
  EXPECT_EQ(users["state"], "given out");
  EXPECT_EQ(users["result"], Json({1}));
  EXPECT_EQ(users["waitingCount"], 0);
  for (unsigned unit = 0; unit < 2; ++unit) {
    const Json client = users["clients"][unit];
    EXPECT_EQ(client["unit"], unit);
    EXPECT_EQ(client["acknowledged"], users["version"]);
    EXPECT_FALSE(client["behind"].get<bool>());
    EXPECT_EQ(client["keys"][0]["fodo"], unit + 1);
  }
  // A change makes a new version, which they acknowledge.
  const unsigned version = users["version"];
  ASSERT_TRUE(feature.send(vlanEvent(7, "change")));
  ASSERT_TRUE(comesTrue([&] { return (users = usersOf(7))["version"] == version + 1; }));
  EXPECT_EQ(users["clients"][0]["acknowledged"], version + 1);
  EXPECT_NE(users["result"], Json({1}));
  EXPECT_THAT(kelp({"users", "vlanEditProfile", vlanEdit(7)}).out,
              HasSubstr("given out, version " + std::to_string(version + 1)));
}

TEST_F(KelpOnIntents, TakesKeysOfAllKindsOfResources) {
  const auto running = inspectedAgent();
  ASSERT_TRUE(listens());
  Feature feature(socketPath());
  ASSERT_TRUE(feature.send(AgentTest::writeIsem(5, 7) + writeVd(1, withRemark("Ethernet3/1.100"))));
  EXPECT_TRUE(comesTrue([&] {
    return kelpJson({"users", "inLifIndex", "attachmentCircuit=7"})["entries"] == 1;
  }));
  EXPECT_EQ(kelpJson({"users", "inLifIndex", R"({"attachmentCircuit":7})"})["clients"][0]["table"],
            "Isem1Tag");
  EXPECT_TRUE(comesTrue([&] {
    return kelpJson({"users", "remarkProfile", "Ethernet3/1.100"})["entries"] == 1;
  }));
  says({"users", "inLif", "attachmentCircuit=7"}, 2, R"(resource is "inLif": write "inLifIndex")");
  says({"users", "inLifIndex", "attachmentCircuit=x"}, 2, "key.attachmentCircuit is \"x\": write");
  says({"users", "inLifIndex", "attachmentCircuit=7,"}, 2, "is no part of a key");
  EXPECT_EQ(kelp({"users", "inLifIndex"}).status, 2);
}

}  // namespace
