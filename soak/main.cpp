#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>

#include "soak/Soak.h"

// kelp-soak: a switch that is killed under load for as long as you like.

int main(int argc, char** argv) {
  CLI::App app(
      "Loads a kelp-agent and a kelp-chip over a store of their own, kills, stops and pauses them "
      "at random, and checks again and again that what was answered holds, entry by entry.");
  Soak::Settings settings;
  const auto most = CLI::Range(0.001, 1e7);
  app.add_option("--seconds", settings.seconds, "How long")
      ->check(CLI::Range(0.0, 1e7))
      ->capture_default_str();
  app.add_option("--units", settings.units, "Chip units of the switch")
      ->check(CLI::Range(1U, 64U))
      ->capture_default_str();
  app.add_option("--seed", settings.seed,
                 "The same seed asks for the same and plans the same faults")
      ->capture_default_str();
  app.add_option("--rate", settings.rate,
                 "Intents a second at most; 0: as many as there is room for")
      ->capture_default_str();
  app.add_option("--fault-every", settings.faultEvery, "Seconds from fault to fault, in the mean")
      ->check(most)
      ->capture_default_str();
  app.add_option("--check-every", settings.checkEvery, "Seconds from check to check")
      ->check(most)
      ->capture_default_str();
  app.add_flag("--keep", settings.keep, "Keep the folder with the store and all files of the run");
  app.add_flag("--quiet", settings.quiet, "No progress");
  app.footer(
      "Exit status: 0 if nothing was ever wrong, 1 if something was, or the programs could "
      "not be started.");
  CLI11_PARSE(app, argc, argv);
  try {
    return Soak::runSoak(settings);
  } catch (const std::exception& error) {
    fmt::print(stderr, "kelp-soak: {}\n", error.what());
    return 1;
  }
}
