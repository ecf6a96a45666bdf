#include "kelp/brisk/MessageText.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

namespace Kelp {

std::string messageText(const BriskTrace::Message& message) {
  const bool named = !message.className.empty() || !message.function.empty();
  return fmt::format("{} {}{}{}{}{}", BriskTrace::timeText(message.nanoseconds), message.className,
                     message.className.empty() ? "" : "::", message.function, named ? ": " : "",
                     message.text);
}

std::string messageJson(const BriskTrace::Message& message) {
  const nlohmann::ordered_json line = {{"number", message.number},
                                       {"time", BriskTrace::timeText(message.nanoseconds)},
                                       {"nanoseconds", message.nanoseconds},
                                       {"class", message.className},
                                       {"function", message.function},
                                       {"file", message.file},
                                       {"line", message.line},
                                       {"id", message.id},
                                       {"arguments", message.arguments},
                                       {"text", message.text}};
  // Texts of a damaged file may be no UTF-8.
  return line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace Kelp
