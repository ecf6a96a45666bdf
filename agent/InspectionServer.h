#pragma once

#include <sys/types.h>

#include <array>
#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <set>
#include <string>

#include "agent/InspectionLimits.h"
#include "agent/InspectionMethods.h"
#include "agent/InspectionPace.h"
#include "agent/InspectionPeer.h"
#include "agent/ListeningSocket.h"

namespace Agent {

// Listens on the Unix socket through which objects are inspected, for at most kMostPeers peers at a
// time, of which kKeptPeers are kept for those that may change something. Peers work in turn, in
// slices of kSlice, as InspectionPace lets them.
class InspectionServer {
 public:
  using Clock = std::chrono::steady_clock;

  static constexpr std::size_t kMostPeers = 64;
  static constexpr std::size_t kKeptPeers = 8;
  static constexpr std::chrono::microseconds kSlice{500};

  struct Totals {
    std::uint64_t peers = 0;  // that were served
    std::uint64_t requests = 0;
    Clock::duration worked{};  // in all slices
  };

  // `isBusy` tells whether the agent has work of its own to do. Throws as ListeningSocket.
  InspectionServer(asio::io_context& loop, const std::string& path, mode_t mode,
                   const InspectionContext& context, std::function<bool()> isBusy);
  // Closes all peers, and lets go of all that they hold.
  ~InspectionServer();
  InspectionServer(const InspectionServer&) = delete;
  InspectionServer& operator=(const InspectionServer&) = delete;

  void start();
  // To be called now and then. Drops the peers that have taken no output since `timeout`, and ends
  // what peers hold of objects that nobody else has.
  void checkPeers(std::chrono::milliseconds timeout);

  [[nodiscard]] std::size_t peers() const noexcept { return peers_.size(); }
  [[nodiscard]] const Totals& totals() const noexcept { return totals_; }

  // For peers. One has something to do:
  void wake(InspectionPeer& peer);
  // Work of inspection that was done in the middle of something else.
  void charge(Clock::duration time);
  void gone(InspectionPeer& peer);
  [[nodiscard]] InspectionLimits& limits() noexcept { return limits_; }
  [[nodiscard]] const InspectionContext& context() const noexcept { return context_; }
  [[nodiscard]] Totals& totals() noexcept { return totals_; }
  // What input is read into.
  [[nodiscard]] std::array<char, 1 << 16>& chunk() noexcept { return chunk_; }

 private:
  void welcome(InspectionPeer::Socket socket);
  void schedule();
  void turn();

  asio::io_context& loop_;
  InspectionContext context_;
  std::function<bool()> isBusy_;
  InspectionLimits limits_;
  std::set<std::shared_ptr<InspectionPeer>> peers_;
  std::deque<std::shared_ptr<InspectionPeer>> ready_;  // in the order of their turns
  asio::steady_timer pause_;
  InspectionPace pace_;
  bool scheduled_ = false;  // also during a turn
  bool working_ = false;
  std::uint64_t nextPeer_ = 1;
  std::uint64_t turnedAway_ = 0;  // that nothing was said of
  Clock::time_point nextSaid_{};
  Totals totals_;
  std::array<char, 1 << 16> chunk_{};
  ListeningSocket listening_;
};

}  // namespace Agent
