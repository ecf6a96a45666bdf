#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string_view>

#include "BriskTrace/Layout.h"
#include "BriskTrace/RingBuf.h"
#include "BriskTrace/TraceFile.h"
#include "BriskTrace/TraceHandle.h"

namespace BriskTrace {

// What a call site keeps. A static of the place that reports:
//
//   static BriskTrace::Site site;
//   BriskTrace::report(site, "KelpSwTable", "sweep", "Swept {} entries", count);
//
// followed by the level trace with the same format.
struct Site {
  constexpr explicit Site(const char* siteFile = __builtin_FILE(),
                          int siteLine = __builtin_LINE()) noexcept
      : file(siteFile), line(siteLine) {}

  const char* file;
  int line;
  std::int32_t id = 0;
};

namespace Impl {

// Builds the site's descriptor in `traceFile`.
void describe(TraceFile& traceFile, Site& site, std::string_view className,
              std::string_view function, std::string_view format,
              std::initializer_list<const char*> letters);

}  // namespace Impl

// Reports to the ring buffer of defaultBriskTraceHandle; without one it costs a branch. The texts
// are read at the site's first report to a trace file only, so they must be the same at every
// report of a site. `format` has one {} per argument. Under 20 ns. Throws std::bad_alloc (first
// report only).
template <RawArgument... Args>
void report(Site& site, std::string_view className, std::string_view function,
            std::string_view format, const Args&... args) {
  static_assert((sizeof(Args) + ... + 0) <= Layout::kMostArgumentBytes,
                "a message holds 40 bytes of arguments");
  TraceHandle* handle = defaultBriskTraceHandle;
  if (handle == nullptr) [[likely]] {
    return;
  }
  TraceFile& traceFile = handle->multiThreaded() ? handle->mtTraceFile() : handle->traceFile();
  // Another thread may be giving the site its id.
  const std::atomic_ref<std::int32_t> id(site.id);
  if (!traceFile.knows(id.load(std::memory_order_relaxed))) [[unlikely]] {
    Impl::describe(traceFile, site, className, function, format, {letterOf<Args>()...});
  }
  RingBuf message = RingBuf::startMsg(traceFile, id.load(std::memory_order_relaxed));
  (message.put(args), ...);
  message.endMsg();
}

}  // namespace BriskTrace
