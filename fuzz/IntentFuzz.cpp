#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "Want.h"
#include "common/Intent.h"
#include "common/ResourceEvent.h"

// A line of the agent's input: taken or refused with an InputError of one printable line, and what
// an intent is written as reads back as the same.

namespace Fuzz {
namespace {

bool printable(std::string_view text) {
  for (const char c : text) {
    if (c < ' ' || c > '~') {
      return false;
    }
  }
  return !text.empty();
}

void readEvent(std::string_view line) {
  const Common::ResourceEvent event = Common::parseResourceEvent(line);
  std::string written = R"({"op":"resource","resource":")";
  written += event.resource();
  written += R"(","key":)";
  Common::appendKey(written, event.key);
  written += R"(,"event":")";
  written += Common::name(event.kind);
  written += R"("})";
  want(Common::isResourceEvent(written), "a written event is one");
  const Common::ResourceEvent again = Common::parseResourceEvent(written);
  want(again.kind == event.kind && again.key.index() == event.key.index(),
       "a written event reads back as the same");
  std::string first;
  std::string second;
  Common::appendKey(first, event.key);
  Common::appendKey(second, again.key);
  want(first == second, "the key of a written event reads back as the same");
}

void readIntent(std::string_view line) {
  const Common::Intent intent = Common::parseIntent(line);
  std::string written;
  Common::appendIntent(written, intent);
  const Common::Intent again = Common::parseIntent(written);
  want(again.op == intent.op && again.unit == intent.unit && again.table() == intent.table() &&
           again.after.has_value() == intent.after.has_value(),
       "a written intent reads back as the same");
  std::string writtenAgain;
  Common::appendIntent(writtenAgain, again);
  want(written == writtenAgain, "what is in a written intent reads back as the same");
}

}  // namespace
}  // namespace Fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string line(data, data + size);
  try {
    static_cast<void>(Common::isBlankOrComment(line));
    if (Common::isResourceEvent(line)) {
      Fuzz::readEvent(line);
    } else {
      Fuzz::readIntent(line);
    }
  } catch (const Common::InputError& error) {
    Fuzz::want(Fuzz::printable(error.what()), "an error is one line that can be printed");
  }
  return 0;
}
