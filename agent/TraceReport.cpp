#include "agent/TraceReport.h"

#include <fmt/format.h>
#include <fnmatch.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <vector>

#include "Brio/TraceHandle.h"
#include "agent/ReportParams.h"

namespace Agent {
namespace {

using Json = nlohmann::ordered_json;

// "1-3,8", as the levels are set.
std::string levelsText(std::uint16_t mask) {
  std::string text;
  for (unsigned level = 0; level < 16;) {
    if (((mask >> level) & 1U) == 0) {
      ++level;
      continue;
    }
    unsigned last = level;
    while (last < 15 && ((mask >> (last + 1)) & 1U) != 0) {
      ++last;
    }
    text += fmt::format("{}{}", text.empty() ? "" : ",", level);
    text += last == level ? "" : fmt::format("-{}", last);
    level = last + 1;
  }
  return text.empty() ? "none" : text;
}

bool fits(const std::string& pattern, const Lumen::String& name) {
  // Only * is special, as where levels are set.
  std::string escaped;
  for (const char c : pattern) {
    escaped += c == '?' || c == '[' || c == '\\' ? std::string{'\\', c} : std::string{c};
  }
  return ::fnmatch(escaped.c_str(), name.c_str(), 0) == 0;
}

void setLevels(const std::string& pattern, const std::string& levels) {
  if (pattern.empty() || pattern.find_first_of(":/") != std::string::npos) {
    Common::failValue(Common::Place{"handle"}, pattern,
                      "write the name of a handle, such as \"Isem1Tag*\"");
  }
  if (levels == "none") {
    Brio::TraceHandle::forEach([&](Brio::TraceHandle& handle) {
      if (fits(pattern, handle.name())) {
        handle.maskIs(0);
      }
    });
    return;
  }
  if (levels.find_first_of(":/") != std::string::npos ||
      !Brio::TraceHandle::settingsIs(pattern + "/" + levels)) {
    Common::failValue(Common::Place{"levels"}, levels,
                      "write levels from 0 to 15 such as \"1-3,8\", \"*\" for all, or \"none\"");
  }
}

}  // namespace

bool setsTrace(const Common::Json& params) {
  return params.is_object() && params.contains("levels");
}

Json traceReport(const std::string& ring, const Common::Json& params) {
  checkParams(params, {"handle", "levels"});
  const auto pattern = readText(params, "handle");
  if (const auto levels = readText(params, "levels")) {
    if (!pattern) {
      Common::failAt(Common::Place{"handle"}, "missing", "write which handles get the levels");
    }
    setLevels(*pattern, *levels);
  }
  std::vector<std::pair<std::string, std::uint16_t>> handles;
  Brio::TraceHandle::forEach([&](Brio::TraceHandle& handle) {
    if (!pattern || fits(*pattern, handle.name())) {
      handles.emplace_back(handle.name(), handle.mask());
    }
  });
  // One of a class stands for each of its instances.
  std::sort(handles.begin(), handles.end());
  handles.erase(std::unique(handles.begin(), handles.end()), handles.end());
  Json all = Json::array();
  for (const auto& [name, mask] : handles) {
    all.push_back({{"handle", name}, {"levels", levelsText(mask)}, {"mask", mask}});
  }
  return {{"handles", std::move(all)},
          {"ring", ring.empty() ? Json(nullptr) : Json(std::filesystem::absolute(ring).string())}};
}

}  // namespace Agent
