#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

#include "TempRoot.h"
#include "demo/Child.h"

// The soak as a process, for a few seconds.

namespace {

using testing::ContainsRegex;
using testing::HasSubstr;

class SoakProcess : public testing::Test {
 protected:
  int run(std::vector<std::string> arguments) {
    Demo::Child child("kelp-soak", std::string(KELP_BIN) + "/kelp-soak", arguments, root_.path());
    EXPECT_TRUE(child.waitFor(std::chrono::minutes(5))) << child.obituary();
    output_ = child.output();
    obituary_ = child.obituary();
    return child.exitStatus().value_or(-1);
  }

  TestSupport::TempRoot root_;
  std::string output_;
  std::string obituary_;
};

TEST_F(SoakProcess, WhatWasAnsweredHoldsWhateverIsKilled) {
  EXPECT_EQ(run({"--seconds", "5", "--check-every", "1", "--fault-every", "0.1"}), 0)
      << output_ << obituary_;
  EXPECT_THAT(output_, ContainsRegex("killed: kelp-agent [1-9][0-9]*, kelp-chip [0-9]+, both"));
  EXPECT_THAT(output_, ContainsRegex("[1-9][0-9]* resources were changed or prepared"));
  EXPECT_THAT(output_, ContainsRegex("check: [1-9][0-9]* times the chip and the configuration "
                                     "collections held what was asked for: [1-9][0-9]* entries"));
}

TEST_F(SoakProcess, AnEndFromOutsideIsNoSuccess) {
  Demo::Child child("kelp-soak", std::string(KELP_BIN) + "/kelp-soak",
                    {"--seconds", "100", "--rate", "100", "--keep"}, root_.path());
  std::string kept;
  for (int i = 0; i < 2000 && kept.empty(); ++i) {
    (void)child.waitFor(std::chrono::milliseconds(10));
    const std::string said = child.output();
    const auto at = said.find("/");
    kept =
        at == std::string::npos || said.back() != '\n' ? "" : said.substr(at, said.size() - at - 1);
  }
  child.signal(SIGTERM);
  ASSERT_TRUE(child.waitFor(std::chrono::minutes(1)));
  EXPECT_EQ(child.exitStatus(), 1);
  EXPECT_THAT(child.output(), HasSubstr("interrupted"));
  if (!kept.empty()) {
    std::filesystem::remove_all(kept);
  }
}

}  // namespace
