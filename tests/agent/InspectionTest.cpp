#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <set>

#include "Inspector.h"

// What can be read and driven through the agent's inspection socket.

namespace {

using AgentTest::comesTrue;
using AgentTest::Feature;
using AgentTest::Inspector;
using AgentTest::Json;
using AgentTest::writeFodo;
using testing::HasSubstr;

class AgentInspection : public AgentTest::WithInspection {};

TEST_F(AgentInspection, NamesRootsClassesAndAttributes) {
  const auto program = inspectedAgent();
  Inspector inspector(inspectPath());
  const Json roots = inspector.result("objects");
  for (const char* table : {"EsemFodo", "LemVpwsAc"}) {
    const Json root = {{"path", interfaceOf(table)}, {"class", interfaceOf(table)}};
    EXPECT_NE(std::find(roots.begin(), roots.end(), root), roots.end()) << roots;
  }

  const Json classes = inspector.result("classes");
  EXPECT_GE(classes.size(), 90U);
  EXPECT_TRUE(std::is_sorted(classes.begin(), classes.end()));
  const std::string name = "KelpEmServer::Isem1TagKelpSwTable";
  EXPECT_NE(std::find(classes.begin(), classes.end(), name), classes.end());

  const Json attributes = inspector.result("attributes", {{"class", name}});
  const auto named = [&](const std::string& attribute) {
    for (const Json& one : attributes) {
      if (one["name"] == attribute) {
        return one;
      }
    }
    return Json();
  };
  EXPECT_EQ(attributes[0]["name"], "swTableHelper");
  EXPECT_EQ(attributes[0]["flags"], Json::array({"stored", "ptr", "writable"}));
  EXPECT_EQ(named("transientAddEntry"),
            Json::parse(R"({"name":"transientAddEntry","id":899,"kind":"collection",
                "type":"Isem1TagKelpEntryWrapper","keyType":"KelpTunnelNiLib::Isem1TagEntryKey",
                "arguments":["Isem1TagKelpEntryWrapper"],
                "flags":["stored","ptr","writable","deletes"]})"));
  EXPECT_EQ(named("clearTable")["kind"], "operation");
  EXPECT_EQ(named("clearTable")["arguments"], Json::array({"bool"}));
  EXPECT_EQ(named("clearTable")["flags"], Json::array({"mutating"}));
  EXPECT_EQ(named("getTableEntries_py")["flags"], Json::array({"ptr"}));
  EXPECT_FALSE(named("getTableEntries_py").contains("arguments"));
  EXPECT_THAT(named("markedKey")["flags"].dump(), HasSubstr("\"set\""));
}

TEST_F(AgentInspection, ListsWhatIsAtAPlace) {
  const auto program = inspectedAgent();
  Inspector inspector(inspectPath());
  const std::string table = tableOf("EsemFodo");
  const auto list = [&](const std::string& path) {
    return inspector.result("list", {{"path", path}});
  };
  const Json object = list(table);
  EXPECT_EQ(object["path"], table);
  EXPECT_EQ(object["class"], "KelpEmServer::EsemFodoKelpSwTable");
  std::set<std::string> declaredBy;
  for (const Json& one : object["attributes"]) {
    declaredBy.insert(one["declaredBy"].get<std::string>());
  }
  EXPECT_THAT(declaredBy, testing::Contains("KelpEmServer::EsemFodoKelpSwTable"));
  EXPECT_THAT(declaredBy, testing::Contains("Asic::OrderedSwTable"));
  // The object that an attribute is.
  EXPECT_EQ(list(table + "/stats")["class"], "Asic::SwTableStats");
  EXPECT_EQ(list(table + "/stats/commitCnt"),
            Json({{"path", table + "/stats/commitCnt"}, {"value", 0}}));
  const Json collection = list(table + "/transientAddEntry");
  EXPECT_EQ(collection["attribute"]["kind"], "collection");
  EXPECT_EQ(collection["attribute"]["declaredBy"], "KelpEmServer::EsemFodoKelpSwTable");
  EXPECT_EQ(collection["count"], 0);
  EXPECT_EQ(list(table + "/clearTable")["attribute"]["kind"], "operation");
}

TEST_F(AgentInspection, ReadsValuesAndGivesPathsOfObjects) {
  const auto hardware = chip();
  const auto program = inspectedAgent();
  Feature feature(socketPath());
  Inspector inspector(inspectPath());
  writeEntries(feature, 3);
  const std::string table = tableOf("EsemFodo");
  EXPECT_EQ(inspector.read(interfaceOf("EsemFodo") + "/tableName"), "EsemFodoKelp");
  EXPECT_EQ(inspector.read(table + "/stats/entryWriteCnt"), 3);
  EXPECT_EQ(inspector.read(table + "/hasPendingHwWrites"), false);
  EXPECT_EQ(inspector.read(table), Json({{"ref", table}}));
  EXPECT_EQ(inspector.read(table + "/entryLog"), Json({{"ref", table + "/entryLog"}}));
  // What no path leads to has a name of its own, and the same object always the same.
  const Json copy = inspector.read(table + "/getTableEntries_py");
  EXPECT_EQ(copy, Json({{"ref", "$1"}}));
  EXPECT_EQ(inspector.read("$1"), copy);
  EXPECT_EQ(inspector.count("$1/tableEntries"), 3U);
  writeEntries(feature, 4);
  EXPECT_EQ(inspector.count("$1/tableEntries"), 3U) << "a copy of its time";
  EXPECT_EQ(inspector.read("$1/tableEntries[2]"),
            Json::parse(R"({"logEntry":{"fodo":2,"outLif":2,"tpidProfile":0}})"));
  EXPECT_EQ(inspector.read("$1[2]/logEntry/outLif"), 2);
  EXPECT_EQ(inspector.result("release", {{"ref", "$1"}}), nullptr);
  EXPECT_EQ(inspector.code("read", {{"path", "$1"}}), 2);
  EXPECT_EQ(inspector.read(table + "/getTableEntries_py"), Json({{"ref", "$2"}}));
}

TEST_F(AgentInspection, APathOfAMemberLeadsThereAgainWhateverItsKey) {
  const auto hardware = chip();
  const auto program = inspectedAgent();
  Feature feature(socketPath());
  Inspector inspector(inspectPath());
  const std::string waiting = keepWaiting(feature, inspector, 6);
  EXPECT_EQ(inspector.read(waiting), Json({{"ref", waiting}}));
  EXPECT_EQ(inspector.read(waiting + "/entryHandle"), Json({{"ref", waiting + "/entryHandle"}}));
  EXPECT_EQ(inspector.read(waiting + "/key/fodo"), 6);
  EXPECT_EQ(inspector.read(waiting + "/remarkProfileKeyResPtr"), nullptr);
  // This one's key is a list; a path leaves out what is at its default.
  EXPECT_TRUE(feature.send(AgentTest::vlanEvent(100, "ready")));
  EXPECT_TRUE(feature.receives("\"fodo\":6"));
  const std::string usages = tableOf("EsemFodoVd") + "/vlanEditProfileLinkage/entryUsageSm";
  const Json page = inspector.result("iterate", {{"path", usages}});
  ASSERT_EQ(page["members"].size(), 1U);
  const Json ref = page["members"][0][1];
  EXPECT_THAT(ref["ref"].get<std::string>(), testing::StartsWith(usages + "[0={"));
  EXPECT_EQ(inspector.read(ref["ref"]), ref);
  const Json key = page["members"][0][0];
  EXPECT_EQ(inspector.result("lookup", {{"path", usages}, {"key", key}}), ref);
  EXPECT_EQ(inspector.result("has", {{"path", usages}, {"key", key}}), true);
  // A set has keys alone.
  const Json users =
      inspector.result("iterate", {{"path", ref["ref"].get<std::string>() + "/entryUsage"}});
  EXPECT_EQ(users["members"], Json::parse(R"([[{"fodo":6,"vlanDomain":1,"port":1}]])"));
}

TEST_F(AgentInspection, AQueueIsWalkedByTheIndexesOfItsElements) {
  const auto program = inspectedAgent();
  Feature feature(socketPath());
  Inspector inspector(inspectPath());
  const std::string queue = tableOf("EsemFodo") + "/entryHandleInLog";
  // Nobody reports them, so that they stay.
  EXPECT_TRUE(feature.send(writeFodo(11, 1) + writeFodo(12, 2) + writeFodo(13, 3)));
  EXPECT_TRUE(comesTrue([&] { return inspector.count(queue) == 3; }));
  const Json page = inspector.result("iterate", {{"path", queue}, {"limit", 2}});
  ASSERT_EQ(page["members"].size(), 2U);
  const Json rest = inspector.result("iterate", {{"cursor", page["cursor"]}});
  ASSERT_EQ(rest["members"].size(), 1U);
  EXPECT_EQ(rest["cursor"], nullptr);
  const std::string last = queue + "[" + rest["members"][0][0].dump() + "]";
  EXPECT_EQ(rest["members"][0][1], Json({{"ref", last}}));
  EXPECT_EQ(inspector.read(last + "/entryState"), 1);
  EXPECT_EQ(inspector.read(last), Json({{"ref", last}}));
}

TEST_F(AgentInspection, WritesCallsAndDeletes) {
  const auto hardware = chip();
  const auto program = inspectedAgent();
  Feature feature(socketPath());
  Inspector inspector(inspectPath());
  writeEntries(feature, 3);
  const std::string marking = tableOf("EsemFodo") + "/inMarkingState";
  EXPECT_EQ(inspector.result("write", {{"path", marking}, {"value", true}}), nullptr);
  EXPECT_EQ(inspector.read(marking), true);
  EXPECT_EQ(inspector.result("write", {{"path", marking}, {"args", Json::array({false})}}),
            nullptr);
  EXPECT_EQ(inspector.read(marking), false);

  const std::string has = interfaceOf("EsemFodo") + "/entryLog/entryHas";
  EXPECT_EQ(inspector.result("call", {{"path", has}, {"args", Json::array({2, 0})}}), true);
  EXPECT_EQ(inspector.result("call", {{"path", has}, {"args", Json::array({9, 0})}}), false);
  // Objects go in and come back by their paths.
  const std::string make = interfaceOf("EsemFodo") + "/makeSwTable";
  EXPECT_EQ(inspector.result("call", {{"path", make}, {"args", Json::array({0, nullptr, false})}}),
            Json({{"ref", "$1"}}));
  EXPECT_EQ(inspector.read("$1/stats/entryWriteCnt"), 3);

  ASSERT_EQ(inspector.read("$1/getTableEntries_py"), Json({{"ref", "$2"}}));
  const std::string entries = "$2/tableEntries";
  const Json entry = Json::parse(R"({"logEntry":{"fodo":2,"outLif":2,"tpidProfile":0}})");
  EXPECT_EQ(inspector.result("lookup", {{"path", entries}, {"key", 2}}), entry);
  EXPECT_EQ(inspector.result("lookup", {{"path", entries}, {"key", 9}}), nullptr);
  EXPECT_EQ(inspector.result("delete", {{"path", entries}, {"key", 2}}), entry);
  EXPECT_EQ(inspector.result("delete", {{"path", entries}, {"key", 2}}), nullptr);
  EXPECT_EQ(inspector.count(entries), 2U);
  EXPECT_EQ(inspector.result("write", {{"path", entries}, {"value", entry}}), nullptr);
  EXPECT_EQ(inspector.result("has", {{"path", entries}, {"key", 2}}), true);
  EXPECT_EQ(inspector.result("has", {{"path", entries}, {"key", 9}}), false);
  EXPECT_EQ(inspector.result("call", {{"path", has}, {"args", Json::array({2, 0})}}), true)
      << "only a copy";
  EXPECT_EQ(inspector.result("call", {{"path", "$1/clearTable"}, {"args", Json::array({false})}}),
            nullptr);
  EXPECT_TRUE(comesTrue([&] {
    return inspector.result("call", {{"path", has}, {"args", Json::array({1, 0})}}) == false;
  }));
}

TEST_F(AgentInspection, AWalkGoesOnWhateverHappensToTheCollection) {
  const auto hardware = chip();
  const auto program = inspectedAgent();
  Feature feature(socketPath());
  Inspector inspector(inspectPath());
  writeEntries(feature, 2500);
  const std::string made = tableOf("EsemFodo") + "/getTableEntries_py";
  // By pages of 1000, or of what is asked for.
  const auto pages = [&](const std::string& path, const Json& limit) {
    std::vector<std::size_t> sizes;
    std::vector<std::uint64_t> keys;
    Json params = {{"path", path}};
    for (Json cursor; sizes.empty() || !cursor.is_null(); params = {{"cursor", cursor}}) {
      if (!limit.is_null()) {
        params["limit"] = limit;
      }
      const Json page = inspector.result("iterate", params);
      cursor = page["cursor"];
      sizes.push_back(page["members"].size());
      for (const Json& member : page["members"]) {
        keys.push_back(member[0]);
        EXPECT_EQ(member[1]["logEntry"]["fodo"], member[0]);
      }
    }
    EXPECT_EQ(std::set(keys.begin(), keys.end()).size(), 2500U);
    EXPECT_EQ(keys.size(), 2500U);
    return std::pair(sizes, keys);
  };
  EXPECT_EQ(pages(made + "/tableEntries", nullptr).first,
            (std::vector<std::size_t>{1000, 1000, 500}));
  ASSERT_EQ(inspector.read(made), Json({{"ref", "$1"}}));
  const auto [sizes, order] = pages("$1/tableEntries", 10000);
  EXPECT_EQ(sizes, (std::vector<std::size_t>{2500}));

  // The member that comes next goes, the one that came last, and one far away.
  const auto drop = [&](std::uint64_t key) {
    EXPECT_NE(inspector.result("delete", {{"path", "$1/tableEntries"}, {"key", key}}), nullptr);
  };
  Json page = inspector.result("iterate", {{"path", "$1/tableEntries"}, {"limit", 10}});
  EXPECT_EQ(page["members"][9][0], order[9]);
  const Json cursor = page["cursor"];
  drop(order[9]);
  drop(order[10]);
  drop(order[15]);
  page = inspector.result("iterate", {{"cursor", cursor}, {"limit", 5}});
  for (unsigned i = 0; i < 4; ++i) {
    EXPECT_EQ(page["members"][i][0], order[11 + i]);
  }
  EXPECT_EQ(page["members"][4][0], order[16]);
  // A walk begins where another one stood.
  const Json later =
      inspector.result("iterate", {{"path", "$1/tableEntries"}, {"from", order[20]}, {"limit", 1}});
  EXPECT_EQ(later["members"][0][0], order[20]);
  EXPECT_EQ(inspector.result("iterate", {{"path", "$1/tableEntries"}, {"from", order[9]}}),
            Json::parse(R"({"members":[],"cursor":null})"));
  // Its object is let go of, and all members go.
  for (const std::uint64_t key : order) {
    (void)inspector.ask("delete", {{"path", "$1/tableEntries"}, {"key", key}});
  }
  EXPECT_EQ(inspector.result("release", {{"ref", "$1"}}), nullptr);
  EXPECT_EQ(inspector.result("iterate", {{"cursor", cursor}}),
            Json::parse(R"({"members":[],"cursor":null})"));
  EXPECT_EQ(inspector.code("iterate", {{"cursor", cursor}}), 2) << "it has ended";
  EXPECT_EQ(inspector.result("close", {{"cursor", later["cursor"]}}), nullptr);
  EXPECT_EQ(inspector.code("close", {{"cursor", later["cursor"]}}), 2);
}

TEST_F(AgentInspection, TellsOfChangesToAnEntryOnItsWay) {
  const auto hardware = chip();
  const auto program = inspectedAgent();
  Feature feature(socketPath());
  Inspector inspector(inspectPath());
  const std::string waiting = keepWaiting(feature, inspector, 6);
  const std::string state = waiting + "/entryHandle/entryState";
  EXPECT_EQ(inspector.read(state), 0);
  const Json first = inspector.result("subscribe", {{"path", state}});
  const std::string all = tableOf("EsemFodoVd") + "/transientAddEntry";
  const Json second = inspector.result("subscribe", {{"path", all}});
  EXPECT_NE(first, second);
  const Json other =
      inspector.result("subscribe", {{"path", tableOf("EsemFodoVd") + "/transientRemoveEntry"}});
  EXPECT_TRUE(feature.send(AgentTest::vlanEvent(100, "ready")));
  // Of the collection: it leaves.
  std::vector<Json> told;
  while (told.size() < 2) {
    told.push_back(inspector.change());
  }
  const Json left = {{"subscription", second},
                     {"path", all},
                     {"key", {{"fodo", 6}, {"vlanDomain", 1}, {"port", 1}}},
                     {"value", nullptr}};
  EXPECT_THAT(told, testing::Contains(left));
  // Of the handle: it succeeds, once the hardware side has the entry. It is told with its newest
  // value.
  Json newest;
  for (const Json& one : told) {
    newest = one["subscription"] == first ? one["value"] : newest;
  }
  while (newest != 4) {
    const Json one = inspector.change();
    ASSERT_EQ(one["subscription"], first) << one;
    EXPECT_EQ(one["path"], state);
    EXPECT_FALSE(one.contains("key"));
    newest = one["value"];
  }
  // The way there is gone, and the peer was there.
  EXPECT_EQ(inspector.code("read", {{"path", state}}), 3);
  EXPECT_THAT(inspector.message("read", {{"path", waiting}}),
              HasSubstr(all + ": no member [fodo=6,vlanDomain=1,port=1] among 0: it was there"));
  EXPECT_EQ(Inspector(inspectPath()).code("read", {{"path", state}}), 2) << "another peer was not";

  EXPECT_EQ(inspector.result("unsubscribe", {{"subscription", second}}), nullptr);
  EXPECT_EQ(inspector.code("unsubscribe", {{"subscription", second}}), 2);
  EXPECT_TRUE(feature.send(AgentTest::writeVd(7, "")));
  EXPECT_TRUE(feature.receives("\"fodo\":7"));
  EXPECT_EQ(inspector.result("unsubscribe", {{"subscription", other}}), nullptr);
  EXPECT_TRUE(inspector.changes().empty()) << inspector.changes().front();
}

TEST_F(AgentInspection, AnAttributeThatChangesFasterThanItIsTakenIsToldWithItsNewestValue) {
  const auto program = inspectedAgent();
  Inspector slow(inspectPath());
  Inspector writer(inspectPath());
  const std::string marking = tableOf("EsemFodo") + "/inMarkingState";
  (void)slow.result("subscribe", {{"path", marking}});
  constexpr unsigned kRequests = 400;
  std::string text;
  for (unsigned i = 0; i < kRequests; ++i) {
    text += Inspector::request(std::to_string(i), "classes");
  }
  ASSERT_TRUE(slow.feature().send(text));
  for (unsigned i = 0; i < kRequests; ++i) {
    (void)writer.read(marking);
  }
  constexpr unsigned kWrites = 301;
  for (unsigned i = 0; i < kWrites; ++i) {
    (void)writer.result("write", {{"path", marking}, {"value", i % 2 == 0}});
  }
  for (unsigned i = 0; i < kRequests; ++i) {
    EXPECT_EQ(slow.answer()["id"], i);
  }
  (void)slow.read(marking);
  ASSERT_FALSE(slow.changes().empty());
  EXPECT_LT(slow.changes().size(), kWrites / 2);
  EXPECT_EQ(slow.changes().back()["params"]["value"], true);
}

TEST_F(AgentInspection, AnswersInOrderAndBatchesAsOne) {
  const auto program = inspectedAgent();
  Inspector inspector(inspectPath());
  const std::string name = interfaceOf("EsemFodo") + "/tableName";
  const auto read = [&](const std::string& id) {
    return R"({"jsonrpc":"2.0",)" + id + R"("method":"read","params":{"path":")" + name + "\"}}";
  };
  const auto& feature = inspector.feature();
  EXPECT_TRUE(feature.send(read("\"id\":7,") + "\n" + read("\"id\":\"a\\\"b\",") + "\n" +
                           read("\"id\":null,") + "\n" + read("\"id\":-1.5,") + "\n\n"));
  for (const Json& id : {Json(7), Json("a\"b"), Json(nullptr), Json(-1.5)}) {
    EXPECT_EQ(inspector.line(), Json({{"jsonrpc", "2.0"}, {"id", id}, {"result", "EsemFodoKelp"}}));
  }
  // A notification gets no response, in a batch or alone; one that is wrong neither.
  EXPECT_TRUE(feature.send(read("") + "\n[" + read("") + "," + read("\"id\":1,") + ",5," +
                           R"({"jsonrpc":"2.0","method":"nonsense"},)" + read("\"id\":2,") +
                           "]\n[" + read("") + "]\n"));
  const Json batch = inspector.line();
  ASSERT_EQ(batch.size(), 3U) << batch;
  EXPECT_EQ(batch[0]["id"], 1);
  EXPECT_EQ(batch[1]["id"], nullptr);
  EXPECT_EQ(Inspector::codeOf(batch[1]), -32600);
  EXPECT_EQ(batch[2]["result"], "EsemFodoKelp");
  EXPECT_EQ(inspector.read(name), "EsemFodoKelp");
  // The last line may have no end.
  std::string last = read("\"id\":3,");
  EXPECT_TRUE(feature.send(last));
  feature.endSending();
  EXPECT_EQ(inspector.line()["id"], 3);
  EXPECT_TRUE(inspector.line().empty()) << "the stream ends";
}

