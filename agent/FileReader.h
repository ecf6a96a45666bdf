#pragma once

#include <array>
#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "agent/Intake.h"
#include "agent/LineBuffer.h"
#include "agent/OutcomeWriter.h"
#include "agent/Source.h"

namespace Agent {

// Reads files of intents one after the other, a bounded number of lines at a turn of the loop, and
// no further than the intake has room. A wrong line is said on stderr with its place, and skipped.
class FileReader {
 public:
  // Opens all files; "-" is the standard input. `ended` is called once all are read. Throws
  // std::runtime_error that names the file that can't be opened.
  FileReader(asio::io_context& loop, const std::vector<std::string>& files, Intake& intake,
             OutcomeWriter& outcomes, std::function<void()> ended);
  FileReader(const FileReader&) = delete;
  FileReader& operator=(const FileReader&) = delete;

  void start();
  // The intake has room again.
  void resume();
  [[nodiscard]] bool ended() const noexcept { return current_ == files_.size(); }
  // Lines that were wrong.
  [[nodiscard]] std::uint64_t skipped() const noexcept { return skipped_; }

 private:
  enum class Read : std::uint8_t { some, none, end };

  struct File {
    std::shared_ptr<Source> source;
    std::unique_ptr<asio::posix::stream_descriptor> descriptor;
    bool waitFirst = false;  // a pipe that nobody has opened yet reads like one that has ended
    LineBuffer lines;
  };

  void open(const std::string& name);
  void step();
  void stepLater();
  void wait();
  [[nodiscard]] Read readSome(File& file);
  void takeLine(File& file, const LineBuffer::Line& line, bool unfinished);
  void endFile(File& file);

  asio::io_context& loop_;
  Intake& intake_;
  OutcomeWriter& outcomes_;
  std::function<void()> ended_;
  std::vector<File> files_;
  std::size_t current_ = 0;
  bool paused_ = false;
  std::uint64_t skipped_ = 0;
  std::array<char, 1 << 16> chunk_{};
};

}  // namespace Agent
