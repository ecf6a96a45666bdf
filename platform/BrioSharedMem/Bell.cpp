#include "BrioSharedMem/Bell.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace BrioSharedMem {
namespace {

constexpr std::size_t kPageBytes = 4096;

[[noreturn]] void fail(const Lumen::String& file, const char* what, int reason,
                       const char* remedy) {
  throw BellError(fmt::format("{}: {}: {}; {}", file, what, std::strerror(reason), remedy));
}

void folderIs(const Lumen::String& folder) {
  if (::mkdir(folder.c_str(), 0750) != 0 && errno != EEXIST) {
    fail(folder, "cannot make the folder", errno,
         "make the folder above it, and let this user write to it");
  }
}

int openPipe(const Lumen::String& file) {
  if (::mkfifo(file.c_str(), 0640) != 0 && errno != EEXIST) {
    fail(file, "cannot make the bell's pipe", errno, "let this user write to the folder");
  }
  const int pipe = ::open(file.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
  if (pipe < 0) {
    fail(file, "cannot open the bell's pipe", errno, "let this user read and write it");
  }
  struct stat status {};
  if (::fstat(pipe, &status) != 0 || !S_ISFIFO(status.st_mode)) {
    ::close(pipe);
    throw BellError(fmt::format("{}: is no pipe; remove it, it is made anew", file));
  }
  return pipe;
}

// The page's file, made or grown to a page; it never shrinks.
int openPage(const Lumen::String& file) {
  const int page = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0640);
  if (page < 0) {
    fail(file, "cannot open the bell's page", errno, "let this user read and write it");
  }
  const int full = ::posix_fallocate(page, 0, kPageBytes);
  if (full != 0) {
    ::close(page);
    fail(file, "cannot make room for the bell's page", full, "make room on the file system");
  }
  return page;
}

}  // namespace

BellError::~BellError() = default;

Bell::Bell(const Lumen::String& folderPath, const Lumen::String& name, Role role) {
  if (name.empty() || name.find('/') != Lumen::String::npos) {
    throw BellError(fmt::format(
        "bell name \"{}\": it is part of a file name, so give one path component without '/'",
        name));
  }
  folderIs(folderPath);
  const Lumen::String pageFile = fmt::format("{}/.bell-{}.page", folderPath, name);
  try {
    pipe_ = openPipe(fmt::format("{}/.bell-{}.pipe", folderPath, name));
    page_ = openPage(pageFile);
    if (role == Role::listener && ::flock(page_, LOCK_EX | LOCK_NB) != 0) {
      throw BellError(fmt::format(
          "{}: another process listens on this bell, and would take wake-ups away; stop it first",
          pageFile));
    }
    void* memory = ::mmap(nullptr, kPageBytes, PROT_READ | PROT_WRITE, MAP_SHARED, page_, 0);
    if (memory == MAP_FAILED) {
      fail(pageFile, "cannot map the bell's page", errno, "remove it, it is made anew");
    }
    armed_ = static_cast<Word*>(memory);
  } catch (...) {
    detach();
    throw;
  }
  // Whatever the other end did while this one was away, the listener looks for work once.
  wake();
}

Bell::~Bell() { detach(); }

void Bell::detach() noexcept {
  if (armed_ != nullptr) {
    ::munmap(armed_, kPageBytes);
    armed_ = nullptr;
  }
  for (int* file : {&pipe_, &page_}) {
    if (*file >= 0) {
      ::close(*file);
      *file = -1;
    }
  }
}

void Bell::disarm() noexcept {
  armed_->exchange(0, std::memory_order_seq_cst);
  char bytes[512];
  ssize_t count = 0;
  do {
    count = ::read(pipe_, bytes, sizeof(bytes));
  } while (count == static_cast<ssize_t>(sizeof(bytes)) || (count < 0 && errno == EINTR));
}

void Bell::wake() noexcept {
  ++wakeUps_;
  const char byte = 1;
  ssize_t written = 0;
  do {
    written = ::write(pipe_, &byte, 1);
  } while (written < 0 && errno == EINTR);
  // A full pipe (EAGAIN) already wakes the listener.
}

}  // namespace BrioSharedMem
