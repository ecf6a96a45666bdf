#pragma once

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace Agent {

// Writes lines to a file, a pipe or the standard output, many at a time, and never waits for a
// reader: what a pipe does not take is kept until it does. Whoever makes lines stops while it is
// full(), so that what is kept is bounded.
class OutcomeWriter {
 public:
  // `target` is a file, which is made anew by open(), "-" or "none".
  OutcomeWriter(asio::io_context& loop, std::string target);
  // Writes what goes out without waiting.
  ~OutcomeWriter();
  OutcomeWriter(const OutcomeWriter&) = delete;
  OutcomeWriter& operator=(const OutcomeWriter&) = delete;

  // To be called once, and before a line is added. `drained` is called when it is not full any
  // more. Throws std::runtime_error that names the file.
  void open(std::function<void()> drained);

  // A line with its end.
  void add(std::string_view line);
  void flush();
  // Bytes that wait for their reader.
  [[nodiscard]] std::size_t waiting() const noexcept { return bytes_.size(); }
  [[nodiscard]] bool full() const noexcept { return waiting() > kMostWaiting; }
  [[nodiscard]] std::uint64_t written() const noexcept { return written_; }
  // Something could not be written. It has been said on stderr then, once, and nothing more is
  // written.
  [[nodiscard]] bool broken() const noexcept { return broken_; }

 private:
  static constexpr std::size_t kPortion = 1 << 16;
  static constexpr std::size_t kMostWaiting = 1 << 20;

  // How the descriptor is written to without ever waiting.
  enum class Kind : std::uint8_t {
    none,
    plain,   // a regular file, or a description of our own that never blocks
    socket,  // shared with others: each call says that it does not wait
    shared,  // any other that we share: asked each time whether it takes a little
  };

  void openStandardOutput();
  void openFile();
  [[nodiscard]] long writeSome(std::string_view bytes) const;
  void waitForReader();

  asio::io_context& loop_;
  std::string target_;
  std::function<void()> drained_;
  Kind kind_ = Kind::none;
  int file_ = -1;
  std::optional<asio::posix::stream_descriptor> reader_;  // of a pipe: tells when it takes more
  bool waitingForReader_ = false;
  std::string bytes_;
  std::uint64_t written_ = 0;
  bool broken_ = false;
};

}  // namespace Agent
