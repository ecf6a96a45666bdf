#include "agent/SocketServer.h"

#include <fmt/format.h>

#include <asio/buffer.hpp>
#include <utility>
#include <vector>

#include "agent/Say.h"

namespace Agent {

SocketServer::SocketServer(asio::io_context& loop, const std::string& path, Intake& intake,
                           KeptIntents& kept)
    : intake_(intake), kept_(kept), listening_(loop, path, 0660, "--socket") {}

SocketServer::~SocketServer() {
  for (const auto& peer : std::vector(peers_.begin(), peers_.end())) {
    peer->close();
  }
}

void SocketServer::welcome(ListeningSocket::Protocol::socket socket) {
  const std::string name = fmt::format("socket:{}", nextPeer_++);
  if (peers_.size() == kMostPeers) {
    say("{} is turned away: {} peers are served already", name, kMostPeers);
    asio::error_code ignored;
    (void)socket.write_some(
        asio::buffer(std::string(R"({"error":"too many peers: try again later"})") + "\n"),
        ignored);
    return;
  }
  const auto peer =
      std::make_shared<Peer>(std::move(socket), name, intake_, kept_, [this](Peer& gone) {
        peers_.erase(std::static_pointer_cast<Peer>(gone.shared_from_this()));
      });
  peers_.insert(peer);
  peer->start();
}

void SocketServer::resume() {
  for (const auto& peer : peers_) {
    peer->resume();
  }
}

void SocketServer::checkPeers(std::chrono::milliseconds timeout) {
  listening_.check();
  const auto now = Peer::Clock::now();
  for (const auto& peer : std::vector(peers_.begin(), peers_.end())) {
    peer->checkAlive(now, timeout);
  }
}

}  // namespace Agent
