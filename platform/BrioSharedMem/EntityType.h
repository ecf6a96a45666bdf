#pragma once

#include "BrioQuilt/QuiltEntity.h"
#include "Lumen/Ptr.h"
#include "Lumen/String.h"

namespace BrioSharedMem {

enum class BrioSharedMemType : unsigned char { none = 0, quilt = 1 };

// Makes an entity of one class. Throws StoreError.
using EntityFactory = Lumen::Ptr<BrioQuilt::QuiltEntity> (*)(const BrioQuilt::Opening&);

// Enters the factory of a type name. One that is there already stays: a header's registrar may
// stand in several libraries of a process.
void entityFactoryIs(const Lumen::String& typeName, EntityFactory factory);
// The factory of a type name, or null.
[[nodiscard]] EntityFactory entityFactory(const Lumen::String& typeName);

// Makes `typeName` mountable in this process. A static object beside the class E, which is a
// BrioQuilt::CollectionEntity or derives from one with its constructors.
template <class E>
struct EntityTypeRegistrar {
  explicit EntityTypeRegistrar(const char* typeName) {
    entityFactoryIs(typeName,
                    [](const BrioQuilt::Opening& opening) -> Lumen::Ptr<BrioQuilt::QuiltEntity> {
                      return Lumen::makeNode<E>(opening);
                    });
  }
};

}  // namespace BrioSharedMem
