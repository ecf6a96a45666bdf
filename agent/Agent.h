#pragma once

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/signal_set.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "BriskTrace/TraceHandle.h"
#include "agent/FileReader.h"
#include "agent/InspectionServer.h"
#include "agent/Intake.h"
#include "agent/KeptIntents.h"
#include "agent/Options.h"
#include "agent/OutcomeWriter.h"
#include "agent/Restart.h"
#include "agent/SocketServer.h"
#include "agent/StatsReport.h"
#include "agent/Store.h"
#include "agent/VersionHistory.h"

namespace Agent {

// The agent: one thread, one loop. Intents come in from files and peers of the socket, in bounded
// portions; the resolver asks for a pass when one is worth running, and gets it at the next turn;
// the hardware side rings when it has something to report. What a pass published is told to the
// hardware side by its bell.
class Agent {
 public:
  // Opens everything. Throws an exception that names what can't be opened and the remedy.
  explicit Agent(const Options& options);
  ~Agent();
  Agent(const Agent&) = delete;
  Agent& operator=(const Agent&) = delete;

  // Runs until it is done, if it is to end then, or until a signal; gives the exit status.
  [[nodiscard]] int run();

 private:
  using Clock = std::chrono::steady_clock;

  void waitForSignal();
  void waitForBell();
  void waitForTick();
  void handleBell();
  void handleTick();
  void askAgain(Clock::time_point now);
  void runPass();
  void lookAtStatus();
  void afterNews();
  void writeAgain();
  void foldKept(Replay& replay);
  void replayed();
  void filesEnded();
  void settleOrders();
  void orderCompleteReplay(const std::shared_ptr<Source>& source, std::uint64_t line);
  [[nodiscard]] bool completeReplay();
  void endIfDone();
  void giveUpIfStuck(Clock::time_point now);
  void giveUp();
  [[nodiscard]] bool isBusy();
  [[nodiscard]] LoopFigures figures() const;
  void waitForReader();
  void tellProgress(bool last);
  void tellSummary();
  [[nodiscard]] int exitStatus() const;

  const Options& options_;
  asio::io_context loop_{1};
  asio::signal_set signals_;  // first: a signal that comes during the start is heard after it
  std::unique_ptr<BriskTrace::TraceHandle> brisk_;
  Store store_;
  OutcomeWriter outcomes_;
  std::optional<KeptIntents> kept_;
  std::optional<Intake> intake_;
  std::optional<Restart> restart_;
  std::optional<FileReader> files_;
  std::optional<SocketServer> socket_;
  std::optional<VersionHistory> history_;
  std::optional<InspectionServer> inspection_;
  asio::posix::stream_descriptor bell_;
  asio::steady_timer tick_;
  Clock::time_point lastMove_;  // when an intent came or ended, or the hardware side went on
  Clock::time_point started_ = Clock::now();
  std::uint64_t passes_ = 0;
  std::uint64_t moves_ = 0;
  std::uint64_t steps_ = 0;  // passes and reports
  std::uint64_t busyMoves_ = 0;
  Clock::time_point lastBusy_;  // when there was something to do
  Clock::time_point lastTold_;
  Clock::time_point lastAsked_;
  std::string told_;
  // Who asked for the end of the replay while a file was still being read.
  std::vector<FileReader::Order> ordersWaiting_;
  bool replayed_ = false;
  bool filesEnded_ = false;  // and what that means for the replay is done
  bool failedOtherwise_ = false;
  bool gaveUp_ = false;
  bool stopped_ = false;  // by a signal
};

}  // namespace Agent
