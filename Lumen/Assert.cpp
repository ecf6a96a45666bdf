#include "Lumen/Assert.h"

#include <syslog.h>

#include <cstdio>
#include <cstdlib>

namespace Lumen {

void assertFailed(const char* expression, const char* file, int line,
                  const char* function) noexcept {
  std::fprintf(stderr, "%s:%d: %s: Assertion `%s' failed.\n", file, line, function, expression);
  std::fflush(stderr);
  syslog(LOG_CRIT, "%s:%d: %s: Assertion `%s' failed.", file, line, function, expression);
  std::abort();
}

}  // namespace Lumen
