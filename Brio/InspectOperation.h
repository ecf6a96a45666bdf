#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <tuple>
#include <type_traits>
#include <utility>

#include "Brio/Attributes.h"
#include "Brio/GenericIterator.h"
#include "Brio/InspectStore.h"
#include "Lumen/Inspect.h"

// What inspection does with one attribute, made from its place in the attribute list of its class.

namespace Brio {

template <class Class>
inline constexpr auto kAttributesOf = Class::attributes();

template <class Class>
inline constexpr std::size_t kAttributeCount = decltype(Class::attributes())::size();

template <class Class, std::size_t i>
inline constexpr const auto& kAttribute = std::get<i>(kAttributesOf<Class>.attributes);

template <class Class, std::size_t i>
using AttributeType = std::remove_cvref_t<decltype(kAttribute<Class, i>)>;

template <class Class, std::size_t i>
inline constexpr bool kIsCollection = kAttribute<Class, i>.kind == AttributeKind::collection ||
                                      kAttribute<Class, i>.kind == AttributeKind::queue;

namespace Impl {

using Lumen::Inspect::kDone;
using Lumen::Inspect::kNotValid;

// Gives each argument of the type that `check` takes to it.
template <class Class, class Check, class... A>
void inspectCheck(Class& object, Check check, const A&... args) {
  using Wanted = std::remove_cvref_t<std::tuple_element_t<0, typename MemberTypes<Check>::Args>>;
  const auto each = [&](const auto& arg) {
    if constexpr (std::is_same_v<std::remove_cvref_t<decltype(arg)>, Wanted>) {
      std::invoke(check, object, arg);
    }
  };
  (each(args), ...);
}

// Calls a member function, or a static one, with arguments out of an array of pointers. What it
// gives back is stored, if anything.
template <class Class, class Function, class Check = std::nullptr_t>
int inspectCall(Class& object, Function function, void* result, void* args, Check check = {}) {
  using Types = MemberTypes<Function>;
  using Args = typename Types::Args;
  auto* const pointers = static_cast<void* const*>(args);
  if (std::tuple_size_v<Args> != 0 && pointers == nullptr) {
    return kNotValid;
  }
  const auto run = [&]<std::size_t... n>(std::index_sequence<n...>)->decltype(auto) {
    if constexpr (!std::is_same_v<Check, std::nullptr_t>) {
      inspectCheck(object, check, inspectLoad<std::tuple_element_t<n, Args>>(pointers[n])...);
    }
    if constexpr (std::is_pointer_v<Function>) {
      return function(inspectLoad<std::tuple_element_t<n, Args>>(pointers[n])...);
    } else {
      return std::invoke(function, object,
                         inspectLoad<std::tuple_element_t<n, Args>>(pointers[n])...);
    }
  };
  constexpr auto kEach = std::make_index_sequence<std::tuple_size_v<Args>>();
  using Result = typename Types::Result;
  if constexpr (std::is_void_v<Result>) {
    run(kEach);
  } else if constexpr (ReferredTo<Result>::kIsPtr) {
    const Result made = run(kEach);
    Lumen::Inspect::opResEncRelNode(result, Lumen::Ptr<Lumen::Node>(inspectNode(made.get())));
  } else {
    inspectStore(result, run(kEach));
  }
  return kDone;
}

// What a set holds and what a map's absent member is, stored.
template <class Access, class Found>
void inspectStoreMember(void* result, const Found* found) {
  using Value = typename Access::Value;
  if constexpr (std::is_void_v<Value>) {
    inspectStore(result, found != nullptr);
  } else if (found == nullptr) {
    inspectStore(result, inspectAbsent<Value>());
  } else {
    inspectStore(result, Access::valueOf(*found));
  }
}

template <class Collection, class Class, class Deleter>
int inspectDelete(const Collection& in, Class& object, Deleter deleter, void* result,
                  const void* key) {
  using Access = InspectCollection<Collection>;
  using Deleted = typename MemberTypes<Deleter>::Result;
  const auto& typedKey = inspectLoad<typename Access::Key>(key);
  if constexpr (std::is_void_v<Deleted>) {
    const bool there = Access::find(in, typedKey) != nullptr;
    (object.*deleter)(typedKey);
    inspectStore(result, there);
  } else {
    const Deleted old = (object.*deleter)(typedKey);
    inspectStore(result, old);
  }
  return kDone;
}

template <class Collection, class Class, class Attribute>
int inspectCollection(const Collection& in, Class& object, const Attribute& attribute,
                      unsigned char operation, void* result, const void* key, void* args) {
  using Access = InspectCollection<Collection>;
  switch (operation) {
    case Lumen::Inspect::kWrite:
      if constexpr (!std::is_same_v<typename Attribute::Writer, std::nullptr_t>) {
        return inspectCall(object, attribute.writer, result, args);
      }
      return kNotValid;
    case Lumen::Inspect::kDelete:
      if constexpr (!std::is_same_v<typename Attribute::Deleter, std::nullptr_t>) {
        return key == nullptr ? kNotValid
                              : inspectDelete(in, object, attribute.deleter, result, key);
      }
      return kNotValid;
    case Lumen::Inspect::kCount:
      inspectStore(result, Access::size(in));
      return kDone;
    case Lumen::Inspect::kSecondSize:
      inspectStore(result, Access::secondSize(in));
      return kDone;
    case Lumen::Inspect::kHas:
      if (key == nullptr) {
        return kNotValid;
      }
      inspectStore(result, Access::find(in, inspectLoad<typename Access::Key>(key)) != nullptr);
      return kDone;
    case Lumen::Inspect::kRead:
    case Lumen::Inspect::kLookup:
      if (key == nullptr) {
        return kNotValid;
      }
      inspectStoreMember<Access>(result, Access::find(in, inspectLoad<typename Access::Key>(key)));
      return kDone;
    default:
      return kNotValid;
  }
}

template <class Class, std::size_t i>
int inspectAttribute(Class& object, unsigned char operation, void* result, const void* key,
                     void* args) {
  constexpr const auto& kThis = kAttribute<Class, i>;
  using Attribute = AttributeType<Class, i>;
  if constexpr (!kThis.served) {
    return kNotValid;
  } else if constexpr (kIsCollection<Class, i>) {
    const auto& in = std::invoke(kThis.member, std::as_const(object));
    return inspectCollection(in, object, kThis, operation, result, key, args);
  } else if constexpr (kThis.kind == AttributeKind::operation) {
    return operation == Lumen::Inspect::kCall
               ? inspectCall(object, kThis.member, result, args, kThis.check)
               : kNotValid;
  } else {
    if (operation == Lumen::Inspect::kRead) {
      using Value = typename MemberTypes<typename Attribute::Member>::Result;
      inspectStore<Value>(result, std::invoke(kThis.member, std::as_const(object)));
      return kDone;
    }
    if constexpr (!std::is_same_v<typename Attribute::Writer, std::nullptr_t>) {
      if (operation == Lumen::Inspect::kWrite) {
        return inspectCall(object, kThis.writer, result, args);
      }
    }
    return kNotValid;
  }
}

template <class Class>
using InspectAttribute = int (*)(Class&, unsigned char, void*, const void*, void*);

// By field id, from the first on.
template <class Class>
inline constexpr auto kInspectAttributes = []<std::size_t... i>(std::index_sequence<i...>) {
  return std::array<InspectAttribute<Class>, sizeof...(i)>{&inspectAttribute<Class, i>...};
}
(std::make_index_sequence<kAttributeCount<Class>>());

template <class Class, std::size_t i>
void* inspectIterator(const Class& object, const void* key, const void** functions) {
  if constexpr (kAttribute<Class, i>.served && kIsCollection<Class, i>) {
    const auto& in = std::invoke(kAttribute<Class, i>.member, object);
    using Made = GenericIterator<std::remove_cvref_t<decltype(in)>>;
    *functions = &Made::kFunctions;
    return Made::make(in, static_cast<const typename Made::Key*>(key));
  } else {
    return nullptr;
  }
}

template <class Class>
using InspectIterator = void* (*)(const Class&, const void*, const void**);

template <class Class>
inline constexpr auto kInspectIterators = []<std::size_t... i>(std::index_sequence<i...>) {
  return std::array<InspectIterator<Class>, sizeof...(i)>{&inspectIterator<Class, i>...};
}
(std::make_index_sequence<kAttributeCount<Class>>());

}  // namespace Impl
}  // namespace Brio
