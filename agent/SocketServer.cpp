#include "agent/SocketServer.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <asio/buffer.hpp>
#include <asio/error.hpp>
#include <stdexcept>
#include <utility>
#include <vector>

#include "agent/Say.h"

namespace Agent {
namespace {

[[noreturn]] void fail(const std::string& path, std::string_view why, std::string_view remedy) {
  throw std::runtime_error(fmt::format("{}: cannot listen: {}: {}", path, why, remedy));
}

asio::local::stream_protocol::endpoint endpointOf(const std::string& path) {
  try {
    return {path};
  } catch (const std::exception&) {
    fail(path, "the name is too long for a socket", "name a shorter one with --socket");
  }
}

// Removes the file that a process that died has left.
void removeStale(asio::io_context& loop, const std::string& path,
                 const asio::local::stream_protocol::endpoint& endpoint) {
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0) {
    return;
  }
  if (!S_ISSOCK(status.st_mode)) {
    fail(path, "what stands there is no socket", "remove it, or name another with --socket");
  }
  asio::local::stream_protocol::socket probe(loop);
  asio::error_code error;
  probe.connect(endpoint, error);
  if (error != asio::error::connection_refused) {
    fail(path, error ? error.message() : std::string("another process listens there"),
         "end it, or name another with --socket");
  }
  // Refused: there is a file, and nobody behind it.
  unlink(path.c_str());
}

}  // namespace

SocketServer::SocketServer(asio::io_context& loop, const std::string& path, Intake& intake,
                           KeptIntents& kept)
    : path_(path), intake_(intake), kept_(kept), acceptor_(loop) {
  const Protocol::endpoint endpoint = endpointOf(path);
  removeStale(loop, path, endpoint);
  try {
    acceptor_.open();
    acceptor_.bind(endpoint);
    chmod(path.c_str(), 0660);
    acceptor_.listen();
  } catch (const asio::system_error& error) {
    fail(path, error.code().message(), "name a place that can be written with --socket");
  }
}

SocketServer::~SocketServer() {
  for (const auto& peer : std::vector(peers_.begin(), peers_.end())) {
    peer->close();
  }
  unlink(path_.c_str());
}

void SocketServer::accept() {
  accepting_ = true;
  acceptor_.async_accept([this](const asio::error_code& error, Protocol::socket socket) {
    if (error == asio::error::operation_aborted) {
      return;
    }
    if (error) {
      // Out of descriptors, most likely: the next check tries again.
      say("{}: cannot take a peer: {}", path_, error.message());
      accepting_ = false;
      return;
    }
    welcome(std::move(socket));
    accept();
  });
}

void SocketServer::welcome(Protocol::socket socket) {
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
  if (started_ && !accepting_) {
    accept();
  }
  const auto now = Peer::Clock::now();
  for (const auto& peer : std::vector(peers_.begin(), peers_.end())) {
    peer->checkAlive(now, timeout);
  }
}

}  // namespace Agent
