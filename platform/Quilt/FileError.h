#pragma once

#include "BrioSharedMem/StoreError.h"
#include "Lumen/String.h"

namespace Quilt {

// The error of a failed system call on a file of the collection `path`: names both, the reason and
// the remedy. `what` says what was tried ("open", "make").
[[nodiscard]] BrioSharedMem::StoreError fileError(const Lumen::String& path, const char* what,
                                                  const Lumen::String& fileName, int errorNumber);

}  // namespace Quilt
