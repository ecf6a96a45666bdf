#include <pty.h>
#include <sys/ioctl.h>
#include <termios.h>

#include <cstring>
#include <map>
#include <set>

#include "LiveKelp.h"

// stats, top, trace and changes.

namespace {

using AgentTest::comesTrue;
using AgentTest::Feature;
using AgentTest::Json;
using AgentTest::removeFodo;
using AgentTest::writeFodo;
using KelpTest::Result;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

class KelpOnFigures : public KelpTest::WithLiveAgent {
 protected:
  // An agent that has carried out what was sent.
  void settle(Feature& feature, const std::string& lines, unsigned lastLine) {
    sendAndWait(feature, lines, lastLine);
  }
};

// Reads the text format as its description has it, and complains of all that it does not allow.
class Metrics {
 public:
  explicit Metrics(const std::string& text) {
    EXPECT_TRUE(text.empty() || text.back() == '\n');
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
      line.starts_with('#') ? comment(line) : sample(line);
    }
    EXPECT_EQ(helped_, typed_);
  }
  // A sample by its name and labels, as they stand.
  [[nodiscard]] double at(const std::string& series) const {
    const auto found = samples_.find(series);
    EXPECT_NE(found, samples_.end()) << series;
    return found == samples_.end() ? -1 : found->second;
  }
  [[nodiscard]] std::size_t size() const { return samples_.size(); }

 private:
  static bool isName(const std::string& text) {
    return !text.empty() && std::isdigit(static_cast<unsigned char>(text[0])) == 0 &&
           text.find_first_not_of(
               "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_") ==
               std::string::npos;
  }
  void comment(const std::string& line) {
    std::istringstream words(line);
    std::string hash;
    std::string what;
    std::string name;
    std::string rest;
    words >> hash >> what >> name;
    std::getline(words, rest);
    EXPECT_TRUE(isName(name)) << line;
    if (what == "HELP") {
      EXPECT_TRUE(helped_.insert(name).second) << line;
      EXPECT_GT(rest.size(), 1U) << line;
    } else {
      ASSERT_EQ(what, "TYPE") << line;
      EXPECT_TRUE(helped_.contains(name)) << line;
      EXPECT_TRUE(typed_.insert(name).second) << line;
      EXPECT_EQ(rest, name.ends_with("_total") ? " counter" : " gauge") << line;
      current_ = name;
    }
  }
  void sample(const std::string& line) {
    const std::size_t end = line.find_first_of("{ ");
    ASSERT_NE(end, std::string::npos) << line;
    EXPECT_EQ(line.substr(0, end), current_) << "each behind its own head: " << line;
    std::size_t at = end;
    if (line[at] == '{') {
      std::set<std::string> names;
      do {
        const std::size_t equals = line.find("=\"", ++at);
        ASSERT_NE(equals, std::string::npos) << line;
        const std::string name = line.substr(at, equals - at);
        EXPECT_TRUE(isName(name) && names.insert(name).second) << line;
        for (at = equals + 2; at < line.size() && line[at] != '"'; ++at) {
          if (line[at] == '\\') {
            ++at;
            ASSERT_TRUE(at < line.size() && std::strchr("\\\"n", line[at]) != nullptr) << line;
          }
        }
        ++at;
      } while (at < line.size() && line[at] == ',');
      ASSERT_TRUE(at < line.size() && line[at] == '}') << line;
      ++at;
    }
    ASSERT_TRUE(at < line.size() && line[at] == ' ') << line;
    char* rest = nullptr;
    const double value = std::strtod(line.c_str() + at + 1, &rest);
    EXPECT_TRUE(*rest == '\0' && rest != line.c_str() + at + 1) << line;
    EXPECT_TRUE(samples_.emplace(line.substr(0, at), value).second) << "twice: " << line;
  }

  std::set<std::string> helped_;
  std::set<std::string> typed_;
  std::map<std::string, double> samples_;
  std::string current_;
};

