#include "agent/Say.h"

#include <unistd.h>

namespace Agent {

void sayText(std::string_view text) noexcept {
  try {
    const std::string line = fmt::format("kelp-agent: {}\n", text);
    std::string_view rest = line;
    while (!rest.empty()) {
      const ssize_t count = write(STDERR_FILENO, rest.data(), rest.size());
      if (count <= 0) {
        return;
      }
      rest.remove_prefix(static_cast<std::size_t>(count));
    }
  } catch (const std::exception&) {
    // No memory for a message: there is nobody else to tell.
  }
}

}  // namespace Agent
