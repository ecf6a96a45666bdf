#pragma once

#include <sys/types.h>

#include <asio/io_context.hpp>
#include <asio/local/stream_protocol.hpp>
#include <functional>
#include <string>
#include <string_view>

namespace Agent {

// A Unix socket that the process listens on, from its making to its end, and the peers that come.
class ListeningSocket {
 public:
  using Protocol = asio::local::stream_protocol;
  using Welcome = std::function<void(Protocol::socket)>;

  // Takes the place of a socket that nobody listens on any more; its file gets `mode`. `option` is
  // what named the path. Throws std::runtime_error that names the path: somebody listens there, or
  // what stands there is no socket.
  ListeningSocket(asio::io_context& loop, const std::string& path, mode_t mode,
                  std::string_view option);
  // Removes the socket's file.
  ~ListeningSocket();
  ListeningSocket(const ListeningSocket&) = delete;
  ListeningSocket& operator=(const ListeningSocket&) = delete;

  // From now on `welcome` is called for each peer.
  void start(Welcome welcome);
  // To be called now and then: takes up again what a lack of descriptors has stopped.
  void check();

 private:
  void accept();

  std::string path_;
  Protocol::acceptor acceptor_;
  Welcome welcome_;
  bool accepting_ = false;
};

}  // namespace Agent
