#include "Brio/MutatorException.h"

#include <fmt/format.h>

namespace Brio {

MutatorException::~MutatorException() = default;

void throwMutatorArgNullPointerException(const char* name, Lumen::FieldId field) {
  throw MutatorException(
      fmt::format("mutator of attribute {}: argument '{}' is null", field.attribute(), name));
}

void Impl::throwMutatorReinstantiating(const char* name, Lumen::FieldId field) {
  throw MutatorException(fmt::format("mutator of attribute {}: a member with another '{}' exists",
                                     field.attribute(), name));
}

}  // namespace Brio
