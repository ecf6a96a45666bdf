#pragma once

#include <type_traits>

#include "Brio/MemberTypes.h"
#include "Lumen/Inspect.h"

// How values go to and come from the void pointers of the inspection surface (Lumen/Inspect.h).

namespace Brio {

// Any node, as the surface carries it.
template <class X>
[[nodiscard]] Lumen::Node* inspectNode(X* node) noexcept {
  return const_cast<Lumen::Node*>(static_cast<const Lumen::Node*>(node));
}

// Stores a value; nothing if `result` is null.
template <class V>
void inspectStore(void* result, const V& value) {
  using To = ReferredTo<V>;
  if (result == nullptr) {
    return;
  }
  if constexpr (To::kIsPtr) {
    *static_cast<Lumen::Ptr<Lumen::Node>*>(result) =
        Lumen::Ptr<Lumen::Node>(inspectNode(value.get()));
  } else if constexpr (To::kIsNode) {
    *static_cast<Lumen::Node**>(result) = inspectNode(value);
  } else {
    *static_cast<V*>(result) = value;
  }
}

// The value behind an argument or a key, for a parameter of type P.
template <class P>
[[nodiscard]] decltype(auto) inspectLoad(const void* at) {
  using V = std::remove_cvref_t<P>;
  using To = ReferredTo<V>;
  if constexpr (To::kIsPtr) {
    const auto& node = *static_cast<const Lumen::Ptr<Lumen::Node>*>(at);
    return V(static_cast<typename To::Type*>(node.get()));
  } else if constexpr (To::kIsNode) {
    return static_cast<V>(static_cast<typename To::Type*>(*static_cast<Lumen::Node* const*>(at)));
  } else {
    return (*static_cast<const V*>(at));
  }
}

// What stands for an absent member: a type's own invalid value, or else the default.
template <class V>
[[nodiscard]] V inspectAbsent() {
  if constexpr (requires { V::invalid(); }) {
    return V::invalid();
  } else {
    return V{};
  }
}

}  // namespace Brio
