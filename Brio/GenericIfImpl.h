#pragma once

#include "Lumen/Node.h"
#include "Lumen/Publisher.h"
#include "Lumen/TypeData.h"

namespace Brio::GenericIfImpl {

// What a tool does with any object, whose class it does not know.
struct PtrInterfaceMethods {
  void (*refInc)(const void* object);
  void (*refDec)(const void* object);
  const Lumen::TypeData& (*typeData)(const void* object);
  Lumen::Publisher* (*publisher)(const void* object);  // null: the object publishes nothing
};

template <class NodeT>
struct GenericIfPtrInterfaceMethods {
  static const NodeT& at(const void* object) noexcept { return *static_cast<const NodeT*>(object); }
  static void refInc(const void* object) { at(object).refInc(); }
  static void refDec(const void* object) { at(object).refDec(); }
  static const Lumen::TypeData& typeData(const void* object) { return at(object).typeData(); }
  static Lumen::Publisher* publisher(const void* object) { return at(object).publisher(); }

  static constexpr PtrInterfaceMethods vtable_{&refInc, &refDec, &typeData, &publisher};
};

}  // namespace Brio::GenericIfImpl
