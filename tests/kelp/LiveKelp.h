#pragma once

#include <gmock/gmock.h>

#include <string>
#include <utility>
#include <vector>

#include "RunKelp.h"
#include "tests/agent/Resources.h"

// kelp as it asks a running agent.

namespace KelpTest {

class WithLiveAgent : public AgentTest::WithResources {
 protected:
  using Program = AgentTest::Program;

  // An agent that kelp finds by itself, at work.
  Program inspectedAgent(std::vector<std::string> arguments = {}) {
    arguments.insert(arguments.begin(), "--inspect");
    return listeningAgent(std::move(arguments));
  }
  // To be waited for before kelp asks.
  [[nodiscard]] bool listens() {
    return AgentTest::comesTrue([&] { return kelp({"ls"}).status == 0; });
  }
  Result kelp(std::vector<std::string> arguments) {
    return runKelp(root_.path(), "kelp", std::move(arguments));
  }
  // The document that a command prints with --json.
  Json kelpJson(std::vector<std::string> arguments) {
    arguments.emplace_back("--json");
    const Result run = kelp(std::move(arguments));
    EXPECT_EQ(run.status, 0) << run.err;
    return Json::parse(run.out, nullptr, false);
  }
  // Expects that a command ends with this status and says this, on one line.
  void says(std::vector<std::string> arguments, int status, const std::string& text) {
    const Result run = kelp(std::move(arguments));
    EXPECT_EQ(run.status, status) << run.err;
    EXPECT_THAT(run.err, testing::HasSubstr(text));
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
  }
  Program kelpGoesOn(std::vector<std::string> arguments) {
    arguments.insert(arguments.end(), {"--root", root_.path()});
    return {KELP, std::move(arguments), path("live" + std::to_string(++followers_))};
  }
  // The software table of unit 0.
  [[nodiscard]] static std::string tablePath(const std::string& table) {
    return "KelpEmServer::" + table + "KelpInterface/swTableSet[0]";
  }

 private:
  unsigned followers_ = 0;
};

}  // namespace KelpTest
