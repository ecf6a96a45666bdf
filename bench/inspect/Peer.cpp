#include "Peer.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <thread>

namespace InspectBench {

Program::Program(std::vector<std::string> arguments) {
  std::vector<char*> raw;
  for (std::string& argument : arguments) {
    raw.push_back(argument.data());
  }
  raw.push_back(nullptr);
  process_ = ::fork();
  if (process_ == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::execv(raw[0], raw.data());
    ::_exit(127);
  }
}

Program::~Program() {
  ::kill(process_, SIGTERM);
  ::waitpid(process_, nullptr, 0);
}

Peer::Peer(const std::string& path) : socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
  for (int tries = 0;
       ::connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0;
       ++tries) {
    if (tries == 1000) {
      throw std::runtime_error(path + ": nobody listens there");
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

Peer::~Peer() { ::close(socket_); }

void Peer::send(std::string_view text) const {
  while (!text.empty()) {
    const ssize_t count = ::send(socket_, text.data(), text.size(), MSG_NOSIGNAL);
    if (count <= 0) {
      throw std::runtime_error("the agent has closed");
    }
    text.remove_prefix(static_cast<std::size_t>(count));
  }
}

std::size_t Peer::receive() {
  bytes_.erase(0, begin_);
  begin_ = 0;
  const std::size_t size = bytes_.size();
  bytes_.resize(size + (1U << 18U));
  const ssize_t count = ::recv(socket_, bytes_.data() + size, bytes_.size() - size, 0);
  bytes_.resize(size + static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
  return bytes_.size() - size;
}

std::string_view Peer::line() {
  std::size_t end = 0;
  while ((end = bytes_.find('\n', begin_ + searched_)) == std::string::npos) {
    searched_ = bytes_.size() - begin_;
    if (receive() == 0) {
      throw std::runtime_error("the agent has closed");
    }
  }
  const std::string_view text(bytes_.data() + begin_, end - begin_);
  begin_ = end + 1;
  searched_ = 0;
  return text;
}

std::size_t Peer::skipLines() {
  begin_ = bytes_.size();
  if (receive() == 0) {
    return 0;
  }
  return static_cast<std::size_t>(std::count(bytes_.begin(), bytes_.end(), '\n'));
}

void Peer::end() const { ::shutdown(socket_, SHUT_RDWR); }

}  // namespace InspectBench
