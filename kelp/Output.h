#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

namespace Kelp {

// Whoever read the standard output has gone away.
class OutputGone : public std::runtime_error {
 public:
  OutputGone() : std::runtime_error("the reader of the standard output is gone") {}
};
// A signal asked for the end while the standard output took nothing.
class Stopped : public std::runtime_error {
 public:
  Stopped() : std::runtime_error("stopped") {}
};

// The standard output, in large pieces. Every function throws OutputGone, or std::runtime_error if
// it can't be written for another reason; then nothing more is written.
class Output {
 public:
  Output() = default;
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  // Where the next line is put together; end it with lineEnd().
  [[nodiscard]] std::string& text() noexcept { return text_; }
  void lineEnd() {
    text_ += '\n';
    if (text_.size() >= kPiece) {
      flush();
    }
  }
  void line(std::string_view line) {
    text_ += line;
    lineEnd();
  }
  void flush();

  // From here on a readable `fd` ends a write that the reader holds up: Stopped.
  void stopFdIs(int fd) noexcept { stopFd_ = fd; }

 private:
  static constexpr std::size_t kPiece = 64 * 1024;

  void waitUntilTaken() const;

  std::string text_;
  int stopFd_ = -1;
};

}  // namespace Kelp
