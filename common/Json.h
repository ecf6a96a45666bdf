#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

// JSON as the programs read and write it: what stands in the input and is wrong is named with its
// place and the remedy.

namespace Common {

using Json = nlohmann::json;

// Input that can't be taken. The text says what is wrong and what to write instead; it is one line
// of printable ASCII, however odd the input was.
class InputError : public std::runtime_error {
 public:
  explicit InputError(std::string_view text);
};

// Where in a line a value stands. Prints as "after.key.vlan"; built on the stack while a reader
// goes down, and put into words only if something is wrong there.
struct Place {
  std::string_view name;
  const Place* outer = nullptr;

  [[nodiscard]] std::string text() const;
};

// Parses one line. Throws InputError: not JSON, not an object, a name that stands twice in an
// object, more names in one or deeper nested than any input has reason to.
[[nodiscard]] Json parseLine(std::string_view line);

// Throws InputError "PLACE is WRONG: EXPECTED".
[[noreturn]] void failAt(const Place& place, std::string_view wrong, std::string_view remedy);
// The same for a value that is of the wrong type or out of range; shows it, shortened.
[[noreturn]] void failValue(const Place& place, const Json& json, std::string_view remedy);

// Throws InputError if a name in the object `json` is not among `known`.
void checkNames(const Json& json, const std::vector<std::string_view>& known, const Place& place);

// A whole number from 0 to `most`. Throws InputError.
[[nodiscard]] std::uint64_t readNumber(const Json& json, const Place& place, std::uint64_t most);
// A string. Throws InputError, which asks for `expected`.
[[nodiscard]] const std::string& readString(const Json& json, const Place& place,
                                            std::string_view expected);
// Throws InputError unless `json` is an object.
void checkObject(const Json& json, const Place& place);

// What the parser says is wrong, from the column on: "column 7: WHAT".
[[nodiscard]] std::string jsonErrorText(std::string_view what);
// Adds `text` as a JSON string. Bytes that are no UTF-8, as file names may hold, become U+FFFD, the
// replacement character, each.
void appendString(std::string& out, std::string_view text);
// `a, b and c`, and `"a", "b" or "c"`.
[[nodiscard]] std::string listText(const std::vector<std::string_view>& names);
[[nodiscard]] std::string choiceText(const std::vector<std::string_view>& names);

}  // namespace Common
