#pragma once

#include <fmt/format.h>

#include <string>
#include <string_view>

namespace ModelTest {

// Collects what does not agree.
class Findings {
 public:
  template <class Value, class Expected, class... Where>
  void equal(std::string_view what, const Value& value, const Expected& expected,
             const Where&... where) {
    if (!(value == expected)) [[unlikely]] {
      text_ += fmt::format("  {} (", what);
      ((text_ += fmt::format("{} ", where)), ...);
      text_ += fmt::format("): is {}, should be {}\n", value, expected);
    }
  }
  [[nodiscard]] const std::string& text() const noexcept { return text_; }

 private:
  std::string text_;
};

}  // namespace ModelTest
