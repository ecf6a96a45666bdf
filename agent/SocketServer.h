#pragma once

#include <asio/io_context.hpp>
#include <asio/local/stream_protocol.hpp>
#include <chrono>
#include <cstdint>
#include <memory>
#include <set>
#include <string>

#include "agent/Intake.h"
#include "agent/Peer.h"

namespace Agent {

// Listens on a Unix socket, for at most kMostPeers peers at a time.
class SocketServer {
 public:
  static constexpr std::size_t kMostPeers = 64;

  // Takes the place of a socket that nobody listens on any more. Throws std::runtime_error that
  // names the path: somebody listens there, or what stands there is no socket.
  SocketServer(asio::io_context& loop, const std::string& path, Intake& intake, KeptIntents& kept);
  // Closes all, and removes the socket's file.
  ~SocketServer();
  SocketServer(const SocketServer&) = delete;
  SocketServer& operator=(const SocketServer&) = delete;

  void start() {
    started_ = true;
    accept();
  }
  // The intake has room again.
  void resume();
  // To be called now and then. Drops the peers that have taken no output since `timeout`.
  void checkPeers(std::chrono::milliseconds timeout);

 private:
  using Protocol = asio::local::stream_protocol;

  void accept();
  void welcome(Protocol::socket socket);

  std::string path_;
  Intake& intake_;
  KeptIntents& kept_;
  Protocol::acceptor acceptor_;
  std::set<std::shared_ptr<Peer>> peers_;
  std::uint64_t nextPeer_ = 1;
  bool started_ = false;
  bool accepting_ = false;
};

}  // namespace Agent
