#pragma once

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

#include "demo/Input.h"

namespace Demo {

// What an agent has told so far of the lines of its input, read from the file of its outcomes as it
// grows.
class OutcomeTail {
 public:
  OutcomeTail(const Input& input, const std::string& file);

  // Takes what has come since. Throws std::runtime_error for an outcome of no line, and for a
  // second one that is none of a second try.
  void read();

  // Of the lines from `from` to `to` without it: how many have an outcome, how many have failed and
  // not come through since, and how many came through at a second try.
  struct Count {
    std::size_t ended = 0;
    std::size_t failed = 0;
    std::size_t cameThrough = 0;
  };
  [[nodiscard]] Count count(std::size_t from, std::size_t to) const;
  // The line has been carried out, at once or at a second try.
  [[nodiscard]] bool isDone(std::size_t line) const {
    return states_[line] == State::done || states_[line] == State::cameThrough;
  }

 private:
  enum class State : std::uint8_t { open, done, failed, cameThrough };

  void take(const std::string& text);

  const Input& input_;
  std::string name_;
  std::ifstream file_;
  std::string cutOff_;  // the begin of a line whose end has not come yet
  std::vector<State> states_;
};

}  // namespace Demo
