#include "kelp/AgentClient.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "common/InspectionPath.h"
#include "common/Json.h"
#include "kelp/PlainJson.h"

namespace Kelp {
namespace {

constexpr std::size_t kLongestLine = std::size_t{64} << 20;

// What kelp ends with for an error of the agent.
Exit statusOf(int code) { return code == 1 || code == -32602 || code == -32601 ? kUsage : kFailed; }

[[noreturn]] void failWith(const Json& error) {
  const int code = error.value("code", 0);
  throw AgentError(statusOf(code), code,
                   Common::InputError(error.value("message", "an error without a text")).what());
}

}  // namespace

std::string inspectPath(const Options& options) {
  if (!options.inspect.empty()) {
    return options.inspect;
  }
  const char* const environment = std::getenv("KELP_INSPECT");
  return environment != nullptr && *environment != '\0'
             ? std::string(environment)
             : Common::inspectionPath(options.root, options.name);
}

AgentClient::AgentClient(std::string path, std::chrono::milliseconds patience)
    : path_(std::move(path)), patience_(patience) {
  fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd_ < 0) {
    fail(std::strerror(errno));
  }
  try {
    connect();
  } catch (...) {
    ::close(fd_);
    throw;
  }
}

AgentClient::~AgentClient() { ::close(fd_); }

void AgentClient::fail(std::string_view what) const {
  throw CommandError(kFailed, fmt::format("{}: {}", path_, what));
}

void AgentClient::connect() {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path_.size() >= sizeof(address.sun_path)) {
    fail(fmt::format("the path of a socket has at most {} bytes: name a shorter one with --inspect",
                     sizeof(address.sun_path) - 1));
  }
  std::memcpy(address.sun_path, path_.c_str(), path_.size() + 1);
  while (::connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    if (errno == EAGAIN || errno == EINTR) {
      // Too many are connecting at this moment.
      ::usleep(1000);
      continue;
    }
    if (errno == EACCES) {
      fail(
          "this user may not open the socket: ask as the agent's own user, or start the agent "
          "with another --inspect-mode");
    }
    fail(
        fmt::format("no agent listens there ({}): start kelp-agent with --inspect, or name its "
                    "socket with --inspect PATH or $KELP_INSPECT",
                    std::strerror(errno)));
  }
}

void AgentClient::wait(short events) const {
  pollfd waits{fd_, events, 0};
  int ready = 0;
  while ((ready = ::poll(&waits, 1, static_cast<int>(patience_.count()))) < 0 && errno == EINTR) {
  }
  if (ready == 0) {
    fail(fmt::format("the agent has not answered for {} s: is it stopped, or very busy?",
                     std::chrono::duration<double>(patience_).count()));
  }
}

void AgentClient::send(const std::string& line) {
  std::string_view rest = line;
  while (!rest.empty()) {
    const ssize_t sent = ::send(fd_, rest.data(), rest.size(), MSG_NOSIGNAL);
    if (sent > 0) {
      rest.remove_prefix(static_cast<std::size_t>(sent));
    } else if (errno == EAGAIN) {
      wait(POLLOUT);
    } else if (errno != EINTR) {
      fail("the agent has closed the connection");
    }
  }
}

bool AgentClient::receive(Clock::time_point end) {
  while (true) {
    char chunk[1 << 16];
    const ssize_t count = ::recv(fd_, chunk, sizeof(chunk), 0);
    if (count > 0) {
      received_.append(chunk, static_cast<std::size_t>(count));
      if (received_.size() > kLongestLine) {
        fail("the agent answers without an end");
      }
      return true;
    }
    if (count == 0 || (errno != EAGAIN && errno != EINTR)) {
      fail("the agent has closed the connection");
    }
    if (errno == EAGAIN) {
      if (Clock::now() >= end) {
        return false;
      }
      wait(POLLIN);
    }
  }
}

std::optional<std::string> AgentClient::takeLine() {
  const std::size_t end = received_.find('\n', searched_);
  if (end == std::string::npos) {
    searched_ = received_.size();
    return std::nullopt;
  }
  std::string line = received_.substr(0, end);
  received_.erase(0, end + 1);
  searched_ = 0;
  return line;
}

Json AgentClient::parse(const std::string& line) const {
  Json json = Json::parse(line, nullptr, false);
  if (json.is_discarded()) {
    fail("what answers there is no agent: its answer is no JSON");
  }
  return json;
}

Json AgentClient::response() {
  while (true) {
    while (const auto line = takeLine()) {
      Json json = parse(*line);
      if (!json.is_object() || !json.contains("method")) {
        return json;
      }
      keep(std::move(json));
    }
    (void)receive(Clock::time_point::max());
  }
}

void AgentClient::keep(Json json) {
  if (!json.is_object() || !json.contains("params")) {
    fail("what answers there is no agent: its notification has no params");
  }
  notifications_.push_back({plainText(json["method"]), std::move(json["params"])});
}

std::optional<AgentClient::Notification> AgentClient::notification() {
  while (true) {
    while (const auto line = takeLine()) {
      keep(parse(*line));
    }
    if (!notifications_.empty()) {
      Notification next = std::move(notifications_.front());
      notifications_.pop_front();
      return next;
    }
    if (!receive(Clock::time_point::min())) {
      return std::nullopt;
    }
  }
}

Json AgentClient::call(std::string_view method, const Json& params) {
  send(Json{{"jsonrpc", "2.0"}, {"id", ++lastId_}, {"method", method}, {"params", params}}.dump(
           -1, ' ', false, Json::error_handler_t::replace) +
       "\n");
  Json answer = response();
  if (!answer.is_object() || (!answer.contains("result") && !answer.contains("error"))) {
    fail("what answers there is no agent: its answer is no response");
  }
  if (answer.contains("error")) {
    failWith(answer["error"]);
  }
  return std::move(answer["result"]);
}

std::vector<Json> AgentClient::callEach(std::string_view method, const std::vector<Json>& params) {
  if (params.empty()) {
    return {};
  }
  Json batch = Json::array();
  for (std::size_t i = 0; i < params.size(); ++i) {
    batch.push_back({{"jsonrpc", "2.0"}, {"id", i}, {"method", method}, {"params", params[i]}});
  }
  send(batch.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n");
  const Json answer = response();
  if (!answer.is_array()) {
    fail("what answers there is no agent: its answer is no batch");
  }
  std::vector<Json> results(params.size());
  for (const Json& one : answer) {
    const std::size_t id = one.value("id", params.size());
    if (id < results.size() && one.contains("result")) {
      results[id] = one["result"];
    }
  }
  return results;
}

}  // namespace Kelp
