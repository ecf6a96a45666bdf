#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>

#include "Asic/GenId.h"
#include "KelpEmServer/KelpConstants.h"
#include "KelpEmServer/MountQuilt.h"
#include "Programs.h"
#include "Vault/EntityManager.h"

namespace {

using AgentTest::contentOf;
using AgentTest::Json;
using AgentTest::outcomeOf;
using AgentTest::outcomes;
using AgentTest::removeFodo;
using AgentTest::writeFodo;
using AgentTest::writeInner;
using testing::Contains;
using testing::HasSubstr;
using testing::Pair;

class AgentRestart : public AgentTest::WithStore {
 protected:
  // The relaunch generation, as any process may read it.
  [[nodiscard]] std::uint64_t relaunchGeneration() const {
    const auto vault = Lumen::makeNode<Vault::EntityManager>("kelp", false, root_.path());
    return vault->entityIs<Asic::GenId>(KelpEmServer::relaunchPath(KelpEmServer::kAgentName))
        ->majorId();
  }
  // What the store and the programs have written, by file. Not the trace, which goes on, nor the
  // page on which SQLite keeps its readers.
  [[nodiscard]] std::map<std::string, std::string> everyFile() const {
    std::map<std::string, std::string> files;
    for (const auto& one : std::filesystem::recursive_directory_iterator(root_.path())) {
      const std::string name = one.path().native();
      const bool ofTheTest = name.find("/agent") != std::string::npos &&
                             (name.ends_with(".out") || name.ends_with(".err"));
      if (one.is_regular_file() && !ofTheTest && name != path("b") && !name.ends_with("-shm")) {
        files[name] = dataOf(name);
      } else if (one.is_socket()) {
        files[name] = std::to_string(inodeOf(name));
      }
    }
    return files;
  }
  // What is in a file, without its holes: the store's files are nearly nothing else.
  static std::string dataOf(const std::string& name) {
    std::string data;
    const int file = open(name.c_str(), O_RDONLY | O_CLOEXEC);
    for (off_t at = 0, end = 0; (at = lseek(file, end, SEEK_DATA)) >= 0;) {
      end = lseek(file, at, SEEK_HOLE);
      const std::size_t size = data.size();
      data.resize(size + static_cast<std::size_t>(end - at));
      EXPECT_EQ(pread(file, data.data() + size, data.size() - size, at), end - at);
    }
    close(file);
    return data;
  }
  static ino_t inodeOf(const std::string& file) {
    struct stat status {};
    return stat(file.c_str(), &status) == 0 ? status.st_ino : 0;
  }
  [[nodiscard]] std::string logFile() const {
    return path("kelp/" +
                KelpEmServer::KelpConstants<KelpEmServer::EsemFodo>::tableEntryLogQuiltPath() +
                ".quilt");
  }
};

TEST_F(AgentRestart, ASecondAgentOnAStoreNamesTheFirst) {
  const std::vector<std::string> arguments = {"--intents", "-",       "--outcomes", path("o"),
                                              "--summary", path("s"), "--brisk",    path("b"),
                                              "--socket",  path("k")};
  auto first = agent(arguments, AgentTest::Input::pipe);
  first.write(removeFodo(1));
  EXPECT_TRUE(AgentTest::comesTrue([&] { return !contentOf(path("o")).empty(); }));
  const auto before = everyFile();
  EXPECT_THAT(before, Contains(Pair(path("o"), HasSubstr("\"line\":1,"))));
  // As when somebody presses the arrow key and return in another window.
  auto second = agent(arguments, AgentTest::Input::pipe);
  EXPECT_EQ(second.ends(), 1);
  EXPECT_THAT(second.err(), HasSubstr(std::to_string(first.process())));
  EXPECT_THAT(second.err(), HasSubstr(root_.path()));
  EXPECT_TRUE(everyFile() == before);
  // And with a trace of its own, which is no reason to refuse it.
  auto third = agent({"--intents", "-", "--outcomes", path("o"), "--summary", path("s"), "--socket",
                      path("k"), "--exit-when-done"},
                     AgentTest::Input::pipe);
  EXPECT_EQ(third.ends(), 1);
  EXPECT_THAT(third.err(), HasSubstr(std::to_string(first.process())));
  EXPECT_TRUE(everyFile() == before);
  // The first goes on as if nothing had been.
  first.write(removeFodo(2));
  EXPECT_TRUE(AgentTest::comesTrue(
      [&] { return contentOf(path("o")).find("\"line\":2,") != std::string::npos; }));
  first.kill(SIGINT);
  EXPECT_EQ(first.ends(), 0);
  auto last = agent({"--exit-when-done"});
  EXPECT_EQ(last.ends(), 0);
}

TEST_F(AgentRestart, AfterACleanStopVersionsContinueAndEntriesStay) {
  {
    auto program = agent({"--intents", file("a", writeFodo(1, 1) + writeFodo(2, 2)), "--summary",
                          path("s"), "--outcomes", path("o")});
    ASSERT_TRUE(started());
    ASSERT_TRUE(AgentTest::comesTrue(
        [&] { return tableOf(summaryOf(program, "s"), "EsemFodo", 0)["tableVersion"] == 2; }));
    program.kill(SIGTERM);
    EXPECT_EQ(program.ends(), 5);
    EXPECT_EQ(program.err(),
              "kelp-agent: stopped: 2 intents have no outcome yet; those that are in a log stay "
              "there\n");
  }
  const auto hardware = chip();
  auto program = agent({"--intents", file("b", writeFodo(3, 3)), "--exit-when-done", "--no-sweep",
                        "--summary", path("t")});
  EXPECT_EQ(program.ends(), 0);
  EXPECT_EQ(outcomeOf(program.out(), 1)["version"], 3);
  EXPECT_EQ(tableOf(summary("t"), "EsemFodo", 0)["entries"], 3);
}

TEST_F(AgentRestart, KilledAtAnyMomentVersionsContinueAndNothingCommittedIsLost) {
  const auto hardware = chip();
  unsigned fodo = 1;
  std::uint64_t highest = 0;
  unsigned succeeded = 0;
  for (unsigned run = 0; run < 8; ++run) {
    std::string text;
    for (unsigned i = 0; i < 3000; ++i) {
      text += writeFodo(fodo++, 7);
    }
    auto program = agent({"--intents", file("in", text)});
    ASSERT_TRUE(AgentTest::comesTrue([&] { return !program.out().empty(); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(2 * run));
    program.kill(SIGKILL);
    EXPECT_EQ(program.ends(), 1000 + SIGKILL);
    std::string out = program.out();
    out.erase(out.rfind('\n') + 1);  // the end of the last line may be missing
    std::uint64_t lowest = ~std::uint64_t{0};
    std::uint64_t last = highest;
    for (const Json& one : outcomes(out)) {
      EXPECT_EQ(one["outcome"], "success");
      lowest = std::min(lowest, one["version"].get<std::uint64_t>());
      last = std::max(last, one["version"].get<std::uint64_t>());
      ++succeeded;
    }
    EXPECT_GT(lowest, highest) << "a version was given out twice";
    highest = last;
  }
  auto program = agent({"--intents", file("in", writeInner(1)), "--exit-when-done", "--no-sweep",
                        "--summary", path("s")});
  EXPECT_EQ(program.ends(), 0);
  const Json table = tableOf(summary("s"), "EsemFodo", 0);
  EXPECT_GE(table["entries"].get<unsigned>(), succeeded);
  EXPECT_LT(table["entries"].get<unsigned>(), fodo);
  EXPECT_EQ(table["tableVersion"], table["entries"]);
  EXPECT_EQ(table["inLog"], 0);
  EXPECT_EQ(relaunchGeneration(), 0U);
}

// As after an update to a release whose records are laid out in another way.
TEST_F(AgentRestart, AStoreOfAnotherLayoutIsSetAsideAndTheHardwareSideResyncs) {
  {
    const auto hardware = chip();
    auto program = agent({"--intents", file("a", writeFodo(1, 1) + writeFodo(2, 2) + writeInner(1)),
                          "--exit-when-done"});
    EXPECT_EQ(program.ends(), 0);
  }
  EXPECT_EQ(relaunchGeneration(), 0U);
  {
    // Both copies of the header's constants, so that neither can vouch for the other.
    std::fstream log(logFile(), std::ios::binary | std::ios::in | std::ios::out);
    ASSERT_TRUE(log.is_open()) << logFile();
    for (const int copy : {0, 256}) {
      log.seekp(copy + 16);
      log.write("\x01\x02\x03\x04\x05\x06\x07\x08", 8);
    }
  }
  const auto hardware = chip();
  auto program = agent({"--intents", file("b", writeFodo(3, 3)), "--exit-when-done", "--no-sweep",
                        "--summary", path("s")});
  EXPECT_EQ(program.ends(), 0);
  EXPECT_THAT(program.err(), HasSubstr("HW_ABSTRACTION_"));
  EXPECT_EQ(outcomeOf(program.out(), 1)["outcome"], "success");
  EXPECT_EQ(relaunchGeneration(), 1U);
  EXPECT_EQ(tableOf(summary("s"), "IsemInnerEth", 0)["entries"], 1);
}

TEST_F(AgentRestart, AFolderThatCannotBeWrittenIsNamed) {
  file("plain", "no folder");
  auto program = agent({"--name", "plain", "--exit-when-done"});
  EXPECT_EQ(program.ends(), 1);
  EXPECT_THAT(program.err(), HasSubstr(path("plain")));
}

}  // namespace
