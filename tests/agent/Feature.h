#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <utility>

#include "Programs.h"

namespace AgentTest {

inline sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
  return address;
}

// A feature at the other end of the agent's socket.
class Feature {
 public:
  explicit Feature(const std::string& path) : socket_(socket(AF_UNIX, SOCK_STREAM, 0)) {
    const sockaddr_un address = addressOf(path);
    EXPECT_TRUE(comesTrue([&] {
      return connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    }));
  }
  ~Feature() { close(); }
  Feature(const Feature&) = delete;
  Feature& operator=(const Feature&) = delete;

  // False once the agent has closed.
  bool send(const std::string& text) const {
    return ::send(socket_, text.data(), text.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(text.size());
  }
  // Sends what goes out without waiting; gives the number of bytes.
  [[nodiscard]] ssize_t trySend(const std::string& text) const {
    return ::send(socket_, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  }
  void endSending() const { shutdown(socket_, SHUT_WR); }
  void close() {
    if (socket_ >= 0) {
      ::close(std::exchange(socket_, -1));
    }
  }
  // Reads until `text` has come; false at the end of the stream.
  bool receives(const std::string& text) {
    while (seen_.find(text) == std::string::npos) {
      if (!readSome()) {
        return false;
      }
    }
    return true;
  }
  // Reads until there is something more; false at the end of the stream.
  bool receivesMore() { return readSome(); }
  // Reads to the end of the stream.
  const std::string& all() {
    while (readSome()) {
    }
    return seen_;
  }
  [[nodiscard]] const std::string& seen() const { return seen_; }
  // Whether something has come that was not read, or the end of the stream.
  [[nodiscard]] bool hasNews() const {
    pollfd look{socket_, POLLIN, 0};
    return poll(&look, 1, 0) == 1;
  }

 private:
  bool readSome() {
    pollfd wait{socket_, POLLIN, 0};
    const int patience = static_cast<int>(
        std::chrono::duration_cast<std::chrono::milliseconds>(AgentTest::kPatience).count());
    if (poll(&wait, 1, patience) != 1) {
      ADD_FAILURE() << "the agent neither sends nor closes";
      return false;
    }
    char bytes[65536];
    const ssize_t count = recv(socket_, bytes, sizeof(bytes), 0);
    seen_.append(bytes, static_cast<std::size_t>(count > 0 ? count : 0));
    return count > 0;
  }

  int socket_;
  std::string seen_;
};

}  // namespace AgentTest
