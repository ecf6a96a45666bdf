#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/Intent.h"
#include "demo/Generator.h"

namespace Demo {

// What comes behind the life of the switch: where in Input::lines each step begins, and where in
// Input::following it ends.
struct ProfileSteps {
  std::size_t change = 0;   // an event
  std::size_t asked = 0;    // writes of more VLAN edits than there are profiles
  std::size_t removed = 0;  // removes of some of them
  std::uint64_t bytesOfLife = 0;
  std::uint64_t bytesOfChange = 0;
  std::uint64_t bytesOfAsked = 0;
};

// The intents of a run, as text and as values. The agent reads a file first; what follows comes in
// through its standard input.
struct Input {
  std::string file;
  std::string following;
  std::string allFile;  // with all of it, as another start would be told
  // All of them, those of the file first. A line that is no intent is an empty value: the agent
  // tells of it.
  std::vector<std::optional<Common::Intent>> lines;
  std::size_t inFile = 0;  // so many lines are in the file
  std::vector<std::uint64_t>
      ends;  // of the lines that hold intents, in bytes from the file's begin
  std::uint64_t fileBytes = 0;
  unsigned units = 1;
  std::optional<ProfileSteps> profiles;  // nothing if there are none

  // The line that an outcome is of, by what the agent calls its source and its number there;
  // nothing for none.
  [[nodiscard]] std::optional<std::size_t> lineOf(std::string_view source,
                                                  std::uint64_t number) const;
};

// Makes intents up, as many as the plan says in all. With `halves` only the first half goes into
// `file`; the others follow, behind a line that says that the replay is complete, and at the end of
// a life of some length profiles change, run out and come free. Throws std::runtime_error if a file
// can't be written.
[[nodiscard]] Input generateInput(const Plan& plan, const std::string& file, bool halves);
// The intents of a file of the user's own. Throws std::runtime_error if it can't be read.
[[nodiscard]] Input readInput(const std::string& file);

}  // namespace Demo
