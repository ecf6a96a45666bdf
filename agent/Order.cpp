#include "agent/Order.h"

#include <fmt/format.h>

#include "common/Json.h"

namespace Agent {
namespace {

constexpr std::string_view kReplayComplete = "replayComplete";

}  // namespace

bool isReplayComplete(std::string_view line) {
  // Nearly every line is an intent, and parsed as one later.
  if (line.find(kReplayComplete) == std::string_view::npos) {
    return false;
  }
  const Common::Json json = Common::parseLine(line);
  const auto op = json.find("op");
  if (op == json.end() || *op != kReplayComplete) {
    return false;
  }
  if (json.size() != 1) {
    for (const auto& [name, value] : json.items()) {
      if (name != "op") {
        throw Common::InputError(
            fmt::format("\"{}\" is no part of a {}: leave it out", name, kReplayComplete));
      }
    }
  }
  return true;
}

}  // namespace Agent
