#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>

#include "Asic/EntryState.h"
#include "KelpTunnelNiLib/ResourceTableSet.h"
#include "Lumen/Ptr.h"
#include "Lumen/Publisher.h"

// The kinds of resources by name, and keys of any of them. A kind's number is its position in
// KelpTunnelNiLib::forEachResourceKind().

namespace Common {

// What intents call them, by number.
inline constexpr std::array<std::string_view, 3> kResourceNames = {"inLifIndex", "vlanEditProfile",
                                                                   "remarkProfile"};

// The index of the variant is the number of the kind.
using AnyResourceKey =
    std::variant<KelpTunnelNiLib::InLifIndexKind::Key, KelpTunnelNiLib::EveResourceTableKind::Key,
                 KelpQos::EgressRemarkProfileKind::Key>;

// The number of Kind.
template <class Kind>
[[nodiscard]] constexpr std::size_t resourceNumber() {
  std::size_t number = kResourceNames.size();
  std::size_t at = 0;
  KelpTunnelNiLib::forEachResourceKind([&](auto tag) {
    number = std::is_same_v<typename decltype(tag)::type, Kind> ? at : number;
    ++at;
  });
  return number;
}
template <class Kind>
[[nodiscard]] constexpr std::string_view resourceName() {
  constexpr std::size_t number = resourceNumber<Kind>();
  static_assert(number < kResourceNames.size());
  static_assert(
      std::is_same_v<std::variant_alternative_t<number, AnyResourceKey>, typename Kind::Key>);
  return kResourceNames[number];
}

// Calls `visit` with the ResourceKindTag of the kind of this number; nothing if there is none.
template <class Visit>
void withResourceKind(std::size_t number, Visit&& visit) {
  std::size_t at = 0;
  KelpTunnelNiLib::forEachResourceKind([&](auto tag) {
    if (at++ == number) {
      visit(tag);
    }
  });
}

// Adds a key in the form that intents have.
void appendKey(std::string& out, const AnyResourceKey& key);

// "given out", "being prepared", "refused".
[[nodiscard]] std::string_view stateText(Asic::EntryState state) noexcept;

// A resource that an entry names and can't have, or not yet.
struct MissingResource {
  std::size_t resource = 0;  // the number of its kind
  Lumen::Ptr<const PactResourceTable::ResourceHandle> handle;
  Lumen::FieldId field;    // under which the handle's publisher tells of a change
  bool exhausted = false;  // all indexes of its table are taken

  [[nodiscard]] AnyResourceKey key() const;
  [[nodiscard]] bool failed() const { return Asic::isFailed(handle->entryState()); }
  // "vlanEditProfile is refused", "waits for vlanEditProfile {...}: being prepared". The second
  // form is for one that may still come.
  [[nodiscard]] std::string text() const;
};

}  // namespace Common
