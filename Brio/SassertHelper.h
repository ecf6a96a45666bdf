#pragma once

#include <ostream>
#include <sstream>

namespace Brio {

// Carries the sentence of an assertion that deserves one. The sentence is written to stream() and
// comes out on stderr and to syslog when the helper is destroyed; the caller then ends the process
// with sassertFailed.
class SassertHelper {
 public:
  explicit SassertHelper(const char* expression);
  ~SassertHelper();
  SassertHelper(const SassertHelper&) = delete;
  SassertHelper& operator=(const SassertHelper&) = delete;

  [[nodiscard]] std::ostream& stream() noexcept { return stream_; }

 private:
  const char* expression_;
  std::ostringstream stream_;
};

// Ends the process with the failed expression that is `expression` in quotes followed by ==
// nullptr.
[[noreturn]] void sassertFailed(const char* expression, const char* file = __builtin_FILE(),
                                int line = __builtin_LINE(),
                                const char* function = __builtin_FUNCTION());

}  // namespace Brio
