#include "Brio/TraceHandle.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

namespace {

struct Setting {
  Lumen::String pattern;
  std::uint16_t mask;
};

// Everything that handles share. Never destroyed: handles of other units may trace at exit.
struct Registry {
  std::mutex mutex;
  std::vector<Brio::TraceHandle*> handles;
  std::vector<Setting> settings;
  Lumen::TraceSink sink;
};

bool matches(std::string_view pattern, std::string_view name) {
  const auto star = pattern.find('*');
  if (star == std::string_view::npos) {
    return pattern == name;
  }
  if (name.substr(0, star) != pattern.substr(0, star)) {
    return false;
  }
  const std::string_view rest = pattern.substr(star + 1);
  for (std::size_t at = star; at <= name.size(); ++at) {
    if (matches(rest, name.substr(at))) {
      return true;
    }
  }
  return false;
}

std::optional<unsigned> parseLevel(std::string_view text) {
  if (text.empty() || text.size() > 2) {
    return std::nullopt;
  }
  unsigned level = 0;
  for (const char c : text) {
    if (std::isdigit(static_cast<unsigned char>(c)) == 0) {
      return std::nullopt;
    }
    level = level * 10 + static_cast<unsigned>(c - '0');
  }
  return level <= 15 ? std::optional(level) : std::nullopt;
}

std::optional<std::uint16_t> parseLevels(std::string_view text) {
  if (text == "*") {
    return static_cast<std::uint16_t>(0xffff);
  }
  std::uint16_t mask = 0;
  while (true) {
    const auto comma = text.find(',');
    const std::string_view item = text.substr(0, comma);
    const auto dash = item.find('-');
    const auto first = parseLevel(item.substr(0, dash));
    const auto last = dash == std::string_view::npos ? first : parseLevel(item.substr(dash + 1));
    if (!first || !last || *first > *last) {
      return std::nullopt;
    }
    for (unsigned level = *first; level <= *last; ++level) {
      mask = static_cast<std::uint16_t>(mask | (1U << level));
    }
    if (comma == std::string_view::npos) {
      return mask;
    }
    text.remove_prefix(comma + 1);
  }
}

bool parseSettings(std::string_view text, std::vector<Setting>& settings, Lumen::String& error) {
  while (!text.empty()) {
    const auto colon = text.find(':');
    const std::string_view item = text.substr(0, colon);
    const auto slash = item.rfind('/');
    const auto mask =
        slash == std::string_view::npos ? std::nullopt : parseLevels(item.substr(slash + 1));
    if (!mask || slash == 0) {
      error =
          fmt::format("trace setting '{}': expected PATTERN/LEVELS, such as Isem1Tag*/1-3,8", item);
      return false;
    }
    settings.push_back({Lumen::String(item.substr(0, slash)), *mask});
    text = colon == std::string_view::npos ? std::string_view() : text.substr(colon + 1);
  }
  return true;
}

Registry& registry() {
  static Registry* const made = [] {
    auto* fresh = new Registry;
    if (const char* environment = std::getenv("KELP_TRACE")) {
      Lumen::String error;
      if (!parseSettings(environment, fresh->settings, error)) {
        fresh->settings.clear();
        std::fprintf(stderr, "KELP_TRACE ignored: %s\n", error.c_str());
      }
    }
    return fresh;
  }();
  return *made;
}

void printOnStderr(const Lumen::TraceRecord& record) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  tm parts{};
  gmtime_r(&now.tv_sec, &parts);
  const auto slash = record.file.rfind('/');
  const std::string_view file =
      slash == std::string_view::npos ? record.file : record.file.substr(slash + 1);
  fmt::print(stderr, "{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:06}Z {} {} {}{}{} {}:{}: {}\n",
             parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min,
             parts.tm_sec, now.tv_nsec / 1000, record.handleName, record.level, record.className,
             record.className.empty() ? "" : "::", record.function, file, record.line, record.text);
}

}  // namespace

namespace Brio {

TraceHandle::TraceHandle(const char* name, bool quiet) : name_(name), quiet_(quiet) {
  Registry& all = registry();
  const std::lock_guard lock(all.mutex);
  for (const Setting& setting : all.settings) {
    if (matches(setting.pattern, name_) && !(quiet_ && setting.pattern == "*")) {
      maskIs(setting.mask);
    }
  }
  all.handles.push_back(this);
}

void TraceHandle::forEach(const std::function<void(TraceHandle&)>& visit) {
  Registry& all = registry();
  const std::lock_guard lock(all.mutex);
  for (TraceHandle* handle : all.handles) {
    visit(*handle);
  }
}

bool TraceHandle::settingsIs(std::string_view settings, Lumen::String* error) {
  std::vector<Setting> parsed;
  Lumen::String reason;
  if (!parseSettings(settings, parsed, reason)) {
    if (error != nullptr) {
      *error = reason;
    }
    return false;
  }
  Registry& all = registry();
  const std::lock_guard lock(all.mutex);
  for (const Setting& setting : parsed) {
    for (TraceHandle* handle : all.handles) {
      if (matches(setting.pattern, handle->name_) && !(handle->quiet_ && setting.pattern == "*")) {
        handle->maskIs(setting.mask);
      }
    }
    std::erase_if(all.settings, [&](const Setting& old) { return old.pattern == setting.pattern; });
    all.settings.push_back(setting);
  }
  return true;
}

}  // namespace Brio

namespace Lumen {

TraceSink traceSinkIs(TraceSink sink) {
  Registry& all = registry();
  const std::lock_guard lock(all.mutex);
  return std::exchange(all.sink, std::move(sink));
}

namespace Impl {

template <>
void vfmtrace<Brio::TraceHandle>(const Brio::TraceHandle& handle, unsigned short level,
                                 const char* className, const char* file, const char* function,
                                 int line, const char* format, fmt::format_args args) noexcept {
  try {
    fmt::memory_buffer text;
    try {
      fmt::vformat_to(fmt::appender(text), format, args);
    } catch (const std::exception& reason) {
      text.clear();
      fmt::format_to(fmt::appender(text), "{} [{}]", format, reason.what());
    }
    const TraceRecord record{handle.name(),
                             level,
                             className,
                             file,
                             function,
                             line,
                             std::string_view(text.data(), text.size())};
    const TraceSink& sink = registry().sink;
    sink ? sink(record) : printOnStderr(record);
  } catch (...) {
    // A trace that cannot be delivered (no memory, a full disk) never disturbs the work.
  }
}

}  // namespace Impl
}  // namespace Lumen
