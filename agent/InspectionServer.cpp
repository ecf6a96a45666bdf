#include "agent/InspectionServer.h"

#include <fmt/format.h>
#include <sys/socket.h>
#include <unistd.h>

#include <asio/buffer.hpp>
#include <asio/post.hpp>
#include <utility>
#include <vector>

#include "agent/InspectionError.h"
#include "agent/Say.h"
#include "common/JsonRpc.h"

namespace Agent {
namespace {

// Whether the process at the other end was started by the agent's own user, or by root.
bool mayChange(InspectionPeer::Socket& socket) {
  ucred peer{};
  socklen_t size = sizeof(peer);
  return getsockopt(socket.native_handle(), SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 &&
         (peer.uid == geteuid() || peer.uid == 0);
}

}  // namespace

InspectionServer::InspectionServer(asio::io_context& loop, const std::string& path, mode_t mode,
                                   const InspectionContext& context, std::function<bool()> isBusy)
    : loop_(loop),
      context_(context),
      isBusy_(std::move(isBusy)),
      pause_(loop),
      next_(Clock::now()),
      listening_(loop, path, mode, "--inspect") {}

InspectionServer::~InspectionServer() {
  ready_.clear();
  for (const auto& peer : std::vector(peers_.begin(), peers_.end())) {
    peer->close();
  }
}

void InspectionServer::start() {
  listening_.start([this](InspectionPeer::Socket socket) { welcome(std::move(socket)); });
}

void InspectionServer::welcome(InspectionPeer::Socket socket) {
  const std::string name = fmt::format("inspect:{}", nextPeer_++);
  if (peers_.size() == kMostPeers) {
    say("{} is turned away: {} peers are served already", name, kMostPeers);
    std::string text;
    Common::JsonRpc::appendError(text, "null", kLimitReached, "too many peers: try again later");
    text += '\n';
    asio::error_code ignored;
    (void)socket.write_some(asio::buffer(text), ignored);
    return;
  }
  const bool change = mayChange(socket);
  const auto peer = std::make_shared<InspectionPeer>(std::move(socket), name, change, *this);
  peers_.insert(peer);
  ++totals_.peers;
  peer->start();
}

void InspectionServer::gone(InspectionPeer& peer) { peers_.erase(peer.shared_from_this()); }

void InspectionServer::wake(InspectionPeer& peer) {
  if (!peer.isQueued()) {
    peer.queuedIs(true);
    ready_.push_back(peer.shared_from_this());
    schedule();
  }
}

void InspectionServer::schedule() {
  if (scheduled_ || ready_.empty()) {
    return;
  }
  scheduled_ = true;
  if (next_ <= Clock::now()) {
    asio::post(loop_, [this] { turn(); });
    return;
  }
  pause_.expires_at(next_);
  pause_.async_wait([this](const asio::error_code& error) {
    if (!error) {
      turn();
    }
  });
}

void InspectionServer::turn() {
  scheduled_ = false;
  const auto start = Clock::now();
  auto now = start;
  while (!ready_.empty() && now - start < kSlice) {
    const auto peer = std::move(ready_.front());
    ready_.pop_front();
    peer->queuedIs(false);
    peer->work();
    if (peer->hasWork() && !peer->isQueued()) {
      peer->queuedIs(true);
      ready_.push_back(peer);
    }
    now = Clock::now();
  }
  totals_.worked += now - start;
  next_ = isBusy_() ? now + kPause * (now - start) : now;
  schedule();
}

void InspectionServer::checkPeers(std::chrono::milliseconds timeout) {
  listening_.check();
  const auto now = Clock::now();
  for (const auto& peer : std::vector(peers_.begin(), peers_.end())) {
    peer->checkAlive(now, timeout);
  }
}

}  // namespace Agent
