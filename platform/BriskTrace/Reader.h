#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string_view>
#include <vector>

#include "BriskTrace/Layout.h"
#include "Lumen/String.h"

namespace BriskTrace {

// One message as it is read from a file.
struct Message {
  std::uint64_t number = 0;      // from 1, in the order of writing
  std::int64_t nanoseconds = 0;  // UTC, since 1970
  std::int32_t id = 0;
  Lumen::String className;  // this and what follows is empty, and the line 0, without a descriptor
  Lumen::String function;
  Lumen::String file;
  std::int32_t line = 0;
  std::vector<std::uint64_t> arguments;
  Lumen::String text;  // the format with its arguments
};

// Reads a trace file while it is written, or afterwards. It copies what it reads and believes none
// of it: a file that is torn, cut short or flipped anywhere costs messages, never a crash, and what
// was damaged is counted. Control characters in texts are shown as \xNN.
class Reader {
 public:
  // Throws TraceFileError if the file cannot be read or is no trace file.
  explicit Reader(Lumen::String path);
  ~Reader();
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  // All messages that have come since the last call, oldest first; at first, all that the ring
  // still holds. Throws TraceFileError if the file cannot be read any more.
  [[nodiscard]] std::vector<Message> newMessages();

  // Messages that were overwritten (or damaged) before they could be read, since the first one
  // read.
  [[nodiscard]] std::uint64_t overwritten() const noexcept { return overwritten_; }
  // Slots whose bytes did not add up at the last call; one may be a message in the middle of its
  // writing.
  [[nodiscard]] std::size_t damagedSlots() const noexcept { return damagedSlots_; }
  // Whole descriptors in the file.
  [[nodiscard]] std::size_t descriptors() const noexcept { return descriptors_.size(); }
  // The header is whole. If not, the layout is told by the file's size, and times may be wrong.
  [[nodiscard]] bool headerWhole() const noexcept { return headerWhole_; }
  // The process that wrote, or writes, the file.
  [[nodiscard]] std::uint32_t writerPid() const noexcept { return pid_; }
  // The writer ended the file in order. False while it runs, and after it was killed.
  [[nodiscard]] bool closed() const noexcept { return closed_; }
  // Another file stands at the path now: a later run has begun.
  [[nodiscard]] bool replaced() const;

 private:
  struct Site {
    Lumen::String file;
    Lumen::String className;
    Lumen::String function;
    Lumen::String format;
    Lumen::String letters;
    std::int32_t line = 0;
  };

  // The file's first words, at most `most` bytes.
  [[nodiscard]] std::vector<std::uint64_t> read(std::size_t most) const;
  void takeFront();
  void takeHeader(const std::vector<std::uint64_t>& words);
  void takeDescriptors(const std::vector<std::uint64_t>& words);
  [[nodiscard]] std::int64_t timeOf(std::uint64_t ticks) const noexcept;
  // The slots of `words` that hold a message not yet delivered, in the order of writing.
  [[nodiscard]] std::vector<const std::uint64_t*> wholeSlots(
      const std::vector<std::uint64_t>& words);
  [[nodiscard]] Message decode(const std::uint64_t* slot) const;

  Lumen::String path_;
  int file_;
  std::uint64_t next_ = 0;  // the lowest number that was not delivered; 0 before the first call
  std::uint64_t overwritten_ = 0;
  std::size_t damagedSlots_ = 0;
  std::uint64_t ringSlots_ = 0;  // 0: not known
  std::map<std::int32_t, Site> descriptors_;
  bool headerWhole_ = true;
  bool closed_ = false;
  std::uint32_t pid_ = 0;
  // What a tick is worth, and one tick whose time is known.
  std::uint64_t anchorTicks_ = 0;
  std::uint64_t anchorNanoseconds_ = 0;
  double nanosecondsPerTick_ = 1.0;
};

// "2024-06-11T08:15:30.123456Z"; the bare number for a time beyond the calendar.
[[nodiscard]] Lumen::String timeText(std::int64_t nanoseconds);

// `format` with each {} replaced by the next of `arguments`. A {:...} is followed where it is a
// plain one for a number (such as :04x), and shown as it stands where it is not, or where no
// argument is left.
[[nodiscard]] Lumen::String formatted(std::string_view format,
                                      const std::vector<std::uint64_t>& arguments);

}  // namespace BriskTrace
