#include "agent/ListeningSocket.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <asio/error.hpp>
#include <stdexcept>
#include <utility>

#include "agent/Say.h"

namespace Agent {
namespace {

[[noreturn]] void fail(const std::string& path, std::string_view why, std::string_view remedy,
                       std::string_view option) {
  throw std::runtime_error(
      fmt::format("{}: cannot listen: {}: {} with {}", path, why, remedy, option));
}

asio::local::stream_protocol::endpoint endpointOf(const std::string& path,
                                                  std::string_view option) {
  try {
    return {path};
  } catch (const std::exception&) {
    fail(path, "the name is too long for a socket", "name a shorter one", option);
  }
}

// Removes the file that a process that died has left.
void removeStale(asio::io_context& loop, const std::string& path,
                 const asio::local::stream_protocol::endpoint& endpoint, std::string_view option) {
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0) {
    return;
  }
  if (!S_ISSOCK(status.st_mode)) {
    fail(path, "what stands there is no socket", "remove it, or name another", option);
  }
  asio::local::stream_protocol::socket probe(loop);
  asio::error_code error;
  probe.open();
  probe.non_blocking(true);
  probe.connect(endpoint, error);
  if (error != asio::error::connection_refused) {
    // Somebody listens there, too, who has no room for more.
    const bool listens =
        !error || error == asio::error::would_block || error == asio::error::no_buffer_space;
    fail(path, listens ? std::string("another process listens there") : error.message(),
         "end it, or name another", option);
  }
  // Refused: there is a file, and nobody behind it.
  unlink(path.c_str());
}

// What the process makes while this is there has no mode beyond `mode`.
class NarrowMode {
 public:
  explicit NarrowMode(mode_t mode) : before_(umask(0777 & ~mode)) {}
  ~NarrowMode() { umask(before_); }
  NarrowMode(const NarrowMode&) = delete;
  NarrowMode& operator=(const NarrowMode&) = delete;

 private:
  mode_t before_;
};

}  // namespace

ListeningSocket::ListeningSocket(asio::io_context& loop, const std::string& path, mode_t mode,
                                 std::string_view option)
    : path_(path), acceptor_(loop) {
  const auto endpoint = endpointOf(path, option);
  removeStale(loop, path, endpoint, option);
  try {
    acceptor_.open();
    {
      const NarrowMode narrow(mode);
      acceptor_.bind(endpoint);
    }
    // A directory may have rules of its own.
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0 ||
        ((status.st_mode & 0777) != mode && chmod(path.c_str(), mode) != 0)) {
      unlink(path.c_str());
      fail(path, "its file does not get the mode that is asked for", "name another place", option);
    }
    acceptor_.listen();
  } catch (const asio::system_error& error) {
    fail(path, error.code().message(), "name a place that can be written", option);
  }
}

ListeningSocket::~ListeningSocket() { unlink(path_.c_str()); }

void ListeningSocket::start(Welcome welcome) {
  welcome_ = std::move(welcome);
  accept();
}

void ListeningSocket::check() {
  if (welcome_ && !accepting_) {
    accept();
  }
}

void ListeningSocket::accept() {
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
    welcome_(std::move(socket));
    accept();
  });
}

}  // namespace Agent
