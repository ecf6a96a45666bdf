#pragma once

#include "Lumen/Exception.h"
#include "Lumen/Publisher.h"

namespace Brio {

// A mutator was called with an argument that it can't take.
class MutatorException : public Lumen::Exception {
 public:
  using Lumen::Exception::Exception;
  ~MutatorException() override;
};

// The argument `name` of the mutator of attribute `field` was null.
[[noreturn]] void throwMutatorArgNullPointerException(const char* name, Lumen::FieldId field);

namespace Impl {

// A member that exists was to be made anew with another value of the attribute `name`, which never
// changes.
[[noreturn]] void throwMutatorReinstantiating(const char* name, Lumen::FieldId field);

}  // namespace Impl
}  // namespace Brio
