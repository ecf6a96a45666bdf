#pragma once

#include <termios.h>

#include <cstddef>
#include <string>
#include <vector>

namespace Kelp {

// The screen of the terminal that the standard output leads to, for as long as this lives; then the
// terminal is as it was. Keys are read from the standard input, if that is a terminal.
class Terminal {
 public:
  // Both streams as they are are asked: whether there is a terminal to draw on.
  [[nodiscard]] static bool isThere();

  Terminal();
  ~Terminal();
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  // Shows these lines, cut to the size of the screen.
  void show(const std::vector<std::string>& lines) const;
  // Readable when a key comes; negative if none can.
  [[nodiscard]] int keys() const noexcept { return hasKeys_ ? 0 : -1; }
  // The next key that was pressed, or 0.
  [[nodiscard]] char key() const;

 private:
  bool hasKeys_ = false;
  termios before_{};
};

}  // namespace Kelp
