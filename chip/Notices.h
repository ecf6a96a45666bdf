#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>

namespace Chip {

// What the hardware side has to tell people, a line at a time. What a damaged or hostile store can
// cause without end is told by topic: the first few of each, and then that the rest is only
// counted.
class Notices {
 public:
  using Sink = std::function<void(std::string_view)>;

  static constexpr std::uint64_t kToldOfATopic = 5;

  // An empty sink takes the lines to stderr, each behind "kelp-chip: ".
  explicit Notices(Sink sink);

  void say(std::string_view text);
  void tell(std::string_view topic, std::string_view text);
  // Told or not.
  [[nodiscard]] std::uint64_t countOf(std::string_view topic) const;

 private:
  Sink sink_;
  std::map<std::string, std::uint64_t, std::less<>> counts_;
};

}  // namespace Chip
