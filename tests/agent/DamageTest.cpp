#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <vector>

#include "Asic/GenId.h"
#include "Asic/SharedMemory.h"
#include "Feature.h"
#include "KelpEmServer/MountQuilt.h"
#include "KelpEmServer/TableCatalogue.h"
#include "Programs.h"
#include "common/AnyTable.h"
#include "common/Intent.h"

// Agents as processes over stores that are damaged, or full.

namespace {

using AgentTest::comesTrue;
using AgentTest::Feature;
using AgentTest::Json;
using AgentTest::outcomes;
using AgentTest::writeFodo;
using testing::HasSubstr;

class AgentDamage : public AgentTest::WithStore {
 protected:
  [[nodiscard]] std::string keptFile() const { return path("kelp/intents.sqlite"); }

  // The places of all bytes in the store that are no holes, as ranges.
  struct Range {
    std::string file;
    off_t begin;
    off_t end;
  };
  [[nodiscard]] std::vector<Range> storeBytes() const {
    std::vector<Range> ranges;
    for (const auto& one : std::filesystem::recursive_directory_iterator(path("kelp"))) {
      if (!one.is_regular_file() || one.file_size() == 0) {
        continue;
      }
      const int file = open(one.path().c_str(), O_RDONLY | O_CLOEXEC);
      for (off_t at = 0, end = 0; (at = lseek(file, end, SEEK_DATA)) >= 0;) {
        end = lseek(file, at, SEEK_HOLE);
        ranges.push_back({one.path().native(), at, end});
      }
      close(file);
    }
    return ranges;
  }
};

// The log is as full as it may be when the agent starts, and nobody has read a record of it.
TEST_F(AgentDamage, ALogFullOfWhatADeadChipNeverReadHoldsWritesBack) {
  constexpr unsigned kRecords = 1000000;
  constexpr unsigned kKeys = 100;
  {
    const auto vault = Lumen::makeNode<Vault::EntityManager>("kelp", false, root_.path());
    vault->entityIs<Asic::GenId>(KelpEmServer::relaunchPath(KelpEmServer::kAgentName));
    const auto tables = Lumen::makeNode<Asic::OrderedTableInterface>(vault);
    const auto memory = Asic::writableSharedMemory(*vault);
    const auto group = tables->makeGroupIntf(KelpEmServer::kGroupName, KelpEmServer::kAgentName,
                                             Common::tableId(0).agentAndGroupId());
    const auto fodo = Common::AnyTable::make(Common::findTable("EsemFodo").value(), tables, {});
    Common::Intent intent = Common::parseIntent(writeFodo(1, 1));
    auto& entry = std::get<Common::EntryOf<KelpEmServer::EsemFodo>>(intent.entry).entry;
    for (unsigned i = 0; i < kRecords; ++i) {
      entry.logEntry.key = 1 + i % kKeys;
      entry.logEntry.outLif = static_cast<std::uint16_t>(1 + i / kKeys % 60000);
      (void)fodo->write(intent.entry, nullptr, {});
      if (i % 1000 == 999) {
        (void)group->groupResolver()->runPass();
      }
    }
    ASSERT_EQ(fodo->tableVersion(), kRecords);
    tables->stop();
    memory->entityDelAll();
  }
  // As they stand, but for one that has changed; the others are gone.
  constexpr unsigned kLast = kRecords / kKeys;
  std::string text = writeFodo(1, 7);
  for (unsigned fodo = 2; fodo <= kKeys / 2; ++fodo) {
    text += writeFodo(fodo, kLast);
  }
  const std::vector<std::string> arguments = {"--intents", file("in", text), "--exit-when-done",
                                              "--summary", path("s")};
  {
    auto given = arguments;
    given.insert(given.end(), {"--timeout", "0.5"});
    auto program = agent(given);
    EXPECT_EQ(program.ends(), 4) << program.err();
    EXPECT_THAT(program.err(), HasSubstr("the hardware side has reported 0"));
    EXPECT_EQ(tableOf(summary("s"), "EsemFodo", 0)["tableVersion"], kRecords);
    EXPECT_EQ(program.out(), "");
  }
  auto given = arguments;
  given.emplace_back("--progress");
  auto program = agent(given);
  EXPECT_TRUE(program.says("50 accepted, 0 skipped, 50 in flight"));
  const auto hardware = chip();
  EXPECT_EQ(program.ends(), 0) << program.err();
  EXPECT_EQ(outcomes(program.out()).size(), kKeys / 2);
  const Json table = tableOf(summary("s"), "EsemFodo", 0);
  EXPECT_EQ(table["tableVersion"], kRecords + 1 + kKeys / 2);
  EXPECT_EQ(table["entries"], kKeys / 2);
  EXPECT_THAT(program.err(), HasSubstr("49 writes identical, 1 not; 50 entries swept"));
}

// Whatever byte is another one: the agent says what is damaged or has no need of it, and either
// comes up with all that its intents ask for, or ends with what to do.
TEST_F(AgentDamage, FlippedBytesAnywhereEndNoAgent) {
  constexpr unsigned kEntries = 300;
  constexpr unsigned kTries = 30;
  std::string text;
  for (unsigned fodo = 1; fodo <= kEntries; ++fodo) {
    text += writeFodo(fodo, fodo) + AgentTest::writeInner(fodo, AgentTest::afterFodo(fodo));
  }
  const std::string intents = file("in", text);
  std::mt19937 random(7);
  unsigned said = 0;
  for (unsigned i = 0; i < kTries; ++i) {
    const std::vector<std::string> arguments = {
        "--intents", intents, "--exit-when-done", "--timeout", "30", "--summary", path("s")};
    {
      const auto hardware = chip();
      auto program = agent(arguments);
      ASSERT_EQ(program.ends(), 0) << program.err();
    }
    const auto ranges = storeBytes();
    std::string flipped;
    for (unsigned byte = 0; byte < 4; ++byte) {
      // A file first, or the largest would get nearly all of them.
      const Range& range = ranges[random() % ranges.size()];
      const off_t at =
          range.begin +
          static_cast<off_t>(random() % static_cast<std::uint64_t>(range.end - range.begin));
      flipped += range.file + ":" + std::to_string(at) + " ";
      const int target = open(range.file.c_str(), O_RDWR | O_CLOEXEC);
      unsigned char value = 0;
      ASSERT_EQ(pread(target, &value, 1, at), 1);
      value = static_cast<unsigned char>(value ^ (1U << random() % 8));
      ASSERT_EQ(pwrite(target, &value, 1, at), 1);
      close(target);
    }
    SCOPED_TRACE(flipped);
    const auto hardware = chip();
    auto program = agent(arguments);
    const int status = program.ends();
    EXPECT_TRUE(status == 0 || status == 1) << status << " " << program.err();
    said += program.err().find("HW_ABSTRACTION_") != std::string::npos || status == 1 ? 1U : 0U;
    if (status != 0) {
      EXPECT_THAT(program.err(), HasSubstr(root_.path())) << "what is damaged?";
      std::filesystem::remove_all(path("kelp"));
      continue;
    }
    EXPECT_EQ(outcomes(program.out()).size(), 2 * kEntries);
    EXPECT_EQ(tableOf(summary("s"), "EsemFodo", 0)["entries"], kEntries);
    EXPECT_EQ(tableOf(summary("s"), "IsemInnerEth", 0)["entries"], kEntries);
  }
  EXPECT_GT(said, 0U);
}

TEST_F(AgentDamage, KeptIntentsThatCannotBeReadAreNamedWithTheRemedy) {
  const auto hardware = chip();
  {
    auto program = agent({"--socket", path("k")});
    Feature feature(path("k"));
    EXPECT_TRUE(feature.send(writeFodo(1, 1)));
    EXPECT_TRUE(feature.receives("success"));
    program.kill(SIGTERM);
    EXPECT_EQ(program.ends(), 0);
  }
  std::ofstream(keptFile(), std::ios::trunc) << std::string(8192, 'x');
  std::filesystem::remove(keptFile() + "-wal");
  auto damaged = agent({"--socket", path("k")});
  EXPECT_EQ(damaged.ends(), 1);
  EXPECT_THAT(damaged.err(), HasSubstr(keptFile() + ": "));
  EXPECT_THAT(damaged.err(), HasSubstr("start with --forget"));
  auto forgetful = agent({"--socket", path("k"), "--forget"});
  Feature feature(path("k"));
  EXPECT_TRUE(feature.send(writeFodo(1, 1)));
  EXPECT_TRUE(feature.receives("success"));
}

TEST_F(AgentDamage, APeerHearsOfNothingThatCannotBeKept) {
  const auto hardware = chip();
  auto program = agent({"--socket", path("k"), "--peer-timeout", "0.3", "--summary", path("s")});
  Feature feature(path("k"));
  EXPECT_TRUE(feature.send(writeFodo(1, 1)));
  EXPECT_TRUE(feature.receives("\"line\":1,"));
  // Somebody looks at the file with a tool, and holds it.
  sqlite3* database = nullptr;
  ASSERT_EQ(sqlite3_open(keptFile().c_str(), &database), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(database, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
  EXPECT_TRUE(feature.send(writeFodo(2, 2)));
  EXPECT_TRUE(program.says("until then peers get no outcomes"));
  std::this_thread::sleep_for(std::chrono::milliseconds(700));
  // It is no reason to drop the peer.
  EXPECT_FALSE(feature.hasNews());
  EXPECT_EQ(summaryOf(program, "s")["intents"]["succeeded"], 2);
  sqlite3_close(database);
  EXPECT_TRUE(feature.receives("\"line\":2,"));
  EXPECT_TRUE(program.says("kept again"));
}

TEST_F(AgentDamage, KeptIntentsOfUnitsThatAreGoneAreLeftOut) {
  const auto hardware = chip();
  {
    auto program = agent({"--socket", path("k"), "--units", "2"});
    Feature feature(path("k"));
    EXPECT_TRUE(feature.send(writeFodo(1, 1) + writeFodo(2, 2, "", 1)));
    EXPECT_TRUE(feature.receives("\"line\":2,"));
    program.kill(SIGTERM);
    EXPECT_EQ(program.ends(), 0);
  }
  {
    auto program = agent({"--socket", path("k")});
    EXPECT_TRUE(program.says(keptFile() + ": 1 of 2 kept intents are left out, such as for this: "
                                          "unit 1 is not there"));
  }
  // They are not lost.
  auto program = agent({"--socket", path("k"), "--units", "2"});
  Feature feature(path("k"));
  EXPECT_TRUE(feature.send("{\"op\":\"replayComplete\"}\n"));
  EXPECT_TRUE(program.says("2 writes identical"));
}

}  // namespace
