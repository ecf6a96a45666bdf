#pragma once

#include <cstddef>
#include <tuple>
#include <type_traits>

#include "Lumen/Node.h"
#include "Lumen/Ptr.h"

// The types behind a pointer to a member, for code that is made from an attribute list.

namespace Brio {

// Result is what a read or a call yields, without reference and const; Args are the parameters as
// they are declared.
template <class Member>
struct MemberTypes {
  using Result = void;
  using Args = std::tuple<>;
  static constexpr bool kIsData = false;
  static constexpr bool kIsConst = true;
};

namespace Impl {

template <class R, bool isConst, class... A>
struct FunctionTypes {
  using Result = std::remove_cvref_t<R>;
  using Args = std::tuple<A...>;
  static constexpr bool kIsData = false;
  static constexpr bool kIsConst = isConst;
};

}  // namespace Impl

template <class V, class C>
struct MemberTypes<V C::*> {
  using Result = std::remove_cv_t<V>;
  using Args = std::tuple<>;
  static constexpr bool kIsData = true;
  static constexpr bool kIsConst = true;
};
template <class R, class C, class... A>
struct MemberTypes<R (C::*)(A...)> : Impl::FunctionTypes<R, false, A...> {};
template <class R, class C, class... A>
struct MemberTypes<R (C::*)(A...) noexcept> : Impl::FunctionTypes<R, false, A...> {};
template <class R, class C, class... A>
struct MemberTypes<R (C::*)(A...) const> : Impl::FunctionTypes<R, true, A...> {};
template <class R, class C, class... A>
struct MemberTypes<R (C::*)(A...) const noexcept> : Impl::FunctionTypes<R, true, A...> {};
template <class R, class... A>
struct MemberTypes<R (*)(A...)> : Impl::FunctionTypes<R, false, A...> {};
template <class R, class... A>
struct MemberTypes<R (*)(A...) noexcept> : Impl::FunctionTypes<R, false, A...> {};

// What a value refers to: the class behind a Lumen::Ptr or a back pointer, else the type itself.
template <class V>
struct ReferredTo {
  using Type = V;
  static constexpr bool kIsPtr = false;
  static constexpr bool kIsNode = false;
};
template <class X>
struct ReferredTo<Lumen::Ptr<X>> {
  using Type = std::remove_const_t<X>;
  static constexpr bool kIsPtr = true;
  static constexpr bool kIsNode = true;
};
template <class X>
struct ReferredTo<X*> {
  using Type = std::remove_const_t<X>;
  static constexpr bool kIsPtr = false;
  static constexpr bool kIsNode = true;
};

}  // namespace Brio