TEST_F(KelpOnFigures, CountsWhatTheAgentHasDone) {
  const auto running = inspectedAgent({"--units", "2"});
  const auto hardware = programmedChip();
  ASSERT_TRUE(listens());
  Feature feature(socketPath());
  settle(feature,
         writeFodo(1, 1) + writeFodo(2, 1) + removeFodo(1) + writeFodo(9, 1, "", 1) +
             AgentTest::writeIsem(5, 7),
         5);
  ASSERT_TRUE(comesTrue([&] { return kelpJson({"waiting"})["count"] == 0; }));
  settle(feature, AgentTest::circuitEvent(7, "change"), 6);
  Json stats;
  EXPECT_TRUE(comesTrue([&] {
    stats = kelpJson({"stats"});
    return stats["agent"]["intentsInFlight"] == 0;
  }));
  EXPECT_EQ(stats["agent"]["pid"], running.process());
  EXPECT_EQ(stats["agent"]["name"], "kelp");
  EXPECT_EQ(stats["agent"]["units"], 2);
  EXPECT_EQ(stats["agent"]["intentsAccepted"], 5);
  EXPECT_EQ(stats["agent"]["intentsSucceeded"], 5);
  EXPECT_EQ(stats["agent"]["resourceEventsApplied"], 1);
  EXPECT_EQ(stats["agent"]["peers"], 1);
  EXPECT_EQ(stats["agent"]["inspectionPeers"], 1);
  EXPECT_EQ(stats["tables"].size(), 16U);
  const Json fodo = tableOf(stats, "EsemFodo", 0);
  EXPECT_EQ(fodo["writes"], 2);
  EXPECT_EQ(fodo["removes"], 1);
  EXPECT_EQ(fodo["entries"], 1);
  EXPECT_EQ(fodo["queued"], 0);
  EXPECT_EQ(tableOf(stats, "EsemFodo", 1)["entries"], 1);
  EXPECT_EQ(tableOf(stats, "Isem1Tag", 0)["updates"], 1);
  EXPECT_EQ(stats["logs"][0]["table"], "EsemFodo");
  EXPECT_EQ(stats["logs"][0]["issued"], 4);
  EXPECT_EQ(stats["logs"][0]["behind"], 0);
  EXPECT_EQ(stats["resources"][0]["known"], 1);
  EXPECT_FALSE(stats["memory"]["classes"].empty());
  const Result text = kelp({"stats"});
  EXPECT_THAT(text.out, HasSubstr("5 accepted, 5 succeeded, 0 failed, 0 in flight"));
}

TEST_F(KelpOnFigures, TellsWhatIsUnderWay) {
  const auto running = inspectedAgent();
  ASSERT_TRUE(listens());
  Feature feature(socketPath());
  ASSERT_TRUE(feature.send(AgentTest::vlanEvent(7, "prepare") +
                           AgentTest::writeVd(1, AgentTest::withVlan(7)) + AgentTest::removeVd(2) +
                           writeFodo(1, 1)));
  Json stats;
  ASSERT_TRUE(comesTrue([&] {
    stats = kelpJson({"stats"});
    return stats["agent"]["intentsInFlight"] == 3 && tableOf(stats, "EsemFodo", 0)["inLog"] == 1;
  }));
  const Json vd = tableOf(stats, "EsemFodoVd", 0);
  EXPECT_EQ(vd["writesInFlight"], 1);
  EXPECT_EQ(vd["removesInFlight"], 1);
  EXPECT_EQ(vd["queued"], 2);
  EXPECT_TRUE(comesTrue(
      [&] { return tableOf(kelpJson({"stats"}), "EsemFodoVd", 0)["oldestWaitingSeconds"] > 0.1; }));
  EXPECT_EQ(stats["logs"][0]["behind"], 1);
  EXPECT_EQ(stats["logs"][0]["records"], 1);
}

TEST_F(KelpOnFigures, WritesMetricsThatAreWellFormed) {
  const auto running = inspectedAgent({"--name", "a\"b\\c"});
  const std::vector<std::string> ask = {"stats", "--prometheus"};
  Result run{1, "", ""};
  ASSERT_TRUE(comesTrue([&] {
    run = KelpTest::runKelp(root_.path(), "a\"b\\c", ask);
    return run.status == 0;
  }));
  Feature feature(socketPath());
  ASSERT_TRUE(feature.send(writeFodo(1, 1)));
  ASSERT_TRUE(comesTrue([&] {
    run = KelpTest::runKelp(root_.path(), "a\"b\\c", ask);
    return run.out.find("kelp_intents_accepted_total 1\n") != std::string::npos;
  }));
  const Metrics metrics(run.out);
  EXPECT_EQ(metrics.at("kelp_intents_in_flight"), 1);
  EXPECT_EQ(metrics.at(R"(kelp_table_writes_total{table="EsemFodo",unit="0"})"), 1);
  EXPECT_EQ(metrics.at(R"(kelp_log_behind_versions{table="EsemFodo"})"), 1);
  EXPECT_EQ(metrics.at(R"(kelp_resource_allocations{resource="inLifIndex"})"), 0);
  EXPECT_GT(metrics.at("kelp_agent_uptime_seconds"), 0);
  EXPECT_GT(metrics.at(R"(kelp_memory_bytes{class="SwTableStats"})"), 0);
  EXPECT_EQ(metrics.at(R"(kelp_agent_info{name="a\"b\\c",root=")" + root_.path() + R"(",pid=")" +
                       std::to_string(running.process()) + "\"}"),
            1);
  EXPECT_GT(metrics.size(), 200U);
}

