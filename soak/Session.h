#pragma once

#include <asio/io_context.hpp>
#include <asio/local/stream_protocol.hpp>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace Soak {

// A feature's end of the agent's socket. Nothing here blocks for longer than it is told to.
class Session {
 public:
  // Null if nobody listens there (yet).
  [[nodiscard]] static std::unique_ptr<Session> connect(const std::string& path);

  // In touch with nobody; connect() makes those that are.
  Session() : socket_(loop_) {}
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // Adds a line to what goes out, and gives its number: 1 for the first.
  std::uint64_t send(std::string_view line);
  [[nodiscard]] std::size_t unsent() const noexcept { return out_.size() - written_; }

  // Writes what goes out, and calls `take` for each line that has come in; waits at most `most` for
  // something to happen. False once the agent's end is closed, and all that came from there is
  // taken.
  [[nodiscard]] bool turn(std::chrono::milliseconds most,
                          const std::function<void(std::string_view)>& take);

 private:
  using Protocol = asio::local::stream_protocol;

  asio::io_context loop_;
  Protocol::socket socket_;
  std::uint64_t lines_ = 0;
  std::string out_;
  std::size_t written_ = 0;  // of out_
  std::string in_;           // a line that has not ended yet
};

}  // namespace Soak
