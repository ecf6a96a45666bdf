#pragma once

#include <utility>

#include "BriskTrace/TraceFile.h"
#include "Lumen/String.h"

namespace BriskTrace {

// Where the reports of a process go. A handle is single-threaded, with a file of its own, or
// multi-threaded, with one that its threads share under a lock.
class TraceHandle {
 public:
  // `options.shared` makes it multi-threaded. Throws TraceFileError.
  explicit TraceHandle(Lumen::String path, const TraceFileOptions& options = {})
      : multiThreaded_(options.shared), file_(std::move(path), options) {}
  TraceHandle(const TraceHandle&) = delete;
  TraceHandle& operator=(const TraceHandle&) = delete;

  [[nodiscard]] bool multiThreaded() const noexcept { return multiThreaded_; }
  // The file of a single-threaded handle, and of a multi-threaded one.
  [[nodiscard]] TraceFile& traceFile() noexcept { return file_; }
  [[nodiscard]] TraceFile& mtTraceFile() noexcept { return file_; }

 private:
  bool multiThreaded_;
  TraceFile file_;
};

// Where reports go; null (as at the start): nowhere. Whoever sets it owns the handle, sets it
// before other threads report, and clears it before the handle goes.
extern TraceHandle* defaultBriskTraceHandle;

}  // namespace BriskTrace
