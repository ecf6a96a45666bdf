#pragma once

#include <functional>
#include <utility>

#include "Lumen/Node.h"
#include "Lumen/Ptr.h"
#include "PoolSlab/Slabbed.h"

namespace collections_test {

// A counted object, as collections hold them through Lumen::Ptr. It may run something on its way
// out.
class Object : public Lumen::Node, public PoolSlab::Slabbed<Object> {
 public:
  static constexpr const char* className() { return "collections_test::Object"; }
  static Lumen::Ptr<Object> make(unsigned id) { return Lumen::makeNode<Object>(id); }

  explicit Object(unsigned id) : id_(id) {}
  ~Object() override {
    if (onDestruction_) {
      onDestruction_();
    }
  }

  [[nodiscard]] unsigned id() const noexcept { return id_; }
  void onDestructionIs(std::function<void()> onDestruction) {
    onDestruction_ = std::move(onDestruction);
  }

 private:
  unsigned id_;
  std::function<void()> onDestruction_;
};

}  // namespace collections_test
