#include "agent/LineBuffer.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Agent::LineBuffer;

// The lines of `text` when it comes in pieces of `piece` bytes, as "NUMBER:TEXT", a '!' behind
// those that are too long.
std::vector<std::string> linesOf(const std::string& text, std::size_t piece) {
  LineBuffer buffer;
  std::vector<std::string> lines;
  const auto add = [&](const LineBuffer::Line& line) {
    const std::string shown(line.text.size() > 20 ? line.text.substr(0, 3) : line.text);
    lines.push_back(std::to_string(line.number) + ":" + shown + (line.tooLong ? "!" : ""));
  };
  for (std::size_t at = 0; at < text.size(); at += piece) {
    buffer.append(std::string_view(text).substr(at, piece));
    while (const auto line = buffer.next()) {
      add(*line);
    }
  }
  if (const auto line = buffer.last()) {
    add(*line);
  }
  return lines;
}

TEST(LineBuffer, CutsAStreamHoweverItComes) {
  const std::vector<std::string> expected = {"1:one", "2:", "3:three", "4:four"};
  for (const std::size_t piece : {1, 2, 3, 5, 100}) {
    EXPECT_EQ(linesOf("one\n\nthree\nfour", piece), expected) << piece;
    EXPECT_EQ(linesOf("one\n\nthree\nfour\n", piece), expected) << piece;
  }
  EXPECT_TRUE(linesOf("", 1).empty());
}

TEST(LineBuffer, ALineThatIsTooLongComesOnceAndTheNextIsWhole) {
  const std::string longest(LineBuffer::kLongestLine, 'x');
  const std::string text = "a\n" + longest + "\n" + longest + "x\n" + longest + longest + "\nb\n";
  const std::vector<std::string> expected = {"1:a", "2:xxx", "3:xxx!", "4:xxx!", "5:b"};
  for (const std::size_t piece : {999, 65536, 1000000}) {
    EXPECT_EQ(linesOf(text, piece), expected) << piece;
  }
}

TEST(LineBuffer, TheRestOfATooLongLineIsPassedOverAtTheEndToo) {
  const std::vector<std::string> expected = {"1:xxx!"};
  EXPECT_EQ(linesOf(std::string(200000, 'x'), 10000), expected);
}

}  // namespace
