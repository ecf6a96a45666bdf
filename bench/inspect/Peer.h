#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>
#include <vector>

// The other ends of the agent's sockets, and the programs themselves.

namespace InspectBench {

// A program, killed with the object.
class Program {
 public:
  explicit Program(std::vector<std::string> arguments);
  ~Program();
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

 private:
  pid_t process_;
};

// Lines out and in, over a Unix socket.
class Peer {
 public:
  // Waits until somebody listens there.
  explicit Peer(const std::string& path);
  ~Peer();
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  void send(std::string_view text) const;
  // The next line without its end; good until the next call. Throws at the end of the stream.
  std::string_view line();
  // Waits for input, and gives the number of line ends in it; 0 at the end of the stream.
  std::size_t skipLines();
  // From now on send() and skipLines() fail.
  void end() const;

 private:
  std::size_t receive();

  int socket_;
  std::string bytes_;
  std::size_t begin_ = 0;
  std::size_t searched_ = 0;
};

}  // namespace InspectBench
