#include "BrioSharedMem/EntityPath.h"

namespace BrioSharedMem {
namespace {

constexpr std::string_view kHexDigits = "0123456789ABCDEF";

bool standsForItself(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
         c == '-' || c == ':';
}

// Calls visit(part, last) for each part of `text`.
template <class Visit>
bool eachPart(std::string_view text, Visit&& visit) {
  for (;;) {
    const std::size_t end = text.find('/');
    if (!visit(text.substr(0, end), end == std::string_view::npos)) {
      return false;
    }
    if (end == std::string_view::npos) {
      return true;
    }
    text.remove_prefix(end + 1);
  }
}

}  // namespace

Lumen::String encodedPart(std::string_view part) {
  Lumen::String name;
  if (part.empty()) {
    name += '%';
  }
  for (const char c : part) {
    if (standsForItself(c)) {
      name += c;
    } else {
      const auto byte = static_cast<unsigned char>(c);
      name += '%';
      name += kHexDigits[byte >> 4];
      name += kHexDigits[byte & 0xf];
    }
  }
  return name;
}

Lumen::String encodedPath(std::string_view path) {
  Lumen::String name;
  eachPart(path, [&](std::string_view part, bool last) {
    name += encodedPart(part);
    if (!last) {
      name += '/';
    }
    return true;
  });
  return name;
}

std::optional<Lumen::String> decodedPath(std::string_view name) {
  Lumen::String path;
  const bool good = eachPart(name, [&](std::string_view part, bool last) {
    if (part.empty()) {
      return false;
    }
    for (std::size_t i = 0; part != "%" && i < part.size(); ++i) {
      if (standsForItself(part[i])) {
        path += part[i];
        continue;
      }
      if (part[i] != '%' || i + 2 >= part.size()) {
        return false;
      }
      const std::size_t high = kHexDigits.find(part[i + 1]);
      const std::size_t low = kHexDigits.find(part[i + 2]);
      if (high == std::string_view::npos || low == std::string_view::npos) {
        return false;
      }
      path += static_cast<char>(high << 4 | low);
      i += 2;
    }
    if (!last) {
      path += '/';
    }
    return true;
  });
  // "%41" would name what "A" names already.
  if (!good || encodedPath(path) != name) {
    return std::nullopt;
  }
  return path;
}

}  // namespace BrioSharedMem
