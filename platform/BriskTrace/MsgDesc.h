#pragma once

#include <cstdint>
#include <string_view>

#include "BriskTrace/TraceFile.h"
#include "Lumen/String.h"

namespace BriskTrace {

// The kinds of a message's arguments, one letter each in their order: "s" 16 bits, "i" 32 bits, "q"
// 64 bits, all unsigned.
class MsgFormatString {
 public:
  // Adds one argument's letter. Asserts that it is a known one.
  void put(std::string_view letter);
  [[nodiscard]] const Lumen::String& letters() const noexcept { return letters_; }

 private:
  Lumen::String letters_;
};

// Builds the descriptor of one call site for one trace file: put the letters, set the texts with
// msgDesc(), finish().
class MsgDesc {
 public:
  // Gives the site an id if it has none (`*id` is 0). Asserts that the id is not negative: "msgId_
  // >= 0".
  MsgDesc(TraceFile& traceFile, std::int32_t* id, const char* file, int line);

  [[nodiscard]] MsgFormatString& formatString() noexcept { return formatString_; }
  // Writes the descriptor to the file, which knows the id from then on. Texts of more than 4096
  // bytes are cut.
  void finish();

 private:
  friend void msgDesc(MsgDesc& desc, std::string_view className, std::string_view function,
                      std::string_view format);

  TraceFile& traceFile_;
  std::int32_t msgId_;
  Lumen::String file_;
  int line_;
  MsgFormatString formatString_;
  Lumen::String className_;
  Lumen::String function_;
  Lumen::String format_;
};

// Sets the texts of a descriptor. `format` has one {} per argument.
void msgDesc(MsgDesc& desc, std::string_view className, std::string_view function,
             std::string_view format);

}  // namespace BriskTrace
