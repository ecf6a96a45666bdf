#include <fcntl.h>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "tests/agent/Programs.h"

// kelp-agent and kelp-chip on a file system that is full, and on one that is so only for a while.

namespace {

using AgentTest::comesTrue;
using AgentTest::contentOf;
using AgentTest::Program;
using testing::AllOf;
using testing::AnyOf;
using testing::HasSubstr;

// A file system of its own, in memory and small, that this process and its children see. What
// stands beside it lies on the machine's.
class SmallFileSystem : public testing::Test {
 protected:
  void SetUp() override {
    if (::unshare(CLONE_NEWNS) != 0 ||
        ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
      GTEST_SKIP() << "this user may not mount a file system; run the test as root";
    }
  }
  void TearDown() override { away(); }

  [[nodiscard]] std::string path(const std::string& name) const {
    return root_.path() + "/" + name;
  }
  [[nodiscard]] std::string store() const { return path("small"); }
  void make(const std::string& size) {
    away();
    std::filesystem::create_directory(store());
    const std::string options = "size=" + size;
    ASSERT_EQ(::mount("tmpfs", store().c_str(), "tmpfs", 0, options.c_str()), 0);
    mounted_ = true;
  }
  void grow(const std::string& size) const {
    const std::string options = "size=" + size;
    ASSERT_EQ(::mount("tmpfs", store().c_str(), "tmpfs", MS_REMOUNT, options.c_str()), 0);
  }
  void away() {
    if (mounted_) {
      ::umount2(store().c_str(), MNT_DETACH);
      mounted_ = false;
    }
  }
  // Takes all the space that is left, to the last page.
  void fill() const {
    const int file = ::open((store() + "/filler").c_str(), O_CREAT | O_WRONLY, 0600);
    ASSERT_GE(file, 0);
    const char page[4096] = {1};
    while (::write(file, page, sizeof page) > 0) {
    }
    ::close(file);
  }
  void unfill() const { std::filesystem::remove(store() + "/filler"); }

  Program chip(const std::string& name, std::vector<std::string> more = {}) const {
    return {KELP_CHIP, of(std::move(more)), path(name)};
  }
  Program agent(const std::string& name, std::vector<std::string> more,
                AgentTest::Input from = AgentTest::Input::none) const {
    return {KELP_AGENT, of(std::move(more)), path(name), from};
  }
  // A file of intents that write `keys` entries of EsemFodo that lead to `outLif`.
  std::string writes(unsigned keys, unsigned outLif = 1) const {
    std::ofstream out(path("intents"));
    for (unsigned key = 0; key < keys; ++key) {
      out << fmt::format(
          R"({{"op":"write","table":"EsemFodo","unit":0,"key":{{"fodo":{}}},"payload":{{"outLif":{}}}}})"
          "\n",
          key, outLif);
    }
    return path("intents");
  }
  static std::size_t count(const std::string& text, const std::string& part) {
    std::size_t found = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
      ++found;
    }
    return found;
  }

 private:
  std::vector<std::string> of(std::vector<std::string> more) const {
    more.insert(more.begin(), {"--name", "k", "--root", store()});
    return more;
  }

  TestSupport::TempRoot root_;
  bool mounted_ = false;
};

TEST_F(SmallFileSystem, TheChipTakesTheRoomForItsReportsOrSaysThatThereIsNone) {
  unsigned refused = 0;
  bool ran = false;
  bool forReports = false;
  for (unsigned pages = 1; !ran && pages <= 32; ++pages) {
    SCOPED_TRACE(pages);
    make(fmt::format("{}k", pages * 4));
    auto program = chip(fmt::format("chip{}", pages));
    bool waits = false;
    ASSERT_TRUE(comesTrue([&] {
      waits = program.err().find("waits for the logs") != std::string::npos;
      return waits || program.err().find('\n') != std::string::npos;
    }));
    if (!waits) {
      EXPECT_EQ(program.ends(), 1) << program.err();
      EXPECT_THAT(program.err(), HasSubstr("make room"));
      forReports |= program.err().find("no room for the reports") != std::string::npos;
      ++refused;
      continue;
    }
    // It has got what it needs: no report fails, whatever becomes of the rest.
    ran = true;
    grow("4m");
    auto writer = agent("agent", {"--intents", writes(10), "--outcomes", "none"});
    ASSERT_TRUE(comesTrue([&] { return program.err().find("follows ") != std::string::npos; }));
    fill();
    writer.kill(SIGTERM);
    EXPECT_GE(writer.ends(), 0);
    program.kill(SIGTERM);
    EXPECT_EQ(program.ends(), 0) << program.err();
  }
  EXPECT_TRUE(ran);
  EXPECT_GT(refused, 3U);
  EXPECT_TRUE(forReports);
}

TEST_F(SmallFileSystem, TheAgentRefusesToStartWithoutRoomAndSaysWhereToMakeIt) {
  for (const char* size : {"4k", "16k", "40k", "100k", "200k"}) {
    SCOPED_TRACE(size);
    make(size);
    auto program = agent(size, {"--intents", writes(10), "--exit-when-done", "--timeout", "5"});
    EXPECT_EQ(program.ends(), 1);
    EXPECT_THAT(program.err(), AllOf(HasSubstr(store()), HasSubstr("make room")));
    EXPECT_EQ(program.out(), "");
  }
}

