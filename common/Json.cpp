#include "common/Json.h"

#include <fmt/format.h>

#include <algorithm>
#include <functional>
#include <vector>

namespace Common {
namespace {

// An intent of the deepest kind, a VLAN edit, is four objects deep.
constexpr int kDeepest = 8;
// And the widest of them has some ten names. So a search among them is short.
constexpr std::size_t kMostNames = 64;
constexpr std::size_t kLongestError = 600;
constexpr std::size_t kLongestShown = 48;

std::string printable(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (const char character : text.substr(0, kLongestError)) {
    if (character >= ' ' && character <= '~') {
      out += character;
    } else {
      out += fmt::format("\\x{:02x}", static_cast<unsigned char>(character));
    }
  }
  if (text.size() > kLongestError) {
    out += "...";
  }
  return out;
}

std::string shortened(std::string text) {
  if (text.size() > kLongestShown) {
    text.resize(kLongestShown - 3);
    text += "...";
  }
  return text;
}

std::string joined(const std::vector<std::string_view>& names, std::string_view last,
                   std::string_view quote) {
  std::string text;
  for (std::size_t i = 0; i < names.size(); ++i) {
    if (i != 0) {
      text += i + 1 == names.size() ? fmt::format(" {} ", last) : std::string(", ");
    }
    text += fmt::format("{}{}{}", quote, names[i], quote);
  }
  return text;
}

// Sees every step of the parser and refuses what a plain parse would silently accept.
class Watch {
 public:
  bool operator()(int depth, Json::parse_event_t event, Json& parsed) {
    switch (event) {
      case Json::parse_event_t::object_start:
      case Json::parse_event_t::array_start:
        if (depth >= kDeepest) {
          throw InputError(fmt::format(
              "nested deeper than {} levels: write an intent of the documented form", kDeepest));
        }
        names_[static_cast<std::size_t>(depth) + 1].clear();
        break;
      case Json::parse_event_t::key: {
        auto& names = names_[static_cast<std::size_t>(depth)];
        auto& name = parsed.get_ref<const std::string&>();
        if (std::find(names.begin(), names.end(), name) != names.end()) {
          throw InputError(fmt::format("\"{}\" stands twice: write it once", name));
        }
        if (names.size() == kMostNames) {
          throw InputError(
              fmt::format("an object of more than {} names: write an intent of the documented form",
                          kMostNames));
        }
        names.push_back(name);
        break;
      }
      default:
        break;
    }
    return true;
  }

 private:
  std::vector<std::string> names_[kDeepest + 2];  // of the objects that are open, by depth
};

// How many bytes of `text` are one character of UTF-8, from its first byte on; 0 if none: a byte
// that begins none, or a character that is cut off, written longer than needed, a surrogate or
// above the last one.
std::size_t utf8Length(std::string_view text) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char first = byte(0);
  if (first < 0x80) {
    return 1;
  }
  const std::size_t length = first < 0xc2   ? 0
                             : first < 0xe0 ? 2
                             : first < 0xf0 ? 3
                             : first < 0xf5 ? 4
                                            : 0;
  if (length == 0 || text.size() < length) {
    return 0;
  }
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xc0U) != 0x80) {
      return 0;
    }
  }
  const bool allowed = !((first == 0xe0 && byte(1) < 0xa0) || (first == 0xed && byte(1) > 0x9f) ||
                         (first == 0xf0 && byte(1) < 0x90) || (first == 0xf4 && byte(1) > 0x8f));
  return allowed ? length : 0;
}

}  // namespace

InputError::InputError(std::string_view text) : std::runtime_error(printable(text)) {}

std::string Place::text() const {
  return outer == nullptr ? std::string(name) : outer->text() + "." + std::string(name);
}

// "[...] parse error at line 1, column 7: WHAT" becomes "column 7: WHAT".
std::string jsonErrorText(std::string_view what) {
  const std::size_t column = what.find("column ");
  if (column != std::string_view::npos) {
    return std::string(what.substr(column));
  }
  const std::size_t bracket = what.find("] ");
  return std::string(bracket == std::string_view::npos ? what : what.substr(bracket + 2));
}

Json parseLine(std::string_view line) {
  Json json;
  try {
    Watch watch;
    json = Json::parse(line.begin(), line.end(), std::ref(watch));
  } catch (const Json::exception& error) {
    throw InputError(
        fmt::format(R"(not JSON, {}: write one object on a line, such as )"
                    R"({{"op":"remove","table":"EsemFodo","unit":0,"key":{{"fodo":5}}}})",
                    jsonErrorText(error.what())));
  }
  if (!json.is_object()) {
    throw InputError(fmt::format("{} is no object: write {{...}}", shortened(json.dump())));
  }
  return json;
}

void failAt(const Place& place, std::string_view wrong, std::string_view remedy) {
  throw InputError(fmt::format("{} is {}: {}", place.text(), wrong, remedy));
}

void failValue(const Place& place, const Json& json, std::string_view remedy) {
  failAt(place, shortened(json.dump()), remedy);
}

void checkNames(const Json& json, const std::vector<std::string_view>& known, const Place& place) {
  for (const auto& [name, value] : json.items()) {
    if (std::find(known.begin(), known.end(), name) == known.end()) {
      failAt(Place{name, &place}, "unknown",
             known.empty() ? std::string("leave it out")
                           : fmt::format("leave it out, or write {}", choiceText(known)));
    }
  }
}

std::uint64_t readNumber(const Json& json, const Place& place, std::uint64_t most) {
  if (!json.is_number_unsigned() || json.get<std::uint64_t>() > most) {
    failValue(place, json, fmt::format("write a whole number from 0 to {}", most));
  }
  return json.get<std::uint64_t>();
}

const std::string& readString(const Json& json, const Place& place, std::string_view expected) {
  if (!json.is_string()) {
    failValue(place, json, fmt::format("write {}", expected));
  }
  return json.get_ref<const std::string&>();
}

void checkObject(const Json& json, const Place& place) {
  if (!json.is_object()) {
    failValue(place, json, "write an object, {...}");
  }
}

void appendString(std::string& out, std::string_view text) {
  out += '"';
  while (!text.empty()) {
    const char character = text.front();
    const std::size_t length = utf8Length(text);
    if (length == 0) {
      out += "\\ufffd";
    } else if (character == '"' || character == '\\') {
      out += '\\';
      out += character;
    } else if (static_cast<unsigned char>(character) < ' ') {
      out += fmt::format("\\u{:04x}", static_cast<unsigned char>(character));
    } else {
      out += text.substr(0, length);
    }
    text.remove_prefix(std::max<std::size_t>(length, 1));
  }
  out += '"';
}

std::string listText(const std::vector<std::string_view>& names) {
  return joined(names, "and", "");
}

std::string choiceText(const std::vector<std::string_view>& names) {
  return joined(names, "or", "\"");
}

}  // namespace Common
