#pragma once

namespace Lumen {

// Reports a broken invariant on stderr and to syslog, as "FILE:LINE: FUNCTION: Assertion
// `EXPRESSION' failed.", and ends the process with abort(). A restart is the recovery.
[[noreturn]] void assertFailed(const char* expression, const char* file, int line,
                               const char* function) noexcept;

// The plain form of an assertion: `expression` is the text that the process ends with when `holds`
// is false. Checked in release builds too. Costs one branch.
inline void assertThat(bool holds, const char* expression, const char* file = __builtin_FILE(),
                       int line = __builtin_LINE(),
                       const char* function = __builtin_FUNCTION()) noexcept {
  if (!holds) [[unlikely]] {
    assertFailed(expression, file, line, function);
  }
}

}  // namespace Lumen
