#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Agent {

// Cuts a stream of bytes into lines. What it holds is bounded by the longest line and one piece of
// input.
class LineBuffer {
 public:
  static constexpr std::size_t kLongestLine = 65536;

  explicit LineBuffer(std::size_t longest = kLongestLine) : longest_(longest) {}

  struct Line {
    std::uint64_t number;   // from 1
    std::string_view text;  // without its end; valid until the next call
    bool tooLong;           // `text` is only its beginning
  };

  // Adds input. Take all lines out before.
  void append(std::string_view bytes) {
    bytes_.erase(0, begin_);
    begin_ = 0;
    bytes_ += bytes;
  }
  // The next whole line. A line that is too long comes once, as soon as it is known to be, and the
  // rest of it is passed over.
  [[nodiscard]] std::optional<Line> next() {
    while (true) {
      const std::size_t end = bytes_.find('\n', begin_ + searched_);
      if (end == std::string::npos) {
        return unfinished();
      }
      const std::string_view text(bytes_.data() + begin_, end - begin_);
      begin_ = end + 1;
      searched_ = 0;
      if (passingOver_) {
        passingOver_ = false;
        continue;
      }
      ++lines_;
      return Line{lines_, text.substr(0, longest_), text.size() > longest_};
    }
  }
  // At the end of the input: what stands behind the last line end, if anything does.
  [[nodiscard]] std::optional<Line> last() {
    if (passingOver_ || begin_ == bytes_.size()) {
      return std::nullopt;
    }
    const std::string_view text = std::string_view(bytes_).substr(begin_);
    begin_ = bytes_.size();
    searched_ = 0;
    ++lines_;
    return Line{lines_, text, false};
  }

 private:
  [[nodiscard]] std::optional<Line> unfinished() {
    searched_ = bytes_.size() - begin_;
    if (searched_ <= longest_ && !passingOver_) {
      return std::nullopt;
    }
    const std::string_view text(bytes_.data() + begin_, searched_);
    begin_ = bytes_.size();
    searched_ = 0;
    if (passingOver_) {
      return std::nullopt;
    }
    passingOver_ = true;
    ++lines_;
    return Line{lines_, text.substr(0, longest_), true};
  }

  std::size_t longest_;
  std::string bytes_;
  std::size_t begin_ = 0;     // of what has not been given out
  std::size_t searched_ = 0;  // of that, without a line end
  std::uint64_t lines_ = 0;
  bool passingOver_ = false;  // the rest of a line that was too long
};

}  // namespace Agent
