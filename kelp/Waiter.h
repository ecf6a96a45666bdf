#pragma once

#include <chrono>

namespace Kelp {

// Sleeps between two looks, and hears what ends the program meanwhile. While it lives, SIGINT and
// SIGTERM are taken here.
class Waiter {
 public:
  enum class Woken { timeToLook, stopped, readerGone, readable };

  // Throws std::runtime_error.
  Waiter();
  ~Waiter();
  Waiter(const Waiter&) = delete;
  Waiter& operator=(const Waiter&) = delete;

  // Readable once a signal has come.
  [[nodiscard]] int fd() const noexcept { return fd_; }
  // Sleeps for `most`, or until a signal comes or the reader of the standard output goes away.
  [[nodiscard]] Woken sleep(std::chrono::milliseconds most) const { return sleep(most, -1); }
  // The same, or until `fd` can be read. A negative time has no end.
  [[nodiscard]] Woken sleep(std::chrono::milliseconds most, int fd) const;

 private:
  int fd_;
};

}  // namespace Kelp
