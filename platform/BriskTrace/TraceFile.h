#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

#include "BriskTrace/Clock.h"
#include "BriskTrace/Layout.h"
#include "Lumen/Exception.h"
#include "Lumen/String.h"

namespace BriskTrace {

// A trace file could not be made or read. Names the file and the remedy.
class TraceFileError : public Lumen::Exception {
 public:
  using Exception::Exception;
  ~TraceFileError() override;
};

struct TraceFileOptions {
  std::uint32_t ringSlots = 16384;  // messages that it holds; rounded up to a power of two
  unsigned runsKept = 2;            // files of earlier runs that stay beside it
  bool shared = false;              // several threads of the process write to it
};

// A ring of raw messages in a mapped file, and the descriptors that tell how to print them. One
// process writes it; any number read it meanwhile, or after the writer was killed: whatever
// endMsg() stored before is in the file.
//
// A file of an earlier run at the same path is not overwritten: it becomes PATH.1, the one before
// PATH.2, and so on up to `runsKept`, so that the last messages of a run that crashed are still
// there when the next has started.
class TraceFile {
 public:
  using Options = TraceFileOptions;

  // Makes the file (mode 0640), all of its space taken at once. Throws TraceFileError, also if
  // another process writes a file at that path, or what stands there is no trace file.
  explicit TraceFile(Lumen::String path, const Options& options = {});
  ~TraceFile();
  TraceFile(const TraceFile&) = delete;
  TraceFile& operator=(const TraceFile&) = delete;

  [[nodiscard]] const Lumen::String& path() const noexcept { return path_; }
  [[nodiscard]] std::uint64_t ringSlots() const noexcept { return mask_ + 1; }
  // Messages written since the file was made.
  [[nodiscard]] std::uint64_t messages() const noexcept {
    return header().written.load(std::memory_order_relaxed);
  }

  // The descriptor of message `id` is in the file, or was found to have no room there. Ids are
  // given out by the process, one per site, so that a site keeps its id in every file.
  [[nodiscard]] bool knows(std::int32_t id) const noexcept {
    const auto bit = static_cast<std::uint32_t>(id);
    return bit < kMostIds &&
           ((known_[bit / 64].load(std::memory_order_acquire) >> (bit % 64)) & 1U) != 0;
  }
  // Descriptors built for this file, and those of them that found no room: messages of such a site
  // are shown as bare numbers.
  [[nodiscard]] std::size_t descriptors() const;
  [[nodiscard]] std::size_t descriptorsLost() const;

  // Appends a descriptor (see Layout) unless `id` is known. `block` ends on a word.
  void descriptorIs(std::int32_t id, const std::vector<std::uint64_t>& block);
  // Writes a message. `arguments` holds `argumentBytes` (at most Layout::kMostArgumentBytes),
  // rounded up to words. About 15 ns.
  void messageIs(std::int32_t id, std::size_t argumentBytes,
                 const std::uint64_t* arguments) noexcept {
    if (shared_) [[unlikely]] {
      const std::lock_guard lock(mutex_);
      publish(id, argumentBytes, arguments);
    } else {
      publish(id, argumentBytes, arguments);
    }
  }

  // A fresh message id, greater than 0. Asserts that there are no more sites than kMostIds.
  [[nodiscard]] static std::int32_t newId();
  static constexpr std::uint32_t kMostIds = 65536;

 private:
  void publish(std::int32_t id, std::size_t argumentBytes,
               const std::uint64_t* arguments) noexcept {
    const std::uint64_t ticks = Clock::ticks();
    if (ticks - lastSync_ > syncInterval_) [[unlikely]] {
      sync();
    }
    const std::uint64_t number = ++lastNumber_;
    Layout::Word* slot = ring_ + ((number - 1) & mask_) * Layout::kSlotWords;
    slot[0].store(0, std::memory_order_relaxed);
    slot[1].store(ticks, std::memory_order_release);
    slot[2].store(Layout::slotTag(number, ticks, id, argumentBytes, arguments),
                  std::memory_order_release);
    for (std::size_t i = 0; i * 8 < argumentBytes; ++i) {
      slot[3 + i].store(arguments[i], std::memory_order_release);
    }
    slot[0].store(number, std::memory_order_release);
    header().written.store(number, std::memory_order_release);
  }
  void sync() noexcept;
  void map(int file, std::uint64_t ringSlots);
  void unmap() noexcept;

  [[nodiscard]] Layout::Header& header() const noexcept {
    return *static_cast<Layout::Header*>(memory_);
  }

  Lumen::String path_;
  bool shared_;
  int file_ = -1;  // holds the lock that says that the file is being written
  void* memory_ = nullptr;
  std::size_t bytes_ = 0;
  Layout::Word* ring_ = nullptr;
  std::uint64_t mask_ = 0;
  std::uint64_t lastNumber_ = 0;
  std::uint64_t lastSync_ = 0;
  std::uint64_t syncInterval_ = 0;  // ticks
  mutable std::mutex mutex_;
  std::size_t descriptors_ = 0;
  std::array<std::atomic<std::uint64_t>, kMostIds / 64> known_{};
};

}  // namespace BriskTrace
