#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <optional>
#include <random>

#include "RandomRun.h"

// Random operations on the real tables and on a model with the same rules, compared after every
// step. KELP_MODEL_SEED=N repeats the run of a seed, KELP_MODEL_STEPS=N makes runs longer.

namespace ModelTest {
namespace {

template <class... Tables>
Drivers driversOf() {
  Drivers drivers;
  (drivers.push_back(std::make_unique<TableDriver<Tables>>()), ...);
  return drivers;
}

std::optional<std::uint64_t> numberOf(const char* variable) {
  const char* const text = std::getenv(variable);
  return text == nullptr ? std::nullopt : std::optional(std::strtoull(text, nullptr, 10));
}

struct Group {
  const char* name;
  Drivers (*drivers)();
};

class TablesAgainstModel : public testing::TestWithParam<Group> {
 protected:
  static constexpr std::uint64_t kSteps = 25000;

  void run(std::uint64_t seed) {
    const std::uint64_t chosen = numberOf("KELP_MODEL_SEED").value_or(seed);
    SCOPED_TRACE(fmt::format("KELP_MODEL_SEED={}", chosen));
    std::printf("KELP_MODEL_SEED=%llu\n", static_cast<unsigned long long>(chosen));
    RandomRun run(GetParam().drivers(), chosen);
    const std::uint64_t steps = numberOf("KELP_MODEL_STEPS").value_or(kSteps);
    ASSERT_TRUE(run.steps(steps));
    run.finish();
    if (steps >= kSteps) {
      // What a run of this length always comes upon; otherwise it proves less than it seems to.
      const RandomRun::Coverage& met = run.coverage();
      EXPECT_GT(met.restarts, 3U);
      EXPECT_GT(met.commits, steps / 10);
      EXPECT_GT(met.succeeded, steps / 20);
      EXPECT_GT(met.failed, 10U);
      EXPECT_GT(met.dependencies, 10U);
      EXPECT_GT(run.hasIndexesToSpare() ? met.changes : met.exhausted, 20U);
      EXPECT_GT(met.deadlines, 3U);
      EXPECT_GT(run.counted().resolveFails, 100U);
      EXPECT_GT(run.counted().updates, 50U);
      EXPECT_GT(run.counted().failedUpdates, 20U);
    }
  }
};

TEST_P(TablesAgainstModel, AgreeAfterEveryStep) { run(1); }
TEST_P(TablesAgainstModel, AgreeAfterEveryStepOfAnotherRun) { run(20260127); }
TEST_P(TablesAgainstModel, AgreeAfterEveryStepOfARunThatNobodyMadeBefore) {
  run(std::random_device()());
}

INSTANTIATE_TEST_SUITE_P(
    Groups, TablesAgainstModel,
    testing::Values(
        Group{"Tagged", driversOf<KelpEmServer::Isem1Tag, KelpEmServer::Isem2Tag>},
        Group{"Egress",
              driversOf<KelpEmServer::EsemFodo, KelpEmServer::EsemFodoVd, KelpEmServer::LemVpwsAc>},
        Group{"Ingress", driversOf<KelpEmServer::IsemUntagged, KelpEmServer::IsemInnerEth,
                                   KelpEmServer::IsemMpls>}),
    [](const auto& group) { return std::string(group.param.name); });

}  // namespace
}  // namespace ModelTest
