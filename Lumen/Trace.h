#pragma once

#include <fmt/format.h>

#include <functional>
#include <string_view>

// Level-selected traces. A trace that is off costs one test of its handle's 16-bit mask, and
// evaluates none of its arguments. Levels: 1 failures, 2 milestones, 3 decisions, 6 the end of a
// sweep, 8 function entry with arguments, 9 inner steps of a walk.

namespace Lumen {

// One trace as a sink gets it. The views are valid during the call only.
struct TraceRecord {
  std::string_view handleName;
  unsigned level;
  std::string_view className;
  std::string_view file;
  std::string_view function;
  int line;
  std::string_view text;
};

using TraceSink = std::function<void(const TraceRecord&)>;

// Replaces where traces go; an empty sink restores the default, a line on stderr. Gives back the
// sink before. Not to be called while other threads trace.
TraceSink traceSinkIs(TraceSink sink);

namespace Impl {

// Formats and hands the record to the sink. A format that does not fit its arguments is shown as it
// stands, with the reason, and never throws.
template <class Handle>
void vfmtrace(const Handle& handle, unsigned short level, const char* className, const char* file,
              const char* function, int line, const char* format, fmt::format_args args) noexcept;

}  // namespace Impl

// Makes one trace. The caller has checked that `level` is on for `handle`.
template <class Handle, class... Args>
void fmtrace(const Handle& handle, unsigned short level, const char* file, const char* function,
             int line, const char* className, const char* format, const Args&... args) {
  Impl::vfmtrace<Handle>(handle, level, className, file, function, line, format,
                         fmt::make_format_args(args...));
}

}  // namespace Lumen

// LUMEN_TRACE(handle, level, className, format, args...): the check and the call. `handle` is
// evaluated twice, the arguments only when the level is on.
#define LUMEN_TRACE(handle, level, className, ...)                                                \
  do {                                                                                            \
    if ((handle).isOn(level)) [[unlikely]] {                                                      \
      ::Lumen::fmtrace((handle), (level), __FILE__, static_cast<const char*>(__func__), __LINE__, \
                       (className), __VA_ARGS__);                                                 \
    }                                                                                             \
  } while (false)
