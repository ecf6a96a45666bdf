#include "demo/OutcomeTail.h"

#include <algorithm>
#include <array>
#include <stdexcept>

#include "common/Json.h"

namespace Demo {

OutcomeTail::OutcomeTail(const Input& input, const std::string& file)
    : input_(input), name_(file), file_(file, std::ios::binary), states_(input.lines.size()) {}

void OutcomeTail::read() {
  std::array<char, 65536> buffer;
  for (;;) {
    file_.clear();
    file_.read(buffer.data(), buffer.size());
    const std::streamsize size = file_.gcount();
    if (size <= 0) {
      return;
    }
    cutOff_.append(buffer.data(), static_cast<std::size_t>(size));
    std::size_t from = 0;
    for (std::size_t end; (end = cutOff_.find('\n', from)) != std::string::npos; from = end + 1) {
      take(cutOff_.substr(from, end - from));
    }
    cutOff_.erase(0, from);
  }
}

void OutcomeTail::take(const std::string& text) {
  const Common::Json line = Common::parseLine(text);
  if (line.at("op") == "replayComplete") {
    return;
  }
  const auto at = input_.lineOf(line.at("source").get_ref<const std::string&>(),
                                line.at("line").get<std::uint64_t>());
  const bool again = line.contains("again");
  if (!at || states_[*at] != (again ? State::failed : State::open)) {
    throw std::runtime_error(name_ + ": an outcome of no line, or one too many: " + text);
  }
  if (line.at("outcome") == "success") {
    states_[*at] = again ? State::cameThrough : State::done;
  } else {
    states_[*at] = State::failed;
  }
}

OutcomeTail::Count OutcomeTail::count(std::size_t from, std::size_t to) const {
  Count count;
  std::for_each(states_.begin() + static_cast<std::ptrdiff_t>(from),
                states_.begin() + static_cast<std::ptrdiff_t>(to), [&](State state) {
                  count.ended += state != State::open ? 1 : 0;
                  count.failed += state == State::failed ? 1 : 0;
                  count.cameThrough += state == State::cameThrough ? 1 : 0;
                });
  return count;
}

}  // namespace Demo
