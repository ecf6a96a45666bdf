#pragma once

#include <string_view>

#include "Lumen/Ptr.h"
#include "Lumen/String.h"
#include "Vault/Entity.h"
#include "Vault/Store.h"

namespace Vault {

// How the rows of one type become objects.
struct EntityType {
  const char* name;
  const char* initialValue;
  Lumen::Ptr<Entity> (*make)(const Lumen::Ptr<Store>& store, const Lumen::String& path);

  // Null if nobody registered the name.
  [[nodiscard]] static const EntityType* find(std::string_view name);
};

namespace Impl {

void entityTypeIs(const EntityType& type);

}  // namespace Impl

// Makes a type known by its name for the life of the process. Make it a static of the type's own
// source file.
template <class T>
struct EntityTypeRegistrar {
  EntityTypeRegistrar() {
    Impl::entityTypeIs(
        {T::kTypeName, T::kInitialValue,
         [](const Lumen::Ptr<Store>& store, const Lumen::String& path) -> Lumen::Ptr<Entity> {
           return Lumen::makeNode<T>(store, path);
         }});
  }
};

}  // namespace Vault
