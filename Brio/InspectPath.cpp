#include "Brio/InspectPath.h"

#include <fmt/format.h>

#include <cctype>
#include <charconv>

namespace Brio {

namespace {

constexpr unsigned kDeepest = 16;

// Reads a text from its beginning to its end.
class Reader {
 public:
  explicit Reader(std::string_view text) : text_(text) {}

  [[nodiscard]] bool atEnd() const noexcept { return at_ == text_.size(); }
  [[nodiscard]] bool sees(char c) const noexcept { return !atEnd() && text_[at_] == c; }
  bool take(char c) noexcept {
    if (!sees(c)) {
      return false;
    }
    ++at_;
    return true;
  }
  void want(char c) {
    if (!take(c)) {
      refuse(fmt::format("'{}' is wanted here", c));
    }
  }
  [[noreturn]] void refuse(const Lumen::String& why) const {
    throw InspectSyntaxError(
        fmt::format("{}<here>{}: {}", text_.substr(0, at_), text_.substr(at_), why));
  }
  // Everything up to one of `ends`; may be empty.
  std::string_view upTo(std::string_view ends) noexcept {
    const std::size_t from = at_;
    at_ = std::min(text_.find_first_of(ends, at_), text_.size());
    return text_.substr(from, at_ - from);
  }

  // name=value,... up to `end`, or one value.
  InspectValue fieldsOrValue(char end, unsigned depth) {
    const std::size_t from = at_;
    if (!sees('"') && !sees('{') && !sees('[')) {
      const std::string_view name = upTo("=,]}\"{");
      if (!name.empty() && sees('=')) {
        at_ = from;
        return fields(end, depth);
      }
      at_ = from;
    }
    return value(depth);
  }
  InspectValue value(unsigned depth) {
    if (depth > kDeepest) {
      refuse(fmt::format("records and lists may be nested {} deep", kDeepest));
    }
    if (take('{')) {
      InspectValue record = fields('}', depth + 1);
      want('}');
      return record;
    }
    if (take('[')) {
      return list(depth + 1);
    }
    if (take('"')) {
      return quoted();
    }
    return plain(upTo(",]}"));
  }

 private:
  // Behind the opening bracket or quote.
  InspectValue list(unsigned depth) {
    InspectValue::List list;
    while (!take(']')) {
      if (!list.empty()) {
        want(',');
      }
      list.push_back(value(depth));
    }
    return list;
  }
  InspectValue quoted() {
    Lumen::String text;
    while (true) {
      text += upTo("\"\\");
      if (!take('\\')) {
        want('"');
        return text;
      }
      if (!sees('"') && !sees('\\')) {
        refuse("'\\' stands before a quote or another '\\' only");
      }
      text += text_[at_++];
    }
  }
  InspectValue fields(char end, unsigned depth) {
    InspectValue::Record record;
    while (!atEnd() && !sees(end)) {
      if (!record.empty()) {
        want(',');
      }
      const std::string_view name = upTo("=,]}");
      if (name.empty() || !sees('=')) {
        refuse("fields are written as name=value");
      }
      want('=');
      record.emplace_back(Lumen::String(name), value(depth));
    }
    return record;
  }
  InspectValue plain(std::string_view text) const {
    if (text == "true" || text == "false") {
      return text == "true";
    }
    if (text == "null") {
      return {};
    }
    if (text.empty()) {
      refuse("a value is missing");
    }
    if (std::isdigit(static_cast<unsigned char>(text[0])) == 0) {
      return text;
    }
    const bool hex = text.starts_with("0x");
    const std::string_view digits = text.substr(hex ? 2 : 0);
    std::uint64_t number = 0;
    const auto [end, error] =
        std::from_chars(digits.data(), digits.data() + digits.size(), number, hex ? 16 : 10);
    if (digits.empty() || error != std::errc() || end != digits.data() + digits.size()) {
      refuse(fmt::format("'{}' is no number of 64 bits; put text in quotes", text));
    }
    return number;
  }

  std::string_view text_;
  std::size_t at_ = 0;
};

}  // namespace

std::vector<InspectStep> inspectSteps(std::string_view path) {
  Reader reader(path);
  std::vector<InspectStep> steps;
  do {
    InspectStep step{reader.upTo("/["), {}};
    if (step.name.empty()) {
      reader.refuse("a name is missing");
    }
    while (reader.take('[')) {
      step.keys.push_back(reader.fieldsOrValue(']', 0));
      reader.want(']');
    }
    steps.push_back(std::move(step));
  } while (reader.take('/'));
  if (!reader.atEnd()) {
    reader.refuse("'/' is wanted here");
  }
  return steps;
}

InspectValue inspectParse(std::string_view text) {
  Reader reader(text);
  InspectValue value = reader.fieldsOrValue('\0', 0);
  if (!reader.atEnd()) {
    reader.refuse("the value ends here");
  }
  return value;
}

}  // namespace Brio
