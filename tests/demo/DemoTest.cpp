#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "BrioSharedMem/EntityManager.h"
#include "TempRoot.h"
#include "common/Json.h"
#include "common/Tables.h"
#include "demo/Child.h"
#include "demo/Expected.h"
#include "demo/Generator.h"
#include "demo/Input.h"
#include "demo/OutcomeTail.h"
#include "demo/Report.h"
#include "demo/Watch.h"

// The programs as processes: the demo itself, and an agent and a chip that are killed.

namespace {

using Demo::Child;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

const std::string kBin = KELP_BIN;

class Processes : public testing::Test {
 protected:
  std::string file(const std::string& name) const { return root_.path() + "/" + name; }
  std::unique_ptr<Child> start(const std::string& program, std::vector<std::string> arguments) {
    return std::make_unique<Child>(program, kBin + "/" + program, arguments, root_.path());
  }
  // Runs a program to its end.
  int run(const std::string& program, const std::vector<std::string>& arguments) {
    const auto child = start(program, arguments);
    EXPECT_TRUE(child->waitFor(std::chrono::seconds(120))) << child->obituary();
    output_ = child->output();
    obituary_ = child->obituary();
    removeKept();
    return child->exitStatus().value_or(-1);
  }
  // A demo that does not succeed, as some here must not, leaves its folder to be looked at.
  void removeKept() const {
    const std::string kept = "is kept in ";
    const auto at = output_.find(kept);
    if (at != std::string::npos) {
      const auto from = at + kept.size();
      std::filesystem::remove_all(output_.substr(from, output_.find('\n', from) - from));
    }
  }
  static std::string contentOf(const std::string& path) {
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  }
  void writeFile(const std::string& path, const std::string& content) {
    std::ofstream(path) << content;
  }

  TestSupport::TempRoot root_;
  std::string output_;
  std::string obituary_;
};

TEST_F(Processes, TheDemoProvesThatTheChipHoldsWhatWasAskedFor) {
  EXPECT_EQ(run("kelp-demo", {"--intents", "2000", "--units", "3"}), 0) << output_ << obituary_;
  EXPECT_THAT(output_, HasSubstr("2000 intents: 2000 carried out, 0 failed"));
  EXPECT_THAT(output_, HasSubstr("check: the chip equals the configuration collections: "));
  EXPECT_THAT(output_, HasSubstr("check: the chip equals what the intents add up to: "));
  EXPECT_THAT(output_, HasSubstr("LemVpwsAc          2"));
}

TEST_F(Processes, TheDemoRestartsTheAgentHalfwayAndTellsTheChipOnlyWhatIsOwed) {
  EXPECT_EQ(run("kelp-demo", {"--intents", "8000"}), 0) << output_ << obituary_;
  EXPECT_THAT(obituary_, AllOf(HasSubstr("killed kelp-agent with SIGKILL after about "),
                               HasSubstr("started again: replay complete: ")));
  EXPECT_THAT(output_, testing::ContainsRegex(
                           "check: the restart halfway told the chip [0-9]+ changes, just "
                           "those that the killed agent still owed; the other "
                           "[1-9][0-9]* entries were left alone"));
}

TEST_F(Processes, TheDemoHasProfilesChangeRunOutAndComeFreeAndARestartKeepsEveryIndex) {
  EXPECT_EQ(run("kelp-demo", {"--intents", "8000", "--seed", "5"}), 0) << output_ << obituary_;
  EXPECT_THAT(output_,
              testing::ContainsRegex("8000 intents: 8000 carried out \\(77 at a second try"));
  EXPECT_THAT(output_,
              testing::ContainsRegex("check: a VLAN edit profile changed: the chip was told "
                                     "[1-9][0-9]* changes"));
  EXPECT_THAT(output_, HasSubstr("check: 300 VLAN edits more were asked for: 77 writes found no "
                                 "profile, 77 of them came through"));
  EXPECT_THAT(output_, HasSubstr("every entry has the indexes that it had, the chip was told 0"));
}

TEST_F(Processes, AnEventInAFileOfTheUsersOwnIsNoIntent) {
  writeFile(
      file("own.jsonl"),
      R"({"op":"resource","resource":"inLifIndex","key":{"attachmentCircuit":7},"event":"allow"}
{"op":"write","table":"Isem1Tag","unit":0,"key":{"port":3,"vlan":5},"resources":{"attachmentCircuit":7}}
)");
  EXPECT_EQ(run("kelp-demo", {file("own.jsonl")}), 0) << output_ << obituary_;
  EXPECT_THAT(output_, HasSubstr("1 intents: 1 carried out, 0 failed"));
  EXPECT_THAT(output_, HasSubstr("add up to: 1 entries"));
}

class Outcomes : public testing::Test {
 protected:
  static constexpr const char* kFile = "metro.jsonl";

