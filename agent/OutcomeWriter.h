#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace Agent {

// Writes lines to a file or the standard output, many at a time. A reader that is slow at the other
// end of a pipe holds its caller up.
class OutcomeWriter {
 public:
  // `target` is a file, which is made anew, "-" or "none". Throws std::runtime_error that names the
  // file.
  explicit OutcomeWriter(const std::string& target);
  ~OutcomeWriter();
  OutcomeWriter(const OutcomeWriter&) = delete;
  OutcomeWriter& operator=(const OutcomeWriter&) = delete;

  // A line with its end.
  void add(std::string_view line);
  void flush();
  // Something could not be written. It has been said on stderr then, once, and nothing more is
  // written.
  [[nodiscard]] bool broken() const noexcept { return broken_; }

 private:
  static constexpr std::size_t kFull = 1 << 16;

  std::string target_;
  int file_ = -1;  // -1: none
  std::string bytes_;
  bool broken_ = false;
};

}  // namespace Agent
