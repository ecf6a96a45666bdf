#include "Brio/SassertHelper.h"

#include <syslog.h>

#include <cstdio>
#include <string>

#include "Lumen/Assert.h"

namespace Brio {

SassertHelper::SassertHelper(const char* expression) : expression_(expression) {}

SassertHelper::~SassertHelper() {
  const std::string sentence = stream_.str();
  std::fprintf(stderr, "%s: %s\n", expression_, sentence.c_str());
  syslog(LOG_CRIT, "%s: %s", expression_, sentence.c_str());
}

void sassertFailed(const char* expression, const char* file, int line, const char* function) {
  Lumen::assertFailed(('"' + std::string(expression) + "\" == nullptr").c_str(), file, line,
                      function);
}

}  // namespace Brio