  Outcomes() {
    input_.file = kFile;
    input_.lines.resize(3);
    input_.inFile = 2;
  }
  static std::string outcome(const std::string& source, unsigned line, const char* outcome,
                             bool again = false) {
    return "{\"source\":\"" + source + "\",\"line\":" + std::to_string(line) +
           ",\"op\":\"write\",\"outcome\":\"" + outcome + "\"" + (again ? ",\"again\":true}" : "}");
  }
  void tell(const std::string& text) { std::ofstream(path_, std::ios::app) << text; }

  TestSupport::TempRoot root_;
  const std::string path_ = root_.path() + "/outcomes.jsonl";
  Demo::Input input_;
};

TEST_F(Outcomes, AreTakenAsTheyCome) {
  tell("");
  Demo::OutcomeTail tail(input_, path_);
  tail.read();
  EXPECT_EQ(tail.count(0, 3).ended, 0U);
  tell(outcome(kFile, 1, "success") + "\n" + outcome("-", 1, "fai"));
  tail.read();
  EXPECT_EQ(tail.count(0, 3).ended, 1U) << "half a line is none";
  EXPECT_TRUE(tail.isDone(0));
  std::ofstream(path_) << outcome(kFile, 1, "success") + "\n" + outcome("-", 1, "failed") + "\n";
  Demo::OutcomeTail whole(input_, path_);
  whole.read();
  EXPECT_EQ(whole.count(0, 3).ended, 2U);
  EXPECT_EQ(whole.count(0, 3).failed, 1U);
  EXPECT_FALSE(whole.isDone(2));
  tell(outcome("-", 1, "success", true) + "\n{\"op\":\"replayComplete\"}\n");
  whole.read();
  EXPECT_EQ(whole.count(0, 3).failed, 0U);
  EXPECT_EQ(whole.count(2, 3).cameThrough, 1U);
  EXPECT_TRUE(whole.isDone(2));
}

TEST_F(Outcomes, OfNoLineOrTooManyAreNamed) {
  for (const std::string& text :
       {outcome(kFile, 3, "success"), outcome("-", 2, "success"), outcome(kFile, 0, "success"),
        outcome(kFile, 1, "success", true),
        outcome(kFile, 1, "failed") + "\n" + outcome(kFile, 1, "success"),
        outcome(kFile, 1, "success") + "\n" + outcome(kFile, 1, "success", true)}) {
    std::ofstream(path_) << text + "\n";
    Demo::OutcomeTail tail(input_, path_);
    EXPECT_THROW(tail.read(), std::runtime_error) << text;
  }
}

TEST(Report, FailsIfProfilesDoNotDoAsTheyShould) {
  Demo::Report report;
  report.chipEqual = true;
  const Demo::ProfileFigures good{7, 7, 300, 77, 77, 0};
  report.profiles = good;
  EXPECT_TRUE(report.good());
  EXPECT_THAT(report.text(), Not(HasSubstr("FAILED")));
  for (std::uint64_t Demo::ProfileFigures::*figure :
       {&Demo::ProfileFigures::users, &Demo::ProfileFigures::rewritten,
        &Demo::ProfileFigures::failed, &Demo::ProfileFigures::cameThrough,
        &Demo::ProfileFigures::changes}) {
    report.profiles = good;
    *report.profiles.*figure += 1;
    EXPECT_FALSE(report.good());
    EXPECT_THAT(report.text(), HasSubstr("check FAILED"));
  }
  report.profiles = Demo::ProfileFigures{0, 0, 300, 77, 77, 0};
  EXPECT_FALSE(report.good()) << "nobody used it";
  report.profiles = Demo::ProfileFigures{7, 7, 300, 0, 0, 0};
  EXPECT_FALSE(report.good()) << "none has run out";
}

TEST(Report, AnAgentWhoseIntentsFailedAtFirstOnlyHasEndedWell) {
  Demo::Report report;
  report.chipEqual = true;
  report.agentStatus = 3;
  EXPECT_FALSE(report.good());
  report.intents = 5;
  report.outcomes = {5, 0, 2};
  EXPECT_TRUE(report.good());
  EXPECT_THAT(report.text(), HasSubstr("5 carried out (2 at a second try), 0 failed"));
  report.outcomes = {4, 1, 2};
  EXPECT_FALSE(report.good());
}

TEST(Report, FailsIfARestartHasToldTheChipMoreOrLessThanWasOwed) {
  Demo::Report report;
  report.chipEqual = true;
  report.restarted = Demo::Restarted{10, 4, 1, 5};
  EXPECT_TRUE(report.good());
  EXPECT_THAT(report.text(), HasSubstr("check: the restart halfway told the chip 5 changes, just"));
  for (const std::uint64_t changes : {4U, 6U, 15U}) {
    report.restarted->changes = changes;
    EXPECT_FALSE(report.good());
    EXPECT_THAT(report.text(),
                HasSubstr("check FAILED: the restart halfway told the chip " +
                          std::to_string(changes) + " changes, where the killed agent owed 5"));
  }
}

TEST_F(Processes, TheDemoHoldsWithProgramsKilledOnTheWay) {
  EXPECT_EQ(run("kelp-demo", {"--intents", "6000", "--kill", "4", "--seed", "7"}), 0)
      << output_ << obituary_;
  EXPECT_THAT(obituary_, AllOf(HasSubstr("killing kelp-agent and starting again"),
                               HasSubstr("killing kelp-chip and starting again"),
                               HasSubstr("killing kelp-agent and kelp-chip and starting again")));
  EXPECT_THAT(output_, HasSubstr("6000 intents: 6000 carried out"));
}

TEST_F(Processes, TheDemoRunsAFileOfTheUsersOwn) {
  writeFile(file("own.jsonl"), R"(# mine
{"op":"write","table":"EsemFodo","unit":1,"key":{"fodo":5},"payload":{"outLif":77}}
{"op":"write","table":"EsemFodo","unit":0,"key":{"fodo":6},"payload":{"outLif":78}}
{"op":"remove","table":"EsemFodo","unit":1,"key":{"fodo":5}}
)");
  EXPECT_EQ(run("kelp-demo", {file("own.jsonl")}), 0) << output_ << obituary_;
  EXPECT_THAT(output_, HasSubstr("3 intents: 3 carried out"));
  EXPECT_THAT(output_, HasSubstr("add up to: 1 entries"));
}

TEST_F(Processes, TheDemoNamesAWrongLineAndDoesNotSucceed) {
  writeFile(file("own.jsonl"), R"({"op":"write","table":"EsemFodo","unit":0,"key":{"fodo":"x"}}
{"op":"write","table":"EsemFodo","unit":0,"key":{"fodo":6},"payload":{"outLif":78}}
)");
  EXPECT_EQ(run("kelp-demo", {file("own.jsonl")}), 1);
  EXPECT_THAT(output_, HasSubstr("own.jsonl:1: "));
  EXPECT_THAT(output_, HasSubstr("2 intents: 1 carried out"));
  EXPECT_THAT(output_, HasSubstr("check: the chip equals what the intents add up to: 1 entries"));
  EXPECT_EQ(run("kelp-demo", {file("absent.jsonl")}), 1);
  EXPECT_THAT(obituary_, HasSubstr("absent.jsonl: cannot be read"));
}

TEST_F(Processes, TheDemoSkipsALineOfAUnitThatNoAgentHas) {
  writeFile(file("own.jsonl"),
            R"({"op":"write","table":"EsemFodo","unit":0,"key":{"fodo":5},"payload":{"outLif":77}}
{"op":"write","table":"EsemFodo","unit":2000,"key":{"fodo":6},"payload":{"outLif":78}}
{"op":"write","table":"EsemFodo","unit":1,"key":{"fodo":7},"payload":{"outLif":79}}
)");
  EXPECT_EQ(run("kelp-demo", {file("own.jsonl")}), 1) << output_ << obituary_;
  EXPECT_THAT(output_, HasSubstr("own.jsonl:2: unit 2000 is not there: write 0 to 1"));
  EXPECT_THAT(output_, HasSubstr("3 intents: 2 carried out"));
  EXPECT_THAT(output_, HasSubstr("check: the chip equals what the intents add up to: 2 entries"));
}

TEST_F(Processes, TheDemoShowsEntriesAndWhatTheLogsHold) {
  writeFile(file("own.jsonl"),
            R"({"op":"write","table":"EsemFodo","unit":0,"key":{"fodo":5},"payload":{"outLif":77}}
{"op":"write","table":"EsemFodo","unit":1,"key":{"fodo":6},"payload":{"outLif":78}}
{"op":"write","table":"EsemFodo","unit":1,"key":{"fodo":7},"payload":{"outLif":79}}
)");
  EXPECT_EQ(run("kelp-demo", {file("own.jsonl")}), 0) << output_ << obituary_;
  const auto line = [&](const std::string& start) {
    const auto at = output_.find("\n" + start);
    std::istringstream words(at == std::string::npos ? "" : output_.substr(at + 1));
    std::string text;
    std::getline(words, text);
    words.str(text);
    words.clear();
    return std::vector<std::string>(std::istream_iterator<std::string>(words), {});
  };
  // table, unit, written, removed, suppressed, entries, on chip, in log, pending: the log is the
  // units' together, and the hardware side has taken all of it in.
  EXPECT_THAT(line("EsemFodo           0"),
              testing::ElementsAre("EsemFodo", "0", "1", "0", "0", "1", "1", "0", "no"));
  EXPECT_THAT(line("EsemFodo           1"),
              testing::ElementsAre("EsemFodo", "1", "2", "0", "0", "2", "2", "no"));
  EXPECT_THAT(line("all "), testing::ElementsAre("all", "3", "0", "0", "3", "3", "0", "no"));
}

TEST(Generator, GivesTheSameIntentsForTheSamePlan) {
  const Demo::Plan plan{2, 3000, 42};
  std::string first;
  std::string second;
  for (const auto& intent : Demo::metroEdge(plan)) {
    Common::appendIntent(first, intent);
  }
  for (const auto& intent : Demo::metroEdge(plan)) {
    Common::appendIntent(second, intent);
  }
  EXPECT_EQ(first, second);
}

TEST(Generator, LeavesNothingOut) {
  const Demo::Plan plan{2, 5000, 1};
  const auto intents = Demo::metroEdge(plan);
  ASSERT_EQ(intents.size(), plan.intents);
  std::vector<std::uint64_t> tables(Common::kTables * plan.units);
  std::uint64_t ops[3] = {};
  std::vector<std::uint64_t> emptied(Common::kTables);
  std::vector<std::uint64_t> emptiedOn(plan.units);
  std::uint64_t across = 0;
  for (const auto& intent : intents) {
    ++tables[intent.table() * plan.units + intent.unit.value];
    ++ops[static_cast<std::size_t>(intent.op)];
    if (intent.op == Common::IntentOp::removeAll) {
      ++emptied[intent.table()];
      ++emptiedOn[intent.unit.value];
    }
    across += intent.after && intent.after->table() != intent.table() ? 1U : 0U;
    // Each is written as it is read.
    std::string text;
    Common::appendIntent(text, intent);
    std::string again;
    Common::appendIntent(again, Common::parseIntent(text));
    ASSERT_EQ(text, again);
  }
  EXPECT_THAT(tables, testing::Each(testing::Gt(5U)));
  EXPECT_GT(ops[0], 1000U);
  EXPECT_GT(ops[1], 200U);
  // Every table is emptied once, on one unit or another.
  EXPECT_EQ(ops[2], Common::kTables);
  EXPECT_THAT(emptied, testing::Each(1U));
  EXPECT_THAT(emptiedOn, testing::Each(Common::kTables / plan.units));
  EXPECT_GT(across, 500U);
}

TEST(ExpectedState, TellsEveryKindOfDifference) {
  Demo::Expected expected;
  for (const char* line :
       {R"({"op":"write","table":"EsemFodo","unit":0,"key":{"fodo":1},"payload":{"outLif":9}})",
        R"({"op":"removeAll","table":"EsemFodo","unit":0})",
        R"({"op":"write","table":"EsemFodo","unit":0,"key":{"fodo":2},"payload":{"outLif":2}})",
        R"({"op":"write","table":"EsemFodo","unit":0,"key":{"fodo":3},"payload":{"outLif":3}})",
        R"({"op":"write","table":"EsemFodo","unit":0,"key":{"fodo":4},"payload":{"outLif":4}})",
        R"({"op":"write","table":"EsemFodo","unit":1,"key":{"fodo":4},"payload":{"outLif":4}})",
        R"({"op":"remove","table":"EsemFodo","unit":1,"key":{"fodo":4}})"}) {
    expected.apply(Common::parseIntent(line));
  }
  EXPECT_EQ(expected.entries(), 3U);
  TestSupport::TempRoot root;
  const std::string model = root.path() + "/model";
  std::ofstream(model)
      << R"({"table":"EsemFodo","unit":0,"version":9,"entry":{"fodo":2,"outLif":2,"tpidProfile":0}}
{"table":"EsemFodo","unit":0,"version":9,"entry":{"fodo":3,"outLif":4,"tpidProfile":0}}
{"table":"EsemFodo","unit":0,"version":9,"entry":{"fodo":1,"outLif":9,"tpidProfile":0}}
)";
  const Demo::Comparison result = expected.compareChip(model);
  EXPECT_EQ(result.equal, 1U);
  EXPECT_EQ(result.different, 1U);
  EXPECT_EQ(result.surplus, 1U);
  EXPECT_EQ(result.missing, 1U);
  EXPECT_EQ(result.examples.size(), 3U);
  std::ofstream(model) << R"({"table":"EsemFodo","unit":0})";
  EXPECT_THROW((void)expected.compareChip(model), std::runtime_error);
  EXPECT_THROW((void)expected.compareChip(root.path() + "/none"), std::runtime_error);
}