TEST_F(KelpOnFigures, ShowsOnceWhatMoves) {
  const auto running = inspectedAgent();
  ASSERT_TRUE(listens());
  Feature feature(socketPath());
  ASSERT_TRUE(feature.send(writeFodo(1, 1)));
  ASSERT_TRUE(comesTrue([&] { return kelpJson({"waiting"})["count"] == 1; }));
  // Where the output is no terminal, once is enough.
  for (const auto& arguments :
       std::vector<std::vector<std::string>>{{"top", "--interval", "0.01"}, {"top", "--once"}}) {
    const Result run = kelp(arguments);
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_THAT(run.out, StartsWith("kelp-agent kelp (process "));
    EXPECT_THAT(run.out, HasSubstr(" 1 in flight of "));
    EXPECT_THAT(run.out, HasSubstr("\nEsemFodo            1         0 "));
    EXPECT_THAT(run.out, HasSubstr("[#                   ]   0.0 %"));
    EXPECT_EQ(run.out.find('\x1b'), std::string::npos);
  }
  EXPECT_EQ(kelpJson({"top"})["now"]["agent"]["intentsInFlight"], 1);
  EXPECT_EQ(kelp({"top", "--interval", "0"}).status, 2);
}

TEST_F(KelpOnFigures, LeavesTheTerminalAsItWas) {
  const auto running = inspectedAgent();
  ASSERT_TRUE(listens());
  for (const bool byKey : {true, false}) {
    int master = -1;
    int slave = -1;
    ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
    termios before{};
    ASSERT_EQ(tcgetattr(slave, &before), 0);
    const pid_t child = fork();
    if (child == 0) {
      dup2(slave, STDIN_FILENO);
      dup2(slave, STDOUT_FILENO);
      const std::string root = root_.path();
      execl(KELP, KELP, "top", "--interval", "0.05", "--root", root.c_str(), nullptr);
      _exit(127);
    }
    std::string seen;
    const auto readUntil = [&](const std::string& text) {
      while (seen.find(text) == std::string::npos) {
        char chunk[4096];
        const ssize_t count = read(master, chunk, sizeof(chunk));
        ASSERT_GT(count, 0);
        seen.append(chunk, static_cast<std::size_t>(count));
      }
    };
    readUntil("remarkProfile");
    EXPECT_THAT(seen, StartsWith("\x1b[?1049h"));
    if (byKey) {
      ASSERT_EQ(write(master, "q", 1), 1);
    } else {
      kill(child, SIGINT);
    }
    readUntil("\x1b[?1049l");
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    termios after{};
    ASSERT_EQ(tcgetattr(slave, &after), 0);
    EXPECT_EQ(after.c_lflag, before.c_lflag);
    EXPECT_EQ(std::memcmp(after.c_cc, before.c_cc, sizeof(before.c_cc)), 0);
    close(master);
    close(slave);
  }
}

