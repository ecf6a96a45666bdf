#include "PactResourceTable/ResourceHandle.h"

namespace PactResourceTable {

ResourceHandle::~ResourceHandle() = default;

}  // namespace PactResourceTable
