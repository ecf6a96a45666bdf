#pragma once

#include <cstddef>
#include <type_traits>

#include "Brio/InspectOperation.h"
#include "Lumen/ModuleInspectData.h"
#include "Lumen/Node.h"

namespace Lumen {

// The functions that serve a class to inspection, by field id. Class lists its attributes
// (Brio/Attributes.h); a static function factory() names what makes one, where it is made from
// outside. `object` is a Lumen::Node of that very class; Inspect.h tells how values travel.
template <class Class, class _Dummy = void>
struct HideMe {
  // Gives an Inspect::Result. Throws what the operation throws.
  static int inspectOperation(void* result, void* object, FieldDescriptor field,
                              unsigned char operation, void* key, void* args) {
    if constexpr (Brio::kAttributeCount<Class> != 0) {
      const std::size_t position = positionOf(field);
      if (position < Brio::kAttributeCount<Class>) {
        return Brio::Impl::kInspectAttributes<Class>[position](objectOf(object), operation, result,
                                                               key, args);
      }
    }
    return Inspect::kUnknownField;
  }

  // A new iterator of a collection attribute, at the first member or, if `key` is given, at the key
  // that it points to; at the end if that is absent. Its functions, a Brio::IteratorFunctions, go
  // to `iteratorFunctions`; iterDel frees it. Null for any other field, and without memory. The
  // object must outlive it.
  static void* genericIfIterator(void* object, void** key, FieldDescriptor field,
                                 const void** iteratorFunctions) {
    if constexpr (Brio::kAttributeCount<Class> != 0) {
      const std::size_t position = positionOf(field);
      if (position < Brio::kAttributeCount<Class>) {
        return Brio::Impl::kInspectIterators<Class>[position](
            objectOf(object), key == nullptr ? nullptr : *key, iteratorFunctions);
      }
    }
    return nullptr;
  }

  // A new object, from the arguments of the factory in declared order.
  static void genericIfConstructFromCtorArgs(void* result, void* const* args) {
    const auto made = [&] {
      constexpr auto kFactory = Class::factory();
      using Args = typename Brio::MemberTypes<std::remove_const_t<decltype(kFactory)>>::Args;
      return [&]<std::size_t... n>(std::index_sequence<n...>) {
        return kFactory(Brio::inspectLoad<std::tuple_element_t<n, Args>>(args[n])...);
      }
      (std::make_index_sequence<std::tuple_size_v<Args>>());
    }();
    Inspect::opResEncRelNode(result, Ptr<Node>(Brio::inspectNode(made.get())));
  }

 private:
  static Class& objectOf(void* object) noexcept {
    return *static_cast<Class*>(static_cast<Node*>(object));
  }
  // The field's place in the attribute list; one that is too large if it is not in the list.
  static std::size_t positionOf(FieldDescriptor field) noexcept {
    if (field.module == nullptr) {
      return Brio::kAttributeCount<Class>;
    }
    const unsigned id = field.module->attributeTable[field.attribute].fieldId;
    const unsigned first = Brio::kAttributesOf<Class>.firstId;
    return id < first ? Brio::kAttributeCount<Class> : id - first;
  }
};

}  // namespace Lumen
