#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string_view>

#include "Lumen/Duration.h"

namespace Brio {

// The record of one log message. The texts live as long as the process.
struct LogDescriptor {
  const char* name;
  const char* format;       // the first "%s" is replaced by the text that is logged
  const char* explanation;  // for the person who reads the log
  const char* action;       // what that person is to do; "\x01": nothing in particular
  int severity;             // as in syslog: 0 emergency ... 7 debug
};

// A library's log-message records, entered in a list of the process for as long as the section
// lives. Make it a static beside the array of records.
class LogSection {
 public:
  template <std::size_t N>
  LogSection(const char* library, const LogDescriptor (&records)[N])
      : LogSection(library, records, N) {}
  ~LogSection();
  LogSection(const LogSection&) = delete;
  LogSection& operator=(const LogSection&) = delete;

  // Calls `visit` for every record of every section, in the order of their coming.
  static void forEach(
      const std::function<void(std::string_view library, const LogDescriptor& record)>& visit);

 private:
  LogSection(const char* library, const LogDescriptor* records, std::size_t count);

  const char* library_;
  const LogDescriptor* records_;
  std::size_t count_;
};

// Logs one kind of message from one place, no more often than it was told, and counts. The
// descriptor must outlive the handle. Any thread may log through it.
class LogHandle {
 public:
  // `interval` is the window of the rate limit: in each, `burst` messages go out (0 stands for 1)
  // and the others are counted as suppressed. An interval of 0: never limited. After a window that
  // suppressed something the next is `growth` times as long (1.0: all are equal; asserted to be at
  // least 1); after a quiet one it is `interval` again. `most` is how many messages may ever go
  // out; 0: any number.
  LogHandle(const LogDescriptor* descriptor, Lumen::Duration interval, double growth,
            unsigned burst, unsigned most);
  LogHandle(const LogHandle&) = delete;
  LogHandle& operator=(const LogHandle&) = delete;

  [[nodiscard]] const LogDescriptor& descriptor() const noexcept { return *descriptor_; }
  // Messages that went out, and that did not, since the handle was made.
  [[nodiscard]] std::uint64_t logged() const;
  [[nodiscard]] std::uint64_t suppressed() const;

  struct Admission {
    bool admitted;
    std::uint64_t suppressedBefore;  // since the last message that went out
  };
  // Counts a message that comes at `now` (of any clock that does not go back) and says whether it
  // goes out.
  Admission admit(Lumen::Duration now);

 private:
  const LogDescriptor* descriptor_;
  const Lumen::Duration interval_;
  const double growth_;
  const unsigned burst_;
  const unsigned most_;

  mutable std::mutex mutex_;
  Lumen::Duration windowStart_;
  Lumen::Duration window_;
  std::uint64_t inWindow_ = 0;  // messages that went out in this window
  std::uint64_t suppressedInWindow_ = 0;
  std::uint64_t logged_ = 0;
  std::uint64_t suppressed_ = 0;
  std::uint64_t suppressedAtLastLogged_ = 0;
};

}  // namespace Brio
