#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "Brio/InspectPath.h"
#include "Want.h"

// A path of the inspection: taken, or refused with an InspectSyntaxError. The first byte chooses
// between a path and a single value.

namespace Fuzz {
namespace {

void writtenReadsBack(const Brio::InspectValue& value) {
  const std::string written = value.text();
  want(Brio::inspectParse(written) == value, "a written value reads back as the same");
}

void readPath(std::string_view text) {
  const auto steps = Brio::inspectSteps(text);
  want(!steps.empty(), "a path has steps");
  std::string written;
  for (const auto& step : steps) {
    want(!step.name.empty(), "a step has a name");
    want(step.name.data() >= text.data() &&
             step.name.data() + step.name.size() <= text.data() + text.size(),
         "a name lies in the path");
    written += written.empty() ? "" : "/";
    written += step.name;
    for (const auto& key : step.keys) {
      written += '[';
      written += key.text();
      written += ']';
    }
  }
  const auto again = Brio::inspectSteps(written);
  want(again.size() == steps.size(), "a written path has the same steps");
  for (std::size_t i = 0; i < steps.size(); ++i) {
    want(again[i].name == steps[i].name && again[i].keys == steps[i].keys,
         "a written step reads back as the same");
  }
}

}  // namespace
}  // namespace Fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) {
    return 0;
  }
  const std::string text(data + 1, data + size);
  try {
    if (data[0] % 2 == 0) {
      Fuzz::readPath(text);
    } else {
      Fuzz::writtenReadsBack(Brio::inspectParse(text));
    }
  } catch (const Brio::InspectSyntaxError& error) {
    Fuzz::want(!error.msg().empty(), "an error has a text");
  }
  return 0;
}
