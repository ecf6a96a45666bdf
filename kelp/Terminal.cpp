#include "kelp/Terminal.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string_view>

namespace Kelp {
namespace {

void put(std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(STDOUT_FILENO, text.data(), text.size());
    if (written > 0) {
      text.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno != EINTR && errno != EAGAIN) {
      return;  // the terminal is gone, and with it who looks at it
    }
  }
}

}  // namespace

bool Terminal::isThere() { return ::isatty(STDOUT_FILENO) == 1; }

Terminal::Terminal() : hasKeys_(::isatty(STDIN_FILENO) == 1) {
  if (hasKeys_ && ::tcgetattr(STDIN_FILENO, &before_) == 0) {
    termios now = before_;
    // Ctrl-C stays a signal; a stop would leave the screen behind.
    now.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    now.c_cc[VMIN] = 0;
    now.c_cc[VTIME] = 0;
    now.c_cc[VSUSP] = _POSIX_VDISABLE;
    ::tcsetattr(STDIN_FILENO, TCSANOW, &now);
  } else {
    hasKeys_ = false;
  }
  put("\x1b[?1049h\x1b[?25l");
}

Terminal::~Terminal() {
  put("\x1b[?25h\x1b[?1049l");
  if (hasKeys_) {
    ::tcsetattr(STDIN_FILENO, TCSANOW, &before_);
  }
}

void Terminal::show(const std::vector<std::string>& lines) const {
  winsize size{};
  const bool known =
      ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row != 0 && size.ws_col != 0;
  const std::size_t columns = known ? size.ws_col : 80;
  const std::size_t rows = std::min<std::size_t>(known ? size.ws_row : 24, lines.size());
  std::string screen = "\x1b[H";
  for (std::size_t i = 0; i < rows; ++i) {
    screen += fmt::format("{}{}\x1b[K", i == 0 ? "" : "\r\n", lines[i].substr(0, columns));
  }
  put(screen + "\x1b[J");
}

char Terminal::key() const {
  char key = 0;
  return hasKeys_ && ::read(STDIN_FILENO, &key, 1) == 1 ? key : '\0';
}

}  // namespace Kelp
