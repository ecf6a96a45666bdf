#pragma once

#include <memory>
#include <new>
#include <type_traits>

#include "Brio/InspectCollection.h"
#include "Brio/InspectStore.h"
#include "Lumen/ModuleInspectData.h"
#include "Lumen/SlabAlloc.h"

namespace Brio {

using BrioAttr = Lumen::FieldDescriptor;

// What an iterator of a collection attribute is driven with.
struct IteratorFunctions {
  // Stores the present value; null, or the default, if the member is gone. Of a set: true.
  void (*iterObj)(BrioAttr attribute, const void* iterator, void* out);
  // Stores the key as the iterator sees it.
  void (*iterKey)(BrioAttr attribute, const void* iterator, void* out);
  // Whether there is a current member.
  bool (*iterNonnull)(BrioAttr attribute, const void* iterator);
  void (*iterInc)(BrioAttr attribute, void* iterator);
  // Destroys and frees the iterator.
  void (*iterDel)(BrioAttr attribute, void* iterator);
  // To the next member that is there, or to the end, if the current one is gone; keeps no member
  // that has left.
  void (*iterSettle)(BrioAttr attribute, void* iterator);
};

// The iterators of collections of one type.
template <class Collection>
struct GenericIterator {
  using Access = InspectCollection<Collection>;
  using Iterator = typename Access::Iterator;
  using Key = typename Access::Key;
  using Value = typename Access::Value;

  // At the first member, or at `key`; null if there is no memory.
  static void* make(const Collection& in, const Key* key) {
    void* const memory = PoolSlab::slabAllocOrStdMalloc(sizeof(Iterator));
    if (memory == nullptr) {
      return nullptr;
    }
    try {
      return key == nullptr ? ::new (memory) Iterator(in) : ::new (memory) Iterator(in, *key);
    } catch (const std::bad_alloc&) {
      PoolSlab::slabFreeOrStdFree(memory, sizeof(Iterator));
      return nullptr;
    }
  }
  static void iterObj(BrioAttr, const void* iterator, void* out) {
    if constexpr (std::is_void_v<Value>) {
      inspectStore(out, true);
    } else {
      const auto* node = static_cast<const Iterator*>(iterator)->present();
      if (node == nullptr) {
        inspectStore(out, inspectAbsent<Value>());
      } else {
        inspectStore(out, Access::valueOf(*node));
      }
    }
  }
  static void iterKey(BrioAttr, const void* iterator, void* out) {
    inspectStore(out, static_cast<const Iterator*>(iterator)->key());
  }
  static bool iterNonnull(BrioAttr, const void* iterator) {
    return static_cast<const Iterator*>(iterator)->nonnull();
  }
  static void iterInc(BrioAttr, void* iterator) { static_cast<Iterator*>(iterator)->advance(); }
  static void iterDel(BrioAttr, void* iterator) {
    std::destroy_at(static_cast<Iterator*>(iterator));
    PoolSlab::slabFreeOrStdFree(iterator, sizeof(Iterator));
  }
  static void iterSettle(BrioAttr, void* iterator) {
    auto& at = *static_cast<Iterator*>(iterator);
    while (at.nonnull() && at.present() == nullptr) {
      at.advance();
    }
    if constexpr (requires { at.letGo(); }) {
      if (at.nonnull()) {
        at.letGo();
      }
    }
  }

  static constexpr IteratorFunctions kFunctions{&iterObj, &iterKey, &iterNonnull,
                                                &iterInc, &iterDel, &iterSettle};
};

}  // namespace Brio
