#include "kelp/Output.h"

#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>

namespace Kelp {

// A pipe that is ready takes PIPE_BUF bytes without waiting.
void Output::waitUntilTaken() const {
  std::array<pollfd, 2> waits{pollfd{STDOUT_FILENO, POLLOUT, 0}, pollfd{stopFd_, POLLIN, 0}};
  while (::poll(waits.data(), waits.size(), -1) < 0 && errno == EINTR) {
  }
  if ((waits[1].revents & POLLIN) != 0) {
    throw Stopped();
  }
}

void Output::flush() {
  std::string_view rest = text_;
  while (!rest.empty()) {
    std::size_t piece = rest.size();
    if (stopFd_ >= 0) {
      waitUntilTaken();
      piece = std::min<std::size_t>(piece, PIPE_BUF);
    }
    const ssize_t written = ::write(STDOUT_FILENO, rest.data(), piece);
    if (written >= 0) {
      rest.remove_prefix(static_cast<std::size_t>(written));
      continue;
    }
    if (errno == EINTR || errno == EAGAIN) {
      continue;
    }
    text_.clear();
    if (errno == EPIPE) {
      throw OutputGone();
    }
    throw std::runtime_error(
        fmt::format("cannot write to the standard output: {}; let it lead to where there is room",
                    std::strerror(errno)));
  }
  text_.clear();
}

}  // namespace Kelp
