#include "PactResourceTable/ResourceHandle.h"

namespace PactResourceTable {

ResourceHandle::~ResourceHandle() = default;

void ResourceHandle::lastUserGone() const noexcept {
  if (owner_ != nullptr) {
    owner_->handleGone(const_cast<ResourceHandle&>(*this));
  }
  Lumen::Node::lastUserGone();
}

}  // namespace PactResourceTable
