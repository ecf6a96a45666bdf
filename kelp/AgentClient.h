#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kelp/Session.h"

namespace Kelp {

// Keeps the order in which an agent tells things.
using Json = nlohmann::ordered_json;

// An agent has answered with an error; the text is the agent's.
class AgentError : public CommandError {
 public:
  AgentError(Exit status, int code, const std::string& text)
      : CommandError(status, text), code_(code) {}
  // As docs/inspection.md lists them.
  [[nodiscard]] int code() const noexcept { return code_; }

 private:
  int code_;
};

// The inspection socket of a running agent: one request at a time, and the notifications that come
// in between. Every function throws CommandError when the agent is not there, goes away, or takes
// longer than the patience.
class AgentClient {
 public:
  static constexpr std::chrono::milliseconds kPatience{30000};

  explicit AgentClient(std::string path, std::chrono::milliseconds patience = kPatience);
  ~AgentClient();
  AgentClient(const AgentClient&) = delete;
  AgentClient& operator=(const AgentClient&) = delete;

  // The result of a method. Throws AgentError if it is an error.
  [[nodiscard]] Json call(std::string_view method, const Json& params = Json::object());
  // The result of each of up to 64 calls of one method, in their order; null where it was an error.
  [[nodiscard]] std::vector<Json> callEach(std::string_view method,
                                           const std::vector<Json>& params);

  // Readable when something comes.
  [[nodiscard]] int fd() const noexcept { return fd_; }
  struct Notification {
    std::string method;
    Json params;
  };
  // The next notification; nothing if none has come whole. Does not wait.
  [[nodiscard]] std::optional<Notification> notification();

  [[nodiscard]] const std::string& path() const noexcept { return path_; }

 private:
  using Clock = std::chrono::steady_clock;

  void connect();
  void send(const std::string& line);
  // The next line that is no notification.
  [[nodiscard]] Json response();
  // Takes in what has come; false if nothing did until `end`.
  [[nodiscard]] bool receive(Clock::time_point end);
  [[nodiscard]] std::optional<std::string> takeLine();
  void keep(Json json);
  [[nodiscard]] Json parse(const std::string& line) const;
  void wait(short events) const;
  [[noreturn]] void fail(std::string_view what) const;

  std::string path_;
  std::chrono::milliseconds patience_;
  int fd_ = -1;
  std::string received_;
  std::size_t searched_ = 0;  // of received_, for the end of a line
  std::deque<Notification> notifications_;
  std::uint64_t lastId_ = 0;
};

// Where the agent of a store listens: `asked` unless it is empty, else $KELP_INSPECT, else
// inspect.sock in the store's folder.
[[nodiscard]] std::string inspectPath(const Options& options);

}  // namespace Kelp
