#include "Brio/Log.h"

#include <fmt/format.h>
#include <syslog.h>

#include <chrono>
#include <cstdio>
#include <mutex>
#include <utility>

#include "Lumen/String.h"

namespace Brio {
namespace {

// Never destroyed: handles of other units may log at exit.
struct Output {
  std::mutex mutex;
  LogSink sink;
};

Output& output() {
  static auto* const made = new Output;
  return *made;
}

Lumen::String formatted(const LogDescriptor& descriptor, std::string_view text,
                        std::uint64_t suppressedBefore) {
  Lumen::String result = descriptor.format;
  const auto place = result.find("%s");
  if (place != Lumen::String::npos) {
    result.replace(place, 2, text);
  }
  if (suppressedBefore != 0) {
    result += fmt::format(" ({} more were not logged)", suppressedBefore);
  }
  return result;
}

void writeOut(const LogRecord& record) {
  fmt::print(stderr, "{}: {}\n", record.descriptor.name, record.text);
  syslog(record.descriptor.severity & LOG_PRIMASK, "%s: %.*s", record.descriptor.name,
         static_cast<int>(record.text.size()), record.text.data());
}

}  // namespace

LogSink logSinkIs(LogSink sink) {
  Output& out = output();
  const std::lock_guard lock(out.mutex);
  return std::exchange(out.sink, std::move(sink));
}

void log(LogHandle& handle, std::string_view text) noexcept {
  try {
    const auto now =
        Lumen::Duration::nanoseconds(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                         std::chrono::steady_clock::now().time_since_epoch())
                                         .count());
    const LogHandle::Admission admission = handle.admit(now);
    if (!admission.admitted) {
      return;
    }
    const Lumen::String line = formatted(handle.descriptor(), text, admission.suppressedBefore);
    const LogRecord record{handle.descriptor(), line};
    Output& out = output();
    const std::lock_guard lock(out.mutex);
    out.sink ? out.sink(record) : writeOut(record);
  } catch (...) {
    // A message that cannot be delivered never disturbs the work that it tells of.
  }
}

}  // namespace Brio