// ---- kelp-chip

class ChipProgram : public Processes {
 protected:
  std::vector<std::string> store(std::vector<std::string> more) const {
    more.insert(more.begin(), {"--name", "k", "--root", root_.path()});
    return more;
  }
  Common::Json summary() const { return Common::Json::parse(contentOf(file("chip.json"))); }
  // Tells of one table's part of the summary.
  Common::Json tableOf(const std::string& name) const {
    const Common::Json all = summary();
    for (const auto& table : all.at("tables")) {
      if (table.at("table") == name) {
        return table;
      }
    }
    return nullptr;
  }
  void writeIntents(unsigned count) {
    std::string text;
    for (const auto& intent : Demo::metroEdge({1, count, 3})) {
      Common::appendIntent(text, intent);
      text += '\n';
    }
    writeFile(file("intents"), text);
  }
  std::vector<std::string> agentDrives() const {
    return store({"--intents", file("intents"), "--outcomes", "none", "--exit-when-done",
                  "--timeout", "60"});
  }
};

TEST_F(ChipProgram, WaitsForAnAgentAndSaysSo) {
  const auto chip = start("kelp-chip", store({}));
  for (int i = 0; i < 500 && contentOf(file("kelp-chip.err")).empty(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_THAT(contentOf(file("kelp-chip.err")),
              AllOf(HasSubstr("kelp-chip: waits for the logs of EsemFodo, "),
                    HasSubstr("kelp-agent with the same --name and --root makes them")));
  EXPECT_FALSE(chip->ended());
  chip->signal(SIGTERM);
  ASSERT_TRUE(chip->waitFor(std::chrono::seconds(20)));
  EXPECT_EQ(chip->exitStatus(), 0);
}

TEST_F(ChipProgram, DoesNotCheckWhatIsNotThere) {
  const auto chip = start("kelp-chip", store({"--check"}));
  for (int i = 0; i < 500 && contentOf(file("kelp-chip.err")).empty(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  chip->signal(SIGTERM);
  ASSERT_TRUE(chip->waitFor(std::chrono::seconds(20)));
  EXPECT_EQ(chip->exitStatus(), 2);
  EXPECT_THAT(chip->output(), HasSubstr("THERE IS NO LOG OF ANY TABLE"));
}

TEST_F(ChipProgram, ASecondOneOnTheSameStoreIsRefused) {
  const auto first = start("kelp-chip", store({}));
  for (int i = 0; i < 500 && contentOf(file("kelp-chip.err")).empty(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  std::filesystem::create_directory(file("second"));
  Child second("second", kBin + "/kelp-chip", store({}), file("second"));
  ASSERT_TRUE(second.waitFor(std::chrono::seconds(20)));
  EXPECT_EQ(second.exitStatus(), 1);
  EXPECT_THAT(second.obituary(), HasSubstr("another process listens on this bell"));
  EXPECT_FALSE(first->ended());
}

TEST_F(ChipProgram, EndsWhenNothingIsLeftToDoAndTellsWhatItDid) {
  writeIntents(3000);
  const auto agent = start("kelp-agent", agentDrives());
  EXPECT_EQ(run("kelp-chip", store({"--until-idle", "300", "--check", "--summary",
                                    file("chip.json"), "--model", file("model.jsonl")})),
            0)
      << output_ << obituary_;
  ASSERT_TRUE(agent->waitFor(std::chrono::seconds(60)));
  EXPECT_EQ(agent->exitStatus(), 0) << agent->obituary();
  EXPECT_THAT(output_, HasSubstr("check: the chip equals the configuration collections"));
  EXPECT_TRUE(summary().at("check").at("same").get<bool>());
  const Common::Json isem = tableOf("Isem1Tag");
  EXPECT_EQ(isem.at("reached"), isem.at("published"));
  EXPECT_GT(isem.at("records").get<int>(), 0);
  EXPECT_GT(isem.at("heldBack").get<int>(), 0);
  std::uint64_t lines = 0;
  for (const char c : contentOf(file("model.jsonl"))) {
    lines += c == '\n' ? 1U : 0U;
  }
  std::uint64_t entries = 0;
  const Common::Json all = summary();
  for (const auto& table : all.at("tables")) {
    for (const auto& unit : table.at("units")) {
      entries += unit.at("entries").get<std::uint64_t>();
    }
  }
  EXPECT_EQ(lines, entries);
}

TEST_F(ChipProgram, ChecksWhenAskedBySignalAndGoesOn) {
  writeIntents(500);
  const auto chip = start("kelp-chip", store({"--summary", file("chip.json")}));
  ASSERT_EQ(run("kelp-agent", agentDrives()), 0) << obituary_;
  chip->signal(SIGUSR1);
  for (int i = 0; i < 1000 && chip->output().find("check: ") == std::string::npos; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_THAT(chip->output(), HasSubstr("check: the chip equals the configuration collections"));
  EXPECT_FALSE(chip->ended());
}

TEST_F(ChipProgram, ADamagedCollectionIsSaidByItsExitStatus) {
  writeIntents(500);
  auto chip = start("kelp-chip", store({}));
  ASSERT_EQ(run("kelp-agent", agentDrives()), 0) << obituary_;
  chip->signal(SIGKILL);
  ASSERT_TRUE(chip->waitFor(std::chrono::seconds(20)));
  // A byte in every record: they lie behind the header and the heads.
  const std::string config = root_.path() +
                             "/k/orderedTable/KelpTunnelNi/KelpEmServerGroup/tables/KelpEmServer/"
                             "LemVpwsAcKelp/config/0.quilt";
  std::fstream io(config, std::ios::binary | std::ios::in | std::ios::out);
  for (std::streamoff at = 4096 + 0x10000 * 8 + 40; at < 4096 + 0x10000 * 8 + 4096; at += 56) {
    io.seekp(at);
    io.put('\x55');
  }
  io.close();
  chip = nullptr;
  EXPECT_EQ(run("kelp-chip", store({"--until-idle", "100", "--check"})), 2);
  EXPECT_THAT(output_, HasSubstr("collection damaged"));
  EXPECT_THAT(output_, HasSubstr("THE CHIP DIFFERS"));
}

TEST_F(ChipProgram, ALogOfAnotherLayoutIsNamedAndEndsIt) {
  writeIntents(500);
  {
    const auto chip = start("kelp-chip", store({}));
    ASSERT_EQ(run("kelp-agent", agentDrives()), 0) << obituary_;
  }
  // What a build with other records would have left: a log, sound, but of another table's records.
  const std::string tables = root_.path() + "/k/orderedTable/KelpTunnelNi/KelpEmServerGroup/tables";
  std::filesystem::copy_file(tables + "/KelpEmServer/LemVpwsAcKelp/log.quilt",
                             tables + "/KelpEmServer/Isem1TagKelp/log.quilt",
                             std::filesystem::copy_options::overwrite_existing);
  const std::string before = contentOf(tables + "/KelpEmServer/Isem1TagKelp/log.quilt");
  EXPECT_EQ(run("kelp-chip", store({"--until-idle", "100", "--check"})), 1);
  EXPECT_THAT(obituary_, AllOf(HasSubstr("Isem1TagKelp/log"), HasSubstr("has another layout")));
  EXPECT_THAT(output_, Not(HasSubstr("check: ")));
  EXPECT_EQ(contentOf(tables + "/KelpEmServer/Isem1TagKelp/log.quilt"), before);
}

TEST_F(ChipProgram, WaitsForLogsWithoutWorkWhenItIsToEndAtOnce) {
  const auto cpuTicks = [](pid_t process) {
    std::istringstream words(contentOf("/proc/" + std::to_string(process) + "/stat"));
    std::vector<std::string> all(std::istream_iterator<std::string>(words), {});
    return all.size() > 14 ? std::stoul(all[13]) + std::stoul(all[14]) : ~0UL;
  };
  const auto chip = start("kelp-chip", store({"--until-idle", "0", "--check"}));
  for (int i = 0; i < 500 && contentOf(file("kelp-chip.err")).empty(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  const auto before = cpuTicks(chip->pid());
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  // In ticks of 10 ms.
  EXPECT_LT(cpuTicks(chip->pid()) - before, 30U);
  EXPECT_FALSE(chip->ended());
  writeIntents(500);
  const auto agent = start("kelp-agent", agentDrives());
  // It may end when it has seen the first table only, and nothing in it.
  ASSERT_TRUE(chip->waitFor(std::chrono::seconds(20)));
  EXPECT_TRUE(chip->exitStatus().has_value());
}

TEST_F(ChipProgram, ARelaunchIsSeenWhateverTheNameOfTheSystem) {
  writeIntents(300);
  const auto of = [&](std::vector<std::string> more) {
    more.insert(more.begin(), {"--name", "my.switch", "--root", root_.path()});
    return more;
  };
  const auto chip = start("kelp-chip", of({"--summary", file("chip.json")}));
  const std::vector<std::string> drives =
      of({"--intents", file("intents"), "--outcomes", "none", "--exit-when-done"});
  ASSERT_EQ(run("kelp-agent", drives), 0) << obituary_;
  // A collection is lost: the agent makes it anew and raises the generation.
  unsigned removed = 0;
  for (const auto& at : std::filesystem::recursive_directory_iterator(root_.path())) {
    if (at.path().native().ends_with("/EsemFodoKelp/config/0.quilt")) {
      removed += std::filesystem::remove(at.path()) ? 1U : 0U;
    }
  }
  ASSERT_EQ(removed, 1U);
  ASSERT_EQ(run("kelp-agent", drives), 0) << obituary_;
  for (int i = 0; i < 500 && contentOf(file("kelp-chip.err")).find("relaunch") == std::string::npos;
       ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_THAT(contentOf(file("kelp-chip.err")),
              HasSubstr("since the relaunch generation has risen"));
  chip->signal(SIGTERM);
  ASSERT_TRUE(chip->waitFor(std::chrono::seconds(20)));
  EXPECT_EQ(summary().at("relaunchGeneration").get<int>(), 1);
}

TEST_F(ChipProgram, SlowHardwareIsSlow) {
  writeIntents(300);
  const auto start0 = std::chrono::steady_clock::now();
  const auto chip = start("kelp-chip", store({"--delay-record", "2000", "--check"}));
  ASSERT_EQ(run("kelp-agent", agentDrives()), 0) << obituary_;
  // Some 280 changes of entries, 2 ms each.
  EXPECT_GT(std::chrono::steady_clock::now() - start0, std::chrono::milliseconds(300));
  chip->signal(SIGTERM);
  ASSERT_TRUE(chip->waitFor(std::chrono::seconds(20)));
  EXPECT_EQ(chip->exitStatus(), 0) << chip->output();
}

}  // namespace
