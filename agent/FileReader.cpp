#include "agent/FileReader.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <asio/post.hpp>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "agent/Order.h"
#include "agent/Say.h"
#include "common/Intent.h"

namespace Agent {
namespace {

// Enough for a pass of the resolver to be worth its while, and short enough to hear others soon.
constexpr unsigned kLinesAtATurn = 512;

class FileSource final : public Source {
 public:
  FileSource(std::string name, OutcomeWriter& outcomes)
      : Source(std::move(name)), outcomes_(outcomes) {}
  void outcomeIs(std::string_view line) override { outcomes_.add(line); }

 private:
  OutcomeWriter& outcomes_;
};

[[noreturn]] void failOpen(const std::string& name, std::string_view why) {
  throw std::runtime_error(
      fmt::format("{}: cannot read intents: {}: name a readable file with --intents", name, why));
}

int openFile(const std::string& name) {
  if (name != "-") {
    return open(name.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  }
  // A description of our own: who shares the standard input need not be told that we never block.
  // A socket has no name to be opened by; each read of it says that it does not wait.
  const int own = open("/proc/self/fd/0", O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  return own >= 0 ? own : fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
}

// As read(), but never waits, whoever shares the descriptor: EAGAIN instead.
ssize_t readWithoutWaiting(int descriptor, char* bytes, std::size_t most) {
  if ((fcntl(descriptor, F_GETFL) & O_NONBLOCK) == 0) {
    pollfd ready{descriptor, POLLIN, 0};
    if (poll(&ready, 1, 0) == 0) {
      errno = EAGAIN;
      return -1;
    }
    const ssize_t count = recv(descriptor, bytes, most, MSG_DONTWAIT);
    if (count >= 0 || errno != ENOTSOCK) {
      return count;
    }
  }
  return read(descriptor, bytes, most);
}

}  // namespace

FileReader::FileReader(asio::io_context& loop, const std::vector<std::string>& files,
                       Intake& intake, OutcomeWriter& outcomes, Events events)
    : loop_(loop), intake_(intake), outcomes_(outcomes), events_(std::move(events)) {
  for (const std::string& name : files) {
    open(name);
  }
}

void FileReader::open(const std::string& name) {
  const int file = openFile(name);
  if (file < 0) {
    failOpen(name, std::strerror(errno));
  }
  struct stat status {};
  fstat(file, &status);
  File& opened = files_.emplace_back();
  opened.source = std::make_shared<FileSource>(name == "-" ? "stdin" : name, outcomes_);
  opened.descriptor = std::make_unique<asio::posix::stream_descriptor>(loop_, file);
  opened.regular = S_ISREG(status.st_mode);
  opened.waitFirst = S_ISFIFO(status.st_mode);
  if (S_ISDIR(status.st_mode)) {
    failOpen(name, "it is a folder");
  }
}

void FileReader::start(bool withReplay) {
  if (withReplay) {
    phase_ = Phase::folding;
    replay_.emplace(intake_);
  }
  stepLater();
}

bool FileReader::regularLeft() const noexcept {
  return std::any_of(files_.begin() + static_cast<std::ptrdiff_t>(current_), files_.end(),
                     [](const File& file) { return file.regular; });
}

void FileReader::resume() {
  if (std::exchange(paused_, false)) {
    stepLater();
  }
}

void FileReader::stepLater() {
  asio::post(loop_, [this] { step(); });
}

void FileReader::wait() {
  // A regular file never has to be waited for.
  files_[current_].descriptor->async_wait(asio::posix::stream_descriptor::wait_read,
                                          [this](const asio::error_code&) { step(); });
}

void FileReader::stepReplay() {
  if (!intake_.hasRoom() || outcomes_.full()) {
    paused_ = true;
    return;
  }
  replay_->step(kLinesAtATurn);
  if (replay_->done()) {
    phase_ = Phase::streaming;
    replay_.reset();
    events_.replayed();
    if (const auto order = std::exchange(order_, std::nullopt)) {
      intake_.completeReplay(order->source, order->line);
    }
  }
  stepLater();
}

void FileReader::step() {
  if (phase_ == Phase::folding && (order_ || ended() || !files_[current_].regular)) {
    intake_.events().applyFolded();
    events_.folded(*replay_);
    phase_ = Phase::replaying;
  }
  if (phase_ == Phase::replaying) {
    stepReplay();
    return;
  }
  for (unsigned lines = 0; !ended(); ++lines) {
    // What is not read waits in the file, or holds up whoever writes into the pipe.
    if ((phase_ == Phase::streaming && !intake_.hasRoom()) || outcomes_.full()) {
      paused_ = true;
      return;
    }
    if (phase_ == Phase::folding && (order_ || !files_[current_].regular)) {
      stepLater();
      return;
    }
    if (lines == kLinesAtATurn) {
      stepLater();
      return;
    }
    File& file = files_[current_];
    if (std::exchange(file.waitFirst, false)) {
      wait();
      return;
    }
    if (const auto line = file.lines.next()) {
      takeLine(file, *line, false);
      continue;
    }
    switch (readSome(file)) {
      case Read::some:
        break;
      case Read::none:
        wait();
        return;
      case Read::end:
        endFile(file);
        break;
    }
  }
  if (phase_ == Phase::folding) {
    stepLater();
  } else {
    events_.ended();
  }
}

FileReader::Read FileReader::readSome(File& file) {
  const int descriptor = file.descriptor->native_handle();
  while (true) {
    const ssize_t count = readWithoutWaiting(descriptor, chunk_.data(), chunk_.size());
    if (count > 0) {
      file.lines.append(std::string_view(chunk_.data(), static_cast<std::size_t>(count)));
      return Read::some;
    }
    if (count == 0) {
      return Read::end;
    }
    if (errno == EAGAIN) {
      return Read::none;
    }
    if (errno != EINTR) {
      say("{}: cannot read on: {}: the rest of it is left out", file.source->name(),
          std::strerror(errno));
      ++skipped_;
      return Read::end;
    }
  }
}

void FileReader::takeLine(File& file, const LineBuffer::Line& line, bool unfinished) {
  try {
    if (line.tooLong) {
      throw Common::InputError(
          fmt::format("the line is longer than {} bytes: write one intent on a line",
                      LineBuffer::kLongestLine));
    }
    if (!Common::isBlankOrComment(line.text)) {
      if (phase_ != Phase::folding) {
        intake_.takeLine(line.text, file.source, line.number);
      } else if (isReplayComplete(line.text)) {
        order_ = Order{file.source, line.number};
      } else if (Common::isResourceEvent(line.text)) {
        intake_.events().fold(Common::parseResourceEvent(line.text), *file.source, line.number);
      } else {
        replay_->add(Common::parseIntent(line.text), line.text, file.source, line.number);
      }
    }
  } catch (const Common::InputError& error) {
    ++skipped_;
    say("{}:{}: {}{}", file.source->name(), line.number, error.what(),
        unfinished ? " (the line has no end: has all of the file been written?)" : "");
  }
}

void FileReader::endFile(File& file) {
  if (const auto line = file.lines.last()) {
    takeLine(file, *line, true);
  }
  file.descriptor.reset();
  ++current_;
}

}  // namespace Agent
