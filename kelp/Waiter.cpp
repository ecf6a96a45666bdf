#include "kelp/Waiter.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>

namespace Kelp {
namespace {

sigset_t endingSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  return set;
}

}  // namespace

Waiter::Waiter() {
  const sigset_t set = endingSignals();
  sigprocmask(SIG_BLOCK, &set, nullptr);
  fd_ = ::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
  if (fd_ < 0) {
    throw std::runtime_error(fmt::format("cannot wait for signals: {}", std::strerror(errno)));
  }
}

// The signals stay blocked: one that came late must not end a program that is ending well.
Waiter::~Waiter() { ::close(fd_); }

Waiter::Woken Waiter::sleep(std::chrono::milliseconds most, int fd) const {
  // Asked for nothing, poll() still tells that nobody reads a pipe any more.
  std::array<pollfd, 3> waits{pollfd{fd_, POLLIN, 0}, pollfd{STDOUT_FILENO, 0, 0},
                              pollfd{fd, POLLIN, 0}};
  static_cast<void>(::poll(waits.data(), waits.size(), static_cast<int>(most.count())));
  if ((waits[0].revents & POLLIN) != 0) {
    return Woken::stopped;
  }
  if ((waits[1].revents & (POLLERR | POLLHUP | POLLNVAL)) != 0) {
    return Woken::readerGone;
  }
  return waits[2].revents != 0 ? Woken::readable : Woken::timeToLook;
}

}  // namespace Kelp