TEST_F(SmallFileSystem, TheAgentSaysWhyItRefusesEntriesAndTakesThemWhenThereIsRoom) {
  constexpr unsigned kEntries = 20'000;
  make("1m");
  auto hardware = chip("chip", {"--check"});
  const std::vector<std::string> drives = {"--intents", writes(kEntries), "--exit-when-done",
                                           "--timeout", "20"};
  auto first = agent("first", drives);
  EXPECT_EQ(first.ends(), 3);
  EXPECT_THAT(first.err(),
              AllOf(HasSubstr("no room for new entries of EsemFodo, unit 0: "),
                    HasSubstr("the file system gives no space"), HasSubstr("make room in it")));
  EXPECT_EQ(count(first.err(), "no room for"), 1U) << "not again and again";
  // Each has its outcome, and what was taken is there.
  const std::string outcomes = first.out();
  const std::size_t taken = count(outcomes, R"("outcome":"success")");
  EXPECT_GT(taken, 100U);
  EXPECT_EQ(taken + count(outcomes, R"("outcome":"failed")"), kEntries);
  EXPECT_LT(taken, kEntries);

  grow("64m");
  auto second = agent("second", drives);
  EXPECT_EQ(second.ends(), 0) << second.err();
  EXPECT_EQ(count(second.out(), R"("outcome":"success")"), kEntries);
  hardware.kill(SIGTERM);
  EXPECT_EQ(hardware.ends(), 0) << hardware.err();
  EXPECT_THAT(hardware.out(), HasSubstr(fmt::format("{} entries are equal, 0 are not", kEntries)));
}

TEST_F(SmallFileSystem, TheAgentWaitsForRoomInALogAndGoesOnByItself) {
  constexpr unsigned kEntries = 3000;
  make("4m");
  {
    // Few at a time: the log needs no more than its first portion of space.
    auto hardware = chip("chip1");
    auto program = agent("entries", {"--intents", writes(kEntries), "--in-flight", "50",
                                     "--exit-when-done", "--timeout", "20"});
    ASSERT_EQ(program.ends(), 0) << program.err();
  }
  // The entries have their room; nobody takes in what changes.
  const std::string bell = store() + "/k/.bell-agent.pipe";
  std::filesystem::remove(bell);  // made anew at the end of a start
  auto program = agent("waits",
                       {"--intents", "-", "--exit-when-done", "--timeout", "60", "--summary",
                        path("summary"), "--inspect", path("inspect.sock")},
                       AgentTest::Input::pipe);
  ASSERT_TRUE(comesTrue([&] { return std::filesystem::exists(bell); }));
  // It answers when all of its start is done.
  program.kill(SIGUSR1);
  ASSERT_TRUE(comesTrue([&] { return std::filesystem::exists(path("summary")); }));
  fill();
  program.write(contentOf(writes(kEntries, 2)));
  program.closeInput();
  ASSERT_TRUE(program.says("no room for changes, which wait, of EsemFodo, unit 0: "));
  EXPECT_THAT(program.err(), HasSubstr("the file system gives no space"));
  EXPECT_EQ(program.out(), "");
  // Who asks what waits hears the same.
  Program asks(KELP, {"waiting", "--json", "--inspect", path("inspect.sock")}, path("asks"));
  ASSERT_EQ(asks.ends(), 0) << asks.err();
  const auto waiting = AgentTest::Json::parse(asks.out());
  EXPECT_NE(waiting["count"], 0);
  for (const auto& one : waiting["waiting"]) {
    const auto& reason = one["waitsFor"][0];
    EXPECT_TRUE(reason["kind"] == "hardware" || reason["kind"] == "room") << one;
  }
  EXPECT_THAT(asks.out(), HasSubstr("no room for changes: "));
  unfill();
  // It finds out by itself that there is room, before anybody reports.
  EXPECT_TRUE(comesTrue([&] {
    program.kill(SIGUSR1);
    std::ifstream file(path("summary"));
    const auto summary = AgentTest::Json::parse(file, nullptr, false);
    if (!summary.is_object()) {
      return false;
    }
    for (const auto& table : summary.at("tables")) {
      if (table.at("table") == "EsemFodo") {
        return table.at("tableVersion").get<unsigned>() == kEntries * 2;
      }
    }
    return false;
  }));
  auto hardware = chip("chip2", {"--check"});
  EXPECT_EQ(program.ends(), 0) << program.err();
  EXPECT_EQ(count(program.out(), R"("outcome":"success")"), kEntries);
  hardware.kill(SIGTERM);
  EXPECT_EQ(hardware.ends(), 0) << hardware.err();
  EXPECT_THAT(hardware.out(), HasSubstr(fmt::format("{} entries are equal, 0 are not", kEntries)));
}

}  // namespace
