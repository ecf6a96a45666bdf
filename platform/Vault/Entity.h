#pragma once

#include <utility>

#include "Brio/Entity.h"
#include "Lumen/Ptr.h"
#include "Lumen/String.h"
#include "Vault/Store.h"

namespace Vault {

// An entity of the state database. It holds no copy of its value: every read sees what any process
// wrote last, for some microseconds each. An entity may outlive its manager, and its row: it then
// reads as its type's initial value, and a change throws VaultError.
//
// A class of its own derives from it, takes the same constructor arguments, and has
//   static constexpr const char* kTypeName     what stands in the database
//   static constexpr const char* kInitialValue the value of a new row
// and a static EntityTypeRegistrar. A row whose type nobody registered yields a plain Entity.
class Entity : public Brio::Entity {
 public:
  Entity(Lumen::Ptr<Store> store, const Lumen::String& path)
      : Brio::Entity(path), store_(std::move(store)) {}
  ~Entity() override;

  [[nodiscard]] const Lumen::String& path() const noexcept { return entityName(); }

 protected:
  [[nodiscard]] Store& store() const noexcept { return *store_; }

 private:
  Lumen::Ptr<Store> store_;
};

}  // namespace Vault
