#pragma once

#include <array>
#include <asio/io_context.hpp>
#include <asio/local/stream_protocol.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "agent/Intake.h"
#include "agent/LineBuffer.h"
#include "agent/Source.h"

namespace Agent {

// One peer of the socket: intents in, and for each line an outcome or an error out. What a peer can
// make the process hold is bounded: it is not read from while too many of its intents are in flight
// or too much output waits for it. It is dropped, with a message on stderr, when it sends nothing
// that makes sense, takes no output for too long, or goes away in the middle of a line.
class Peer final : public Source, public std::enable_shared_from_this<Peer> {
 public:
  using Socket = asio::local::stream_protocol::socket;
  using Clock = std::chrono::steady_clock;

  static constexpr std::size_t kMostInFlight = 4096;
  static constexpr std::size_t kMostWaiting = 1 << 18;  // bytes of output, before reading stops
  static constexpr unsigned kMostWrongLines = 20;       // in a row

  // `gone` is called once the socket is closed.
  Peer(Socket socket, std::string name, Intake& intake, KeptIntents& kept,
       std::function<void(Peer&)> gone);

  void start() { read(); }
  // The intake has room again.
  void resume();
  // Drops the peer if it has taken no output since `timeout`.
  void checkAlive(Clock::time_point now, std::chrono::milliseconds timeout);
  void close();

  [[nodiscard]] bool isKept() const noexcept override { return true; }
  void outcomeIs(std::string_view line) override;

 private:
  [[nodiscard]] bool mayTakeMore() const noexcept;
  void read();
  void handleRead(const asio::error_code& error, std::size_t count);
  void takeLines();
  void takeLine(const LineBuffer::Line& line);
  void answerError(std::uint64_t line, std::string_view text);
  void write();
  void maybeEnd();
  void drop(std::string_view why);

  Socket socket_;
  Intake& intake_;
  KeptIntents& kept_;
  std::function<void(Peer&)> gone_;
  LineBuffer lines_;
  std::array<char, 1 << 14> chunk_{};
  std::string waiting_;  // output that is not being written yet
  std::string writing_;
  std::size_t written_ = 0;  // of writing_
  Clock::time_point lastWrite_;
  unsigned wrongLines_ = 0;
  bool paused_ = false;
  bool inputEnded_ = false;
  bool turnPosted_ = false;
  bool held_ = false;  // outcomes, until what they acknowledge is kept
};

}  // namespace Agent
