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

constexpr std::chrono::seconds kSaidEvery{10};

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
  const bool change = mayChange(socket);
  if (peers_.size() >= (change ? kMostPeers : kMostPeers - kKeptPeers)) {
    ++turnedAway_;
    std::string text;
    Common::JsonRpc::appendError(text, "null", kLimitReached, "too many peers: try again later");
    text += '\n';
    asio::error_code ignored;
    (void)socket.write_some(asio::buffer(text), ignored);
    return;
  }
  const std::string name = fmt::format("inspect:{}", nextPeer_++);
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

// What a turn does is charged as a whole.
void InspectionServer::charge(Clock::duration time) {
  if (!working_) {
    totals_.worked += time;
    pace_.worked(Clock::now(), time, true);
  }
}

void InspectionServer::schedule() {
  if (scheduled_ || ready_.empty()) {
    return;
  }
  scheduled_ = true;
  if (pace_.next() <= Clock::now()) {
    asio::post(loop_, [this] { turn(); });
    return;
  }
  pause_.expires_at(pace_.next());
  pause_.async_wait([this](const asio::error_code& error) {
    if (!error) {
      turn();
    }
  });
}

void InspectionServer::turn() {
  working_ = true;
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
  pace_.worked(now, now - start, isBusy_());
  working_ = false;
  scheduled_ = false;
  schedule();
}

void InspectionServer::checkPeers(std::chrono::milliseconds timeout) {
  listening_.check();
  const auto now = Clock::now();
  for (const auto& peer : std::vector(peers_.begin(), peers_.end())) {
    peer->checkAlive(now, timeout);
  }
  InspectionSession::Uses uses;
  for (const auto& peer : peers_) {
    peer->session().addUses(uses);
  }
  if (!uses.empty()) {
    for (const auto& peer : peers_) {
      peer->session().endOrphans(uses);
    }
  }
  if (turnedAway_ != 0 && now >= nextSaid_) {
    say("inspection: {} peers were turned away: {} are served already",
        std::exchange(turnedAway_, 0), peers_.size());
    nextSaid_ = now + kSaidEvery;
  }
}

}  // namespace Agent
