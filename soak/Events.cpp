#include "soak/Events.h"

#include <fmt/format.h>

#include <vector>

#include "common/RecordJson.h"
#include "common/Tables.h"

namespace Soak {
namespace {

// The resources that an intent names, as the members of a line.
std::vector<std::string> resourcesOf(const Common::Intent& intent) {
  std::vector<std::string> all;
  const auto add = [&](const char* name, const auto& key) {
    if (!key.isEq({})) {
      std::string text;
      Common::appendJson(text, key);
      all.push_back(fmt::format(R"("resource":"{}","key":{})", name, text));
    }
  };
  std::visit(
      [&](const auto& of) {
        const auto& keys = of.entry.rsrcKeys;
        if constexpr (requires { keys.inLifIdxKey; }) {
          add("inLifIndex", keys.inLifIdxKey);
        }
        if constexpr (requires { keys.vlanEditProfileKey; }) {
          add("vlanEditProfile", keys.vlanEditProfileKey);
          add("remarkProfile", keys.remarkProfileKey);
        }
      },
      intent.entry);
  return all;
}

std::string line(const std::string& resource, const char* event) {
  return fmt::format(R"({{"op":"resource",{},"event":"{}"}})", resource, event);
}

}  // namespace

std::optional<std::string> Events::before(const Common::Intent& intent, std::uint64_t number) {
  if (intent.op != Common::IntentOp::write || random_() % kOneIn != 0) {
    return std::nullopt;
  }
  const auto resources = resourcesOf(intent);
  if (resources.empty()) {
    return std::nullopt;
  }
  const std::string& resource = resources[number % resources.size()];
  if (random_() % 4 != 0) {
    return line(resource, "change");
  }
  preparing_.push_back({resource, turn_});
  return line(resource, random_() % 2 == 0 ? "prepare" : "confirm");
}

std::optional<std::string> Events::ready(std::uint64_t turn, bool all) {
  turn_ = turn;
  if (preparing_.empty() || (!all && turn - preparing_.front().since < kTurns)) {
    return std::nullopt;
  }
  const std::string resource = std::move(preparing_.front().resource);
  preparing_.pop_front();
  return line(resource, "ready");
}

}  // namespace Soak
