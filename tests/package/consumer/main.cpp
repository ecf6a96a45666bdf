#include <cstdio>

#include "Brio/TraceHandle.h"
#include "Lumen/Node.h"
#include "Lumen/Ptr.h"

int main() {
  const auto node = Lumen::makeNode<Lumen::Node>();
  const Brio::TraceHandle trace("Consumer", false);
  std::printf("%s, trace handle %s\n", node->refCount() == 1 ? "one node" : "no node",
              trace.name().c_str());
}
