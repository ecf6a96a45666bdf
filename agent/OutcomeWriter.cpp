#include "agent/OutcomeWriter.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "agent/Say.h"

namespace Agent {

OutcomeWriter::OutcomeWriter(const std::string& target) : target_(target) {
  if (target == "none") {
    return;
  }
  if (target == "-") {
    file_ = STDOUT_FILENO;
    return;
  }
  file_ = open(target.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (file_ < 0) {
    throw std::runtime_error(
        fmt::format("{}: cannot write outcomes: {}: name another file with --outcomes", target,
                    std::strerror(errno)));
  }
}

OutcomeWriter::~OutcomeWriter() {
  flush();
  if (file_ > STDOUT_FILENO) {
    close(file_);
  }
}

void OutcomeWriter::add(std::string_view line) {
  if (file_ < 0 || broken_) {
    return;
  }
  bytes_ += line;
  if (bytes_.size() >= kFull) {
    flush();
  }
}

void OutcomeWriter::flush() {
  std::size_t done = 0;
  while (done < bytes_.size() && !broken_) {
    const ssize_t count = write(file_, bytes_.data() + done, bytes_.size() - done);
    if (count >= 0) {
      done += static_cast<std::size_t>(count);
    } else if (errno == EAGAIN) {
      // Whoever gave us the standard output has made it non-blocking.
      pollfd wait{file_, POLLOUT, 0};
      (void)poll(&wait, 1, -1);
    } else if (errno != EINTR) {
      broken_ = true;
      say("{}: cannot write outcomes: {}: no more are written",
          target_ == "-" ? "the standard output" : target_, std::strerror(errno));
    }
  }
  bytes_.clear();
}

}  // namespace Agent
