#include "Quilt/Register.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "Quilt/FileError.h"
#include "Quilt/Seam.h"

namespace Quilt {
namespace {

constexpr mode_t kFileMode = 0640;
constexpr std::size_t kPidLine = 15;
constexpr char kMade[] = "made\n";

pid_t holderOf(int fd) {
  char text[kPidLine + 1] = {};
  if (::pread(fd, text, kPidLine, 0) < 5 || std::strncmp(text, "pid ", 4) != 0) {
    return 0;
  }
  return static_cast<pid_t>(std::strtol(text + 4, nullptr, 10));
}

// The holder enters its number right after it has the lock; until then a former one may stand
// there.
pid_t livingHolderOf(int fd) {
  for (int tries = 0; tries < 100; ++tries) {
    const pid_t pid = holderOf(fd);
    if (pid > 0 && (::kill(pid, 0) == 0 || errno == EPERM)) {
      return pid;
    }
    ::usleep(1000);
  }
  return holderOf(fd);
}

}  // namespace

Register::Register(Lumen::String fileName, const Lumen::String& path)
    : fileName_(std::move(fileName)) {
  fd_ = ::open(fileName_.c_str(), O_RDWR | O_CLOEXEC);
  if (fd_ < 0 && errno == ENOENT) {
    Seam::step();
    fd_ = ::open(fileName_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, kFileMode);
    if (fd_ >= 0) {
      Seam::step();
      ::fchmod(fd_, kFileMode);
    }
  }
  if (fd_ < 0) {
    throw fileError(path, "open the register", fileName_, errno);
  }
  if (::flock(fd_, LOCK_EX | LOCK_NB) != 0) {
    const int reason = errno;
    const pid_t holder = reason == EWOULDBLOCK ? livingHolderOf(fd_) : 0;
    ::close(fd_);
    if (reason != EWOULDBLOCK) {
      throw fileError(path, "lock the register", fileName_, reason);
    }
    if (holder == ::getpid()) {
      throw BrioSharedMem::StoreError(
          fmt::format("{}: this process ({}) still writes this collection through a mount that it "
                      "has given up; "
                      "let go of every pointer to the former entity and to its control block first",
                      path, holder));
    }
    throw BrioSharedMem::StoreError(fmt::format(
        "{}: process {} writes this collection already (it holds {}); stop that process "
        "first, or open the collection as a reader",
        path, holder, fileName_));
  }
  char text[kPidLine + sizeof kMade] = {};
  const ssize_t size = ::pread(fd_, text, kPidLine + sizeof kMade - 1, 0);
  made_ = size >= 0 && std::strcmp(text + kPidLine, kMade) == 0;
  const std::string line = fmt::format("pid {:>10}\n", ::getpid());
  Seam::step();
  if (::pwrite(fd_, line.data(), line.size(), 0) != static_cast<ssize_t>(line.size())) {
    const int reason = errno;
    ::close(fd_);
    throw fileError(path, "write the register", fileName_, reason);
  }
}

Register::~Register() { ::close(fd_); }

void Register::madeIs() {
  if (made_) {
    return;
  }
  Seam::step();
  const auto size = static_cast<ssize_t>(sizeof kMade - 1);
  if (::pwrite(fd_, kMade, sizeof kMade - 1, kPidLine) != size) {
    throw fileError(fileName_, "write the register", fileName_, errno);
  }
  made_ = true;
}

}  // namespace Quilt
