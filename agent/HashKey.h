#pragma once

#include <cstddef>

#include "Brio/Hash.h"
#include "common/Tables.h"

namespace Agent {

// For collections of the standard library by a key of any table.
struct HashKey {
  std::size_t operator()(const Common::AnyKey& key) const noexcept {
    return std::visit(
        [](const auto& of) -> std::size_t {
          return Brio::hashSingleAttr(Brio::HashHelper::hashSeed32(), of.key);
        },
        key);
  }
};

}  // namespace Agent
