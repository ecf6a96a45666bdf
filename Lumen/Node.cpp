#include "Lumen/Node.h"

namespace Lumen {

std::atomic<bool> ThreadControl::threaded_{false};

Node::~Node() = default;

void Node::lastUserGone() const noexcept { delete this; }

Publisher* Node::publisher() const { return nullptr; }

const TypeData& Node::typeData() const {
  static constexpr TypeData kTypeData{"", 0, "Node"};
  return kTypeData;
}

}  // namespace Lumen
