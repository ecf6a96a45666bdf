#include "agent/Peer.h"

#include <fmt/format.h>

#include <asio/buffer.hpp>
#include <asio/error.hpp>
#include <asio/post.hpp>
#include <utility>

#include "agent/Say.h"
#include "common/Intent.h"

namespace Agent {
namespace {

constexpr unsigned kLinesAtATurn = 256;

}  // namespace

Peer::Peer(Socket socket, std::string name, Intake& intake, KeptIntents& kept,
           std::function<void(Peer&)> gone)
    : Source(std::move(name)),
      socket_(std::move(socket)),
      intake_(intake),
      kept_(kept),
      gone_(std::move(gone)),
      lastWrite_(Clock::now()) {
  socket_.non_blocking(true);
}

bool Peer::mayTakeMore() const noexcept {
  return intake_.hasRoom() && inFlight() < kMostInFlight &&
         waiting_.size() + writing_.size() < kMostWaiting;
}

void Peer::read() {
  socket_.async_read_some(
      asio::buffer(chunk_),
      [self = shared_from_this()](const asio::error_code& error, std::size_t count) {
        self->handleRead(error, count);
      });
}

void Peer::handleRead(const asio::error_code& error, std::size_t count) {
  if (!socket_.is_open()) {
    return;
  }
  if (!error) {
    lines_.append(std::string_view(chunk_.data(), count));
    takeLines();
    return;
  }
  if (error != asio::error::eof) {
    drop(error.message());
    return;
  }
  // The peer sends no more, and may still wait for outcomes.
  inputEnded_ = true;
  if (const auto line = lines_.last()) {
    say("{}:{}: the peer has ended in the middle of a line: the line is left out", name(),
        line->number);
    answerError(line->number, "the line has no end: send one, the line is left out");
  }
  maybeEnd();
}

void Peer::resume() {
  if (paused_ && !turnPosted_ && mayTakeMore()) {
    // At a turn of its own: the caller may be in the middle of telling outcomes.
    turnPosted_ = true;
    asio::post(socket_.get_executor(), [self = shared_from_this()] {
      self->turnPosted_ = false;
      if (self->socket_.is_open()) {
        self->paused_ = false;
        self->takeLines();
      }
    });
  }
}

void Peer::takeLines() {
  for (unsigned lines = 0; socket_.is_open(); ++lines) {
    if (!mayTakeMore() || lines == kLinesAtATurn) {
      paused_ = true;
      resume();
      return;
    }
    const auto line = lines_.next();
    if (!line) {
      read();
      return;
    }
    takeLine(*line);
  }
}

void Peer::takeLine(const LineBuffer::Line& line) {
  try {
    if (line.tooLong) {
      answerError(line.number,
                  fmt::format("the line is longer than {} bytes: send one intent on a line",
                              LineBuffer::kLongestLine));
      drop(fmt::format("line {} is longer than {} bytes", line.number, LineBuffer::kLongestLine));
      return;
    }
    if (!Common::isBlankOrComment(line.text)) {
      intake_.takeLine(line.text, shared_from_this(), line.number);
    }
    wrongLines_ = 0;
  } catch (const Common::InputError& error) {
    answerError(line.number, error.what());
    if (++wrongLines_ == kMostWrongLines) {
      drop(fmt::format("{} lines in a row are wrong, the last is line {}: {}", wrongLines_,
                       line.number, error.what()));
    }
  }
}

void Peer::answerError(std::uint64_t line, std::string_view text) {
  std::string answer = fmt::format(R"({{"source":{},"line":{},"error":)", quotedName(), line);
  Common::appendString(answer, text);
  answer += "}\n";
  outcomeIs(answer);
}

void Peer::outcomeIs(std::string_view line) {
  if (!socket_.is_open()) {
    return;
  }
  waiting_ += line;
  if (writing_.empty()) {
    lastWrite_ = Clock::now();
    // Not yet: more outcomes of the same report are about to come.
    writing_.swap(waiting_);
    asio::post(socket_.get_executor(), [self = shared_from_this()] {
      self->writing_ += std::exchange(self->waiting_, std::string());
      self->write();
    });
  }
}

void Peer::write() {
  if (!socket_.is_open()) {
    return;
  }
  held_ = !kept_.flush();
  if (held_) {
    return;
  }
  // At once, not as an operation that goes on: what was written is known whenever the peer is
  // dropped.
  asio::error_code error;
  const std::size_t count = socket_.write_some(
      asio::buffer(writing_.data() + written_, writing_.size() - written_), error);
  if (error && error != asio::error::would_block) {
    drop(error.message());
    return;
  }
  if (count != 0) {
    lastWrite_ = Clock::now();
    written_ += count;
  }
  if (written_ == writing_.size()) {
    written_ = 0;
    writing_ = std::exchange(waiting_, std::string());
  }
  if (!writing_.empty()) {
    socket_.async_wait(Socket::wait_write,
                       [self = shared_from_this()](const asio::error_code& failed) {
                         if (!failed) {
                           self->write();
                         }
                       });
  }
  resume();
  maybeEnd();
}

void Peer::maybeEnd() {
  if (inputEnded_ && inFlight() == 0 && writing_.empty() && waiting_.empty()) {
    close();
  }
}

void Peer::checkAlive(Clock::time_point now, std::chrono::milliseconds timeout) {
  if (held_) {
    lastWrite_ = now;
    write();
  }
  if (!writing_.empty() && now - lastWrite_ > timeout) {
    drop(fmt::format("it has taken no outcome for {} s",
                     std::chrono::duration<double>(timeout).count()));
  }
}

void Peer::drop(std::string_view why) {
  if (!socket_.is_open()) {
    return;
  }
  say("{} is dropped: {}; its intents go on", name(), why);
  close();
}

void Peer::close() {
  if (socket_.is_open()) {
    const auto self = shared_from_this();
    asio::error_code ignored;
    // What it has not taken yet, as far as that goes without waiting.
    if (kept_.flush()) {
      const std::string rest = writing_.substr(written_) + waiting_;
      (void)socket_.write_some(asio::buffer(rest), ignored);
    }
    socket_.close(ignored);
    waiting_.clear();
    gone_(*this);
  }
}

}  // namespace Agent
