#pragma once

#include <asio/io_context.hpp>
#include <chrono>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <utility>

#include "agent/Intake.h"
#include "agent/ListeningSocket.h"
#include "agent/Peer.h"

namespace Agent {

// Listens on a Unix socket, for at most kMostPeers peers at a time.
class SocketServer {
 public:
  static constexpr std::size_t kMostPeers = 64;

  // Throws as ListeningSocket.
  SocketServer(asio::io_context& loop, const std::string& path, Intake& intake, KeptIntents& kept);
  // Closes all.
  ~SocketServer();
  SocketServer(const SocketServer&) = delete;
  SocketServer& operator=(const SocketServer&) = delete;

  void start() {
    listening_.start(
        [this](ListeningSocket::Protocol::socket socket) { welcome(std::move(socket)); });
  }
  // The intake has room again.
  void resume();
  // To be called now and then. Drops the peers that have taken no output since `timeout`.
  void checkPeers(std::chrono::milliseconds timeout);
  [[nodiscard]] std::size_t peers() const noexcept { return peers_.size(); }

 private:
  void welcome(ListeningSocket::Protocol::socket socket);

  Intake& intake_;
  KeptIntents& kept_;
  std::set<std::shared_ptr<Peer>> peers_;
  std::uint64_t nextPeer_ = 1;
  ListeningSocket listening_;
};

}  // namespace Agent
