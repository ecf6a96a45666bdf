#include "soak/Session.h"

#include <poll.h>

#include <array>
#include <asio/buffer.hpp>
#include <asio/error.hpp>

namespace Soak {

std::unique_ptr<Session> Session::connect(const std::string& path) {
  auto session = std::make_unique<Session>();
  asio::error_code error;
  session->socket_.connect(Protocol::endpoint(path), error);
  if (error) {
    return nullptr;
  }
  session->socket_.non_blocking(true);
  return session;
}

std::uint64_t Session::send(std::string_view line) {
  if (written_ == out_.size()) {
    out_.clear();
    written_ = 0;
  }
  out_ += line;
  out_ += '\n';
  return ++lines_;
}

bool Session::turn(std::chrono::milliseconds most,
                   const std::function<void(std::string_view)>& take) {
  bool open = true;
  asio::error_code error;
  if (unsent() != 0) {
    written_ += socket_.write_some(asio::buffer(out_.data() + written_, unsent()), error);
    // What the agent said before it went is still to be read.
    open = !error || error == asio::error::would_block;
  }
  pollfd ready{socket_.native_handle(), POLLIN, 0};
  if (unsent() != 0 && open) {
    ready.events |= POLLOUT;
  }
  static_cast<void>(::poll(&ready, 1, open ? static_cast<int>(most.count()) : 0));
  std::array<char, 1 << 16> chunk;
  for (;;) {
    const std::size_t count = socket_.read_some(asio::buffer(chunk), error);
    if (error == asio::error::would_block) {
      return open;
    }
    if (error) {
      return false;
    }
    in_.append(chunk.data(), count);
    std::size_t from = 0;
    for (auto end = in_.find('\n'); end != std::string::npos; end = in_.find('\n', from)) {
      take(std::string_view(in_).substr(from, end - from));
      from = end + 1;
    }
    in_.erase(0, from);
  }
}

}  // namespace Soak
