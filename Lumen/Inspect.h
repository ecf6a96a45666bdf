#pragma once

#include <utility>

#include "Lumen/Node.h"
#include "Lumen/Ptr.h"

// How the generated functions of a class are spoken to (HideMe.h).
//
// A value travels behind a void pointer as itself; a node held by a Lumen::Ptr as a
// Lumen::Ptr<Lumen::Node>, whatever its class; a back pointer as a Lumen::Node*. The caller makes
// what a result is stored to, and may pass null where it wants none.

namespace Lumen::Inspect {

// What is asked of a field.
enum Operation : unsigned char {
  kRead = 0,        // of a map as kLookup, of a set as kHas
  kWrite = 1,       // calls the writer with `args`; on a collection that adds a member
  kDelete = 2,      // of a member, by key; the old value goes to the result
  kCount = 3,       // members, as 32 bits
  kSecondSize = 4,  // slots that are allocated, in use or not, as 32 bits
  kHas = 5,         // whether a key is present, as bool
  kCall = 10,
  kLookup = 28,  // by key; the value of an absent one is null or the default
};

// What comes back.
enum Result : int {
  kDone = 0,
  kNotValid = 1,      // the field does not know the operation; nothing has changed
  kUnknownField = 2,  // the class declares no such field
};

// Stores a node that an operation gave back, with the reference that comes with it.
inline void opResEncRelNode(void* result, Ptr<Node> node) noexcept {
  if (result != nullptr) {
    *static_cast<Ptr<Node>*>(result) = std::move(node);
  }
}

}  // namespace Lumen::Inspect
