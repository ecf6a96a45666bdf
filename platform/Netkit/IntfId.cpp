#include "Netkit/IntfId.h"

#include <array>
#include <charconv>
#include <stdexcept>
#include <string_view>

namespace Netkit {
namespace {

constexpr std::array<std::string_view, 5> kKinds = {"Ethernet", "Lag", "Vlan", "Tunnel",
                                                    "Loopback"};

// The number at the front of `text`, which loses it.
std::uint64_t takeNumber(std::string_view& text, std::uint64_t most, const Lumen::String& name) {
  std::uint64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || number > most) {
    throw std::invalid_argument(fmt::format(
        "interface name '{}': expected a number of at most {} before '{}'", name, most, text));
  }
  text.remove_prefix(static_cast<std::size_t>(end - text.data()));
  return number;
}

}  // namespace

void IntfId::handleInitialized(const Lumen::String& name) {
  value = 0;
  if (name.empty()) {
    return;
  }
  for (std::size_t kind = 0; kind < kKinds.size(); ++kind) {
    std::string_view rest = name;
    if (rest.substr(0, kKinds[kind].size()) != kKinds[kind]) {
      continue;
    }
    rest.remove_prefix(kKinds[kind].size());
    std::uint64_t id = static_cast<std::uint64_t>(kind + 1) << 56;
    id |= takeNumber(rest, 0xffff, name) << 40;
    if (rest.substr(0, 1) == "/") {
      rest.remove_prefix(1);
      id |= takeNumber(rest, 0xffff, name) << 24;
    }
    if (rest.substr(0, 1) == ".") {
      rest.remove_prefix(1);
      id |= takeNumber(rest, 0xffffff, name);
    }
    if (!rest.empty()) {
      throw std::invalid_argument(
          fmt::format("interface name '{}': '{}' left over at the end", name, rest));
    }
    value = id;
    return;
  }
  throw std::invalid_argument(fmt::format(
      "interface name '{}': expected Ethernet, Lag, Vlan, Tunnel or Loopback and a number", name));
}

Lumen::String IntfId::name() const {
  const std::uint64_t kind = value >> 56;
  if (kind == 0 || kind > kKinds.size()) {
    return value == 0 ? Lumen::String() : fmt::format("intf-{:#x}", value);
  }
  Lumen::String text = fmt::format("{}{}", kKinds[kind - 1], (value >> 40) & 0xffff);
  if (const std::uint64_t port = (value >> 24) & 0xffff; port != 0) {
    text += fmt::format("/{}", port);
  }
  if (const std::uint64_t sub = value & 0xffffff; sub != 0) {
    text += fmt::format(".{}", sub);
  }
  return text;
}

}  // namespace Netkit
