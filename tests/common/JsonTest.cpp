#include "common/Json.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <string>
#include <utility>

namespace {

using testing::HasSubstr;

std::string errorOf(const std::string& line) {
  try {
    (void)Common::parseLine(line);
    return "";
  } catch (const Common::InputError& error) {
    return error.what();
  }
}

std::string object(int names) {
  std::string text = "{";
  for (int i = 0; i < names; ++i) {
    text += (i == 0 ? "\"n" : ",\"n") + std::to_string(i) + "\":" + std::to_string(i);
  }
  return text + "}";
}

TEST(Json, AnObjectOfManyNamesIsRefusedBeforeItsNamesCostMuch) {
  EXPECT_EQ(errorOf(object(64)), "");
  EXPECT_THAT(errorOf(object(65)), HasSubstr("an object of more than 64 names: write an intent"));
  EXPECT_EQ(errorOf("{\"a\":" + object(64) + ",\"b\":" + object(64) + "}"), "");
  EXPECT_THAT(errorOf("{\"a\":" + object(65) + "}"), HasSubstr("more than 64 names"));
  // As many short names as a line of 64 KiB holds, which end at once.
  const std::string line = object(8000);
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 100; ++i) {
    EXPECT_THAT(errorOf(line), HasSubstr("more than 64 names"));
  }
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

TEST(Json, ANameThatStandsTwiceIsStillNamedAmongMany) {
  std::string line = object(64);
  line.back() = ',';
  EXPECT_THAT(errorOf(line + "\"n63\":1}"), HasSubstr("\"n63\" stands twice: write it once"));
}

TEST(Json, StringsAreJsonWhateverBytesTheyHold) {
  const std::array<std::pair<std::string, std::string>, 16> cases{{
      {"plain", "plain"},
      {"a\"b\\c\n", "a\"b\\c\n"},
      {"\xc3\xa9\xe2\x82\xac\xf0\x9f\x90\x9f", "\xc3\xa9\xe2\x82\xac\xf0\x9f\x90\x9f"},
      {"\xed\x9f\xbf\xee\x80\x80\xf4\x8f\xbf\xbf", "\xed\x9f\xbf\xee\x80\x80\xf4\x8f\xbf\xbf"},
      {"a\xff z", "a\xef\xbf\xbd z"},
      {"\x80", "\xef\xbf\xbd"},
      {"cut \xe2\x82", "cut \xef\xbf\xbd\xef\xbf\xbd"},
      {"\xc3", "\xef\xbf\xbd"},
      {"\xc3(", "\xef\xbf\xbd("},
      {"overlong \xc0\xaf", "overlong \xef\xbf\xbd\xef\xbf\xbd"},
      {"\xe0\x80\xaf", "\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd"},
      {"\xf0\x80\x80\xaf", "\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd"},
      {"surrogate \xed\xa0\x80", "surrogate \xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd"},
      {"\xf4\x90\x80\x80", "\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd"},
      {std::string("zero \0 byte", 11), std::string("zero \0 byte", 11)},
      {"\x7f", "\x7f"},
  }};
  for (const auto& [text, read] : cases) {
    std::string written;
    Common::appendString(written, text);
    SCOPED_TRACE(written);
    // nlohmann's parser refuses what is no UTF-8.
    EXPECT_EQ(Common::Json::parse(written).get<std::string>(), read);
  }
  // Every pair of bytes, and each of those pairs after one that begins a character of three.
  for (int first = 0; first < 256; ++first) {
    for (int second = 0; second < 256; ++second) {
      for (const char* before : {"", "\xe1"}) {
        const std::string text =
            std::string(before) + static_cast<char>(first) + static_cast<char>(second);
        std::string written;
        Common::appendString(written, text);
        ASSERT_TRUE(Common::Json::accept(written)) << written;
      }
    }
  }
}

}  // namespace