TEST_F(KelpOnFigures, SetsTraceLevelsWhileTheAgentRuns) {
  const auto running = inspectedAgent();
  ASSERT_TRUE(listens());
  const auto levelsOf = [&](const std::string& handle) {
    return kelpJson({"trace", handle})["handles"][0]["levels"].get<std::string>();
  };
  EXPECT_EQ(levelsOf("EsemFodoKelpSwTable"), "none");
  EXPECT_THAT(kelp({"trace"}).out, HasSubstr("\nIsem1TagKelpSwTable "));
  EXPECT_EQ(kelp({"trace", "EsemFodoKelp*", "1-3,8"}).status, 0);
  EXPECT_EQ(levelsOf("EsemFodoKelpSwTable"), "1-3,8");
  EXPECT_EQ(levelsOf("EsemFodoVdKelpSwTable"), "none");
  Feature feature(socketPath());
  ASSERT_TRUE(feature.send(writeFodo(1, 1)));
  EXPECT_TRUE(running.says("Done processing write for key: "));
  EXPECT_EQ(kelp({"trace", "EsemFodoKelp*", "none"}).status, 0);
  EXPECT_EQ(levelsOf("EsemFodoKelpSwTable"), "none");

  says({"trace", "Nobody"}, 1, R"(no trace handle fits "Nobody": kelp trace lists them)");
  says({"trace", "Esem*", "16"}, 2, R"(levels is "16": write levels from 0 to 15)");
  says({"trace", "a/b", "1"}, 2, "write the name of a handle");
  says({"trace", "--read"}, 1, "the agent writes no ring buffer: start kelp-agent with --brisk");
  EXPECT_EQ(kelp({"trace", "--since", "3"}).status, 2);
}

TEST_F(KelpOnFigures, ReadsTheRingBuffer) {
  const auto running = inspectedAgent({"--brisk", path("ring")});
  ASSERT_TRUE(listens());
  EXPECT_EQ(kelpJson({"trace", "Esem*"})["ring"], path("ring"));
  const Result all = kelp({"trace", "--read"});
  EXPECT_THAT(all.out, HasSubstr("Restored 0 entries for table: EsemFodoKelp, unitId: 0\n"));
  EXPECT_EQ(kelp({"trace", "--read", "--since", "3600"}).out, all.out);
  const auto json = kelp({"trace", "--read", "--json"}).jsonLines();
  ASSERT_EQ(json.size(), all.lines().size());
  EXPECT_EQ(json[0]["function"], "makeSwTable");
}

TEST_F(KelpOnFigures, TellsWhatHasChangedOfLate) {
  {
    // What an earlier run did is older than the agent.
    const auto earlier = inspectedAgent();
    const auto hardware = programmedChip();
    ASSERT_TRUE(listens());
    Feature feature(socketPath());
    settle(feature, writeFodo(1, 1), 1);
    earlier.kill(SIGKILL);
  }
  const auto running = inspectedAgent({"--no-sweep"});
  ASSERT_TRUE(listens());
  Result run = kelp({"changes"});
  EXPECT_EQ(run.out, "");
  EXPECT_THAT(run.err, HasSubstr("kelp: 0 changes since "));

  Feature feature(socketPath());
  ASSERT_TRUE(feature.send(writeFodo(2, 1) + writeFodo(2, 2) + writeFodo(3, 1) + removeFodo(3) +
                           AgentTest::writeInner(5)));
  ASSERT_TRUE(comesTrue([&] { return kelp({"changes"}).lines().size() == 5; }));
  run = kelp({"changes", "--since", "600"});
  EXPECT_THAT(run.out,
              HasSubstr("EsemFodo              2  unit 0      write      fodo=2  outLif=1"));
  EXPECT_THAT(run.out, HasSubstr("EsemFodo              5  unit 0      remove     fodo=3"));
  EXPECT_THAT(run.out,
              HasSubstr("IsemInnerEth          1  unit 0      write      tunnel=1 vlan=5"));
  EXPECT_THAT(run.err, HasSubstr("kelp: 5 changes since "));
  const auto lines = kelp({"changes", "EsemFodo", "--json"}).jsonLines();
  ASSERT_EQ(lines.size(), 4U);
  EXPECT_EQ(lines[0]["table"], "EsemFodo");
  EXPECT_EQ(lines[0]["version"], 2);
  EXPECT_EQ(lines[3]["op"], "remove");

  // What the hardware side has taken in is told as far as it can be known still.
  const auto hardware = programmedChip();
  ASSERT_TRUE(comesTrue([&] { return kelpJson({"waiting"})["count"] == 0; }));
  run = kelp({"changes", "EsemFodo"});
  EXPECT_THAT(run.out, HasSubstr("fodo=2  outLif=2"));
  EXPECT_THAT(run.out, HasSubstr("came and went between two looks"));
  says({"changes", "EsemFod"}, 2, R"(did you mean "EsemFodo")");
  EXPECT_EQ(kelp({"changes", "--since", "3601"}).status, 2);
}

}  // namespace