TEST_F(AgentInspection, TheSocketHasTheModeThatIsAskedFor) {
  const auto modeOf = [&] {
    struct stat status {};
    EXPECT_TRUE(comesTrue(
        [&] { return stat(inspectPath().c_str(), &status) == 0 && (status.st_mode & 0111) == 0; }));
    return status.st_mode & 0777;
  };
  {
    auto program = inspectedAgent();
    Inspector inspector(inspectPath());
    EXPECT_EQ(modeOf(), 0660U);
    program.kill(SIGTERM);
    EXPECT_EQ(program.ends(), 0);
    EXPECT_NE(access(inspectPath().c_str(), F_OK), 0) << "the socket's file is left";
  }
  const auto program = inspectedAgent({"--inspect-mode", "0600"});
  Inspector inspector(inspectPath());
  EXPECT_EQ(modeOf(), 0600U);
  auto second = agent({"--name", "other", "--inspect", inspectPath()});
  EXPECT_EQ(second.ends(), 1);
  EXPECT_THAT(second.err(), HasSubstr("another process listens there: end it, or name another with "
                                      "--inspect"));
  auto third = agent({"--inspect", path("x"), "--inspect-mode", "8"});
  EXPECT_EQ(third.ends(), 1);
  EXPECT_THAT(third.err(), HasSubstr("8 is no mode: write an octal number such as 0660"));
}

