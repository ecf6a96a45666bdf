#pragma once

#include <array>
#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "agent/Intake.h"
#include "agent/LineBuffer.h"
#include "agent/OutcomeWriter.h"
#include "agent/Replay.h"
#include "agent/Source.h"

namespace Agent {

// Reads files of intents one after the other, a bounded number of lines at a turn of the loop, and
// no further than the intake has room. A wrong line is said on stderr with its place, and skipped.
//
// With a replay, the regular files that come first are read as a whole, up to a line that says that
// the replay is complete, and go out folded. What comes behind them, such as a pipe, which may
// never end, is taken as it comes.
class FileReader {
 public:
  // A line that says that the replay is complete.
  struct Order {
    std::shared_ptr<Source> source;
    std::uint64_t line;
  };
  struct Events {
    std::function<void(Replay&)> folded;  // the files are in the replay, which goes out now
    std::function<void()> replayed;       // it has gone out
    std::function<void()> ended;          // all files are read
  };

  // Opens all files; "-" is the standard input. Throws std::runtime_error that names the file that
  // can't be opened.
  FileReader(asio::io_context& loop, const std::vector<std::string>& files, Intake& intake,
             OutcomeWriter& outcomes, Events events);
  FileReader(const FileReader&) = delete;
  FileReader& operator=(const FileReader&) = delete;

  void start(bool withReplay);
  // The intake has room again.
  void resume();
  [[nodiscard]] bool ended() const noexcept { return current_ == files_.size(); }
  // Whether a regular file is not read to its end.
  [[nodiscard]] bool regularLeft() const noexcept;
  // Lines that were wrong.
  [[nodiscard]] std::uint64_t skipped() const noexcept { return skipped_; }

 private:
  enum class Read : std::uint8_t { some, none, end };
  enum class Phase : std::uint8_t { folding, replaying, streaming };

  struct File {
    std::shared_ptr<Source> source;
    std::unique_ptr<asio::posix::stream_descriptor> descriptor;
    bool regular = false;
    bool waitFirst = false;  // a pipe that nobody has opened yet reads like one that has ended
    LineBuffer lines;
  };

  void open(const std::string& name);
  void step();
  void stepReplay();
  void stepLater();
  void wait();
  [[nodiscard]] Read readSome(File& file);
  void takeLine(File& file, const LineBuffer::Line& line, bool unfinished);
  void endFile(File& file);

  asio::io_context& loop_;
  Intake& intake_;
  OutcomeWriter& outcomes_;
  Events events_;
  Phase phase_ = Phase::streaming;
  std::optional<Replay> replay_;
  std::optional<Order> order_;  // that ended the folding
  std::vector<File> files_;
  std::size_t current_ = 0;
  bool paused_ = false;
  std::uint64_t skipped_ = 0;
  std::array<char, 1 << 16> chunk_{};
};

}  // namespace Agent
