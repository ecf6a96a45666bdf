#include "agent/OutcomeWriter.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "agent/Say.h"

namespace Agent {
namespace {

mode_t modeOf(int file) {
  struct stat status {};
  return fstat(file, &status) == 0 ? status.st_mode : 0;
}

}  // namespace

OutcomeWriter::OutcomeWriter(asio::io_context& loop, std::string target)
    : loop_(loop), target_(std::move(target)) {}

OutcomeWriter::~OutcomeWriter() {
  waitingForReader_ = false;
  flush();
  if (reader_) {
    reader_->release();
  }
  if (file_ > STDOUT_FILENO) {
    close(file_);
  }
}

void OutcomeWriter::open(std::function<void()> drained) {
  drained_ = std::move(drained);
  if (target_ == "none") {
    return;
  }
  if (target_ == "-") {
    openStandardOutput();
  } else {
    openFile();
  }
  if (!S_ISREG(modeOf(file_))) {
    reader_.emplace(loop_);
    asio::error_code refused;
    reader_->assign(file_, refused);
    if (refused) {
      reader_.reset();  // a device that is always ready
    }
  }
}

void OutcomeWriter::openStandardOutput() {
  const mode_t mode = modeOf(STDOUT_FILENO);
  if (S_ISREG(mode)) {
    kind_ = Kind::plain;
    file_ = STDOUT_FILENO;
  } else if (S_ISSOCK(mode)) {
    kind_ = Kind::socket;
    file_ = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  } else {
    // A description of our own: who shares the standard output need not be told that we never
    // block.
    kind_ = Kind::plain;
    file_ = ::open("/proc/self/fd/1", O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (file_ < 0) {
      kind_ = Kind::shared;
      file_ = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    }
  }
  if (file_ < 0) {
    throw std::runtime_error(
        fmt::format("the standard output: cannot write outcomes: {}: name a file with --outcomes",
                    std::strerror(errno)));
  }
}

void OutcomeWriter::openFile() {
  kind_ = Kind::plain;
  file_ = ::open(target_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK | O_CLOEXEC, 0644);
  if (file_ < 0) {
    throw std::runtime_error(fmt::format(
        "{}: cannot write outcomes: {}", target_,
        errno == ENXIO
            ? std::string("nobody reads this pipe: start its reader first")
            : fmt::format("{}: name another file with --outcomes", std::strerror(errno))));
  }
}

void OutcomeWriter::add(std::string_view line) {
  if (kind_ == Kind::none || broken_) {
    return;
  }
  bytes_ += line;
  if (bytes_.size() >= kPortion) {
    flush();
  }
}

long OutcomeWriter::writeSome(std::string_view bytes) const {
  if (kind_ == Kind::socket) {
    return send(file_, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  }
  if (kind_ == Kind::shared) {
    pollfd ready{file_, POLLOUT, 0};
    if (poll(&ready, 1, 0) != 1) {
      errno = EAGAIN;
      return -1;
    }
    bytes = bytes.substr(0, PIPE_BUF);  // what a pipe that is ready takes at once
  }
  return write(file_, bytes.data(), bytes.size());
}

void OutcomeWriter::flush() {
  if (waitingForReader_ || broken_) {
    return;
  }
  const bool wasFull = full();
  std::size_t done = 0;
  while (done < bytes_.size()) {
    const long count = writeSome(std::string_view(bytes_).substr(done));
    if (count >= 0) {
      done += static_cast<std::size_t>(count);
    } else if (errno == EAGAIN) {
      waitForReader();
      break;
    } else if (errno != EINTR) {
      broken_ = true;
      say("{}: cannot write outcomes: {}: no more are written",
          target_ == "-" ? "the standard output" : target_, std::strerror(errno));
      done = bytes_.size();
    }
  }
  written_ += done;
  bytes_.erase(0, done);
  if (wasFull && !full()) {
    drained_();
  }
}

void OutcomeWriter::waitForReader() {
  if (!reader_) {
    return;  // the next flush() tries again
  }
  waitingForReader_ = true;
  reader_->async_wait(asio::posix::stream_descriptor::wait_write,
                      [this](const asio::error_code& error) {
                        if (error != asio::error::operation_aborted) {
                          waitingForReader_ = false;
                          flush();
                        }
                      });
}

}  // namespace Agent
