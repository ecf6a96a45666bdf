#pragma once

#include <cstdint>

#include "Vault/Entity.h"

namespace Asic {

// A counter of generations, kept in the state database. Any process may read it, and raise it.
class GenId final : public Vault::Entity {
 public:
  static constexpr const char* kTypeName = "Asic::GenId";
  static constexpr const char* kInitialValue = "0";

  using Vault::Entity::Entity;
  ~GenId() override;

  // The generation now; 0 if the row is gone. Throws Vault::VaultError if the row holds no number.
  [[nodiscard]] std::uint64_t majorId() const;
  // Adds `step`. Durable when it returns. Throws Vault::VaultError, also if the row is gone.
  void majorIdInc(unsigned short step);
};

}  // namespace Asic
