#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>

#include "demo/Demo.h"

// kelp-demo: a whole switch at work, from feature intents to the chip.

int main(int argc, char** argv) {
  CLI::App app(
      "Runs kelp-agent and kelp-chip over a store of their own, feeds them a metro-edge switch's "
      "life or the intents in FILE (docs/intents.md tells their form), and proves that the chip "
      "ends up with exactly what was asked for.");
  Demo::Settings settings;
  app.add_option("FILE", settings.file, "Intents of your own, one on a line");
  auto* units = app.add_option("--units", settings.plan.units, "Chip units of the generated switch")
                    ->check(CLI::Range(1U, 64U))
                    ->capture_default_str();
  auto* intents = app.add_option("--intents", settings.plan.intents, "Intents to generate")
                      ->check(CLI::Range(1U, 10'000'000U))
                      ->capture_default_str();
  auto* seed = app.add_option("--seed", settings.plan.seed, "The same seed gives the same intents")
                   ->capture_default_str();
  app.add_option("--kill", settings.kills,
                 "Kill the programs with SIGKILL this often on the way, and start them again")
      ->check(CLI::Range(0U, 1000U));
  app.add_option("--inspect", settings.inspect,
                 "Where the agent listens for requests to read its objects, as kelp-agent "
                 "--inspect; docs/inspection.md tells how")
      ->type_name("PATH");
  app.add_flag("--keep", settings.keep, "Keep the folder with the store and all files of the run");
  app.add_flag("--quiet", settings.quiet, "No progress");
  CLI11_PARSE(app, argc, argv);
  if (!settings.file.empty() &&
      (units->count() != 0 || intents->count() != 0 || seed->count() != 0)) {
    fmt::print(stderr,
               "kelp-demo: --units, --intents and --seed are of the generated switch; leave "
               "them out beside FILE\n");
    return 2;
  }
  try {
    return Demo::runDemo(settings);
  } catch (const std::exception& error) {
    fmt::print(stderr, "kelp-demo: {}\n", error.what());
    return 1;
  }
}
