#pragma once

#include <asio/local/stream_protocol.hpp>
#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "agent/InspectionMethods.h"
#include "agent/InspectionSession.h"
#include "agent/LineBuffer.h"
#include "common/JsonRpc.h"

namespace Agent {

class InspectionServer;

// One peer of the inspection socket: requests in, and responses and notifications out. It does
// nothing by itself but to tell the server that there is something to do; the server has it work
// when it is its turn. What a peer can make the process hold is bounded: while too much output
// waits for it, nothing more is read from it and none of its requests is worked on.
class InspectionPeer final : public std::enable_shared_from_this<InspectionPeer> {
 public:
  using Socket = asio::local::stream_protocol::socket;
  using Clock = std::chrono::steady_clock;

  static constexpr std::size_t kLongestLine = 1 << 20;
  static constexpr std::size_t kLongestLineOfOthers = 1 << 16;  // who may not change anything
  static constexpr std::size_t kMostWaiting = 1 << 18;   // bytes of output, before work stops
  static constexpr std::size_t kLongestBatch = 1 << 21;  // bytes of the answer

  // `name` is what messages call it.
  InspectionPeer(Socket socket, std::string name, bool mayChange, InspectionServer& server);

  void start() { waitForInput(); }
  // Whether work() would do anything.
  [[nodiscard]] bool hasWork() const;
  // One small piece of work: some input, a request or a part of one, some output.
  void work();
  // Drops the peer if it has taken no output since `timeout`.
  void checkAlive(Clock::time_point now, std::chrono::milliseconds timeout);
  // Lets go of all that it holds.
  void close();

  [[nodiscard]] InspectionSession& session() noexcept { return session_; }
  // Whether it stands in the server's queue.
  [[nodiscard]] bool isQueued() const noexcept { return queued_; }
  void queuedIs(bool queued) noexcept { queued_ = queued; }

 private:
  [[nodiscard]] bool mayAnswer() const noexcept { return out_.size() < kMostWaiting; }
  void waitForInput();
  void waitForOutput();
  void wake();
  void readSome();
  [[nodiscard]] bool takeLine();
  void answer();
  // Gives whether the response of the request is whole.
  bool answerRequest(const Common::JsonRpc::Request& request);
  void startRequest(const Common::JsonRpc::Request& request);
  void failRequest(const Common::JsonRpc::Request& request);
  void tellChanges();
  void write();
  void drop(std::string_view why);

  Socket socket_;
  std::string name_;
  InspectionServer& server_;
  InspectionSession session_;
  std::size_t longestLine_;
  LineBuffer lines_{longestLine_};
  Common::JsonRpc::Line line_;  // that is being answered
  std::size_t at_ = 0;          // of its requests
  InspectionCall::More more_;   // of the request that is being answered
  std::string answer_;          // of the line
  std::size_t before_ = 0;      // of answer_, without the response that is being made
  std::string out_;
  Clock::time_point lastWrite_;
  bool readable_ = false;
  bool linesLeft_ = false;  // there may be whole lines
  bool inputEnded_ = false;
  bool waitsForOutput_ = false;
  bool ends_ = false;  // once all output is written
  bool queued_ = false;
};

}  // namespace Agent
