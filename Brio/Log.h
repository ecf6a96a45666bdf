#pragma once

#include <functional>
#include <string_view>

#include "Brio/LogHandle.h"

namespace Brio {

// One log message as a sink gets it. The views are valid during the call only.
struct LogRecord {
  const LogDescriptor& descriptor;
  std::string_view text;  // the format with the logged text in place of "%s"
};

// Where log messages go. Called by one thread at a time; it must not log.
using LogSink = std::function<void(const LogRecord&)>;

// Replaces where log messages go; an empty sink restores the default, which is syslog under the
// descriptor's severity and a line "NAME: text" on stderr. Gives back the sink before.
LogSink logSinkIs(LogSink sink);

// Logs `text` in the handle's format, unless the handle's rate limit is reached. A message that
// goes out after others were held back says how many. Never throws.
void log(LogHandle& handle, std::string_view text) noexcept;

}  // namespace Brio