TEST_F(AgentInspection, TheSocketIsNeverWiderThanItsMode) {
  const int watch = inotify_init1(IN_NONBLOCK);
  ASSERT_GE(inotify_add_watch(watch, root_.path().c_str(), IN_CREATE | IN_ATTRIB), 0);
  const auto program = inspectedAgent({"--inspect-mode", "0600"});
  Inspector inspector(inspectPath());
  alignas(inotify_event) std::array<char, 1 << 16> events{};
  const ssize_t size = read(watch, events.data(), events.size());
  close(watch);
  unsigned made = 0;
  for (ssize_t at = 0; at < size;) {
    const auto& event = *reinterpret_cast<const inotify_event*>(events.data() + at);
    if (event.len != 0 && std::string(event.name) == "inspect.sock") {
      made += (event.mask & IN_CREATE) != 0 ? 1 : 0;
      EXPECT_EQ(event.mask & IN_ATTRIB, 0U) << "it had another mode before";
    }
    at += static_cast<ssize_t>(sizeof(inotify_event) + event.len);
  }
  EXPECT_EQ(made, 1U);
}

TEST_F(AgentInspection, ASocketWhoseOwnerTakesNobodyHoldsNoStartUp) {
  const int owner = socket(AF_UNIX, SOCK_STREAM, 0);
  const sockaddr_un address = AgentTest::addressOf(inspectPath());
  ASSERT_EQ(bind(owner, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
  ASSERT_EQ(listen(owner, 0), 0);
  const Feature first(inspectPath());  // takes the only place of the queue
  auto program = inspectedAgent();
  EXPECT_EQ(program.ends(), 1);
  EXPECT_THAT(program.err(), HasSubstr("another process listens there"));
  close(owner);
}

TEST_F(AgentInspection, WhateverAPeerHoldsTheAgentStopsCleanly) {
  auto program = inspectedAgent();
  Feature feature(socketPath());
  Inspector inspector(inspectPath());
  const std::string waiting = keepWaiting(feature, inspector, 6);
  const std::string table = tableOf("EsemFodoVd");
  (void)inspector.result("subscribe", {{"path", waiting + "/entryHandle/entryState"}});
  (void)inspector.result("subscribe", {{"path", table + "/transientAddEntry"}});
  EXPECT_TRUE(feature.send(AgentTest::writeVd(7, AgentTest::withVlan(100))));
  (void)inspector.change();
  const Json page =
      inspector.result("iterate", {{"path", table + "/transientAddEntry"}, {"limit", 1}});
  EXPECT_FALSE(page["cursor"].is_null());
  (void)inspector.read(table + "/getTableEntries_py");
  program.kill(SIGTERM);
  EXPECT_EQ(program.ends(), 5) << "two intents have no outcome";
  EXPECT_EQ(program.err().find("assert"), std::string::npos) << program.err();
}

}  // namespace
