#pragma once

#include <fmt/format.h>

#include <array>
#include <cstddef>
#include <span>
#include <vector>

#include "Asic/InspectClasses.h"
#include "Asic/LogVersion.h"
#include "Brio/Attributes.h"
#include "Lumen/Node.h"
#include "Lumen/Ptr.h"
#include "PoolSlab/Slabbed.h"

namespace Asic {

// The dependencies of one log record: the versions that other tables must have reached before it
// may be programmed. One version per table, the highest that was added. Up to four tables without a
// heap allocation.
class NeededEntry final : public Lumen::Node, public PoolSlab::Slabbed<NeededEntry> {
 public:
  static constexpr const char* className() { return "NeededEntry"; }
  static constexpr auto attributes() {
    return Brio::attributeList(130, Brio::view("versions", &NeededEntry::versionList));
  }
  static constexpr const Lumen::TypeData& classData() { return kInspectClass<18, "NeededEntry">; }
  [[nodiscard]] const Lumen::TypeData& typeData() const override { return classData(); }

  NeededEntry() = default;
  ~NeededEntry() override;

  void add(const TableVersion& version);
  // Adds every version of `other`; a null pointer adds nothing.
  void merge(const Lumen::Ptr<const NeededEntry>& other);

  // In the order of adding.
  [[nodiscard]] std::span<const TableVersion> versions() const noexcept {
    return overflow_.empty() ? std::span(inline_.data(), count_) : std::span(overflow_);
  }
  [[nodiscard]] bool empty() const noexcept { return count_ == 0; }

 private:
  [[nodiscard]] std::vector<TableVersion> versionList() const {
    const auto all = versions();
    return {all.begin(), all.end()};
  }

  std::array<TableVersion, 4> inline_;
  std::size_t count_ = 0;
  std::vector<TableVersion> overflow_;  // all of them, once there are more than four
};

}  // namespace Asic

template <>
struct fmt::formatter<Asic::NeededEntry> {
  constexpr auto parse(fmt::format_parse_context& context) { return context.begin(); }
  template <class Context>
  auto format(const Asic::NeededEntry& needed, Context& context) const {
    auto out = context.out();
    *out++ = '{';
    bool first = true;
    for (const Asic::TableVersion& version : needed.versions()) {
      out = fmt::format_to(out, "{}{}", first ? "" : ", ", version);
      first = false;
    }
    *out++ = '}';
    return out;
  }
};

// A null set and an empty one print alike.
template <class T>
requires std::same_as<std::remove_const_t<T>, Asic::NeededEntry>
struct fmt::formatter<Lumen::Ptr<T>> {
  constexpr auto parse(fmt::format_parse_context& context) { return context.begin(); }
  template <class Context>
  auto format(const Lumen::Ptr<T>& needed, Context& context) const {
    return needed ? fmt::format_to(context.out(), "{}", *needed)
                  : fmt::format_to(context.out(), "{{}}");
  }
};
