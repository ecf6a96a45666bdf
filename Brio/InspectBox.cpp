#include "Brio/InspectBox.h"

#include <fmt/format.h>

namespace Brio {

using NodePtr = InspectValue::NodePtr;

const InspectType* inspectBuiltin(std::int16_t code) {
  switch (code) {
    case Lumen::kInspectBool:
      return &kInspectType<bool>;
    case Lumen::kInspect16:
      return &kInspectType<std::uint16_t>;
    case Lumen::kInspect32:
      return &kInspectType<std::uint32_t>;
    case Lumen::kInspect64:
      return &kInspectType<std::uint64_t>;
    case Lumen::kInspectString:
      return &kInspectType<Lumen::String>;
    default:
      return &kInspectType<std::uint8_t>;
  }
}

InspectBox::InspectBox(const Lumen::ModuleInspectData& module, std::int16_t type, unsigned flags) {
  if (type >= 0) {
    dependency_ = &module.dependencyTable[type];
    type_ = dependency_->value;
  } else {
    type_ = inspectBuiltin(type);
  }
  if (type_ == nullptr) {
    const bool held = (flags & Lumen::kInspectPtr) != 0;
    kind_ = held ? Kind::ptr : Kind::pointer;
    type_ = held ? &kInspectType<NodePtr> : &kInspectType<Lumen::Node*>;
  }
  const std::size_t units = (type_->size + sizeof(std::max_align_t) - 1) / sizeof(std::max_align_t);
  memory_ = std::make_unique<std::max_align_t[]>(units);
  type_->make(memory_.get());
}

InspectBox::~InspectBox() {
  if (memory_) {
    type_->destroy(memory_.get());
  }
}

InspectValue InspectBox::get() const {
  switch (kind_) {
    case Kind::ptr:
      return *static_cast<const NodePtr*>(at());
    case Kind::pointer:
      return NodePtr(*static_cast<Lumen::Node* const*>(at()));
    case Kind::value:
      break;
  }
  return type_->get(at());
}

void InspectBox::set(const InspectValue& from, std::string_view name) {
  if (kind_ == Kind::value) {
    type_->set(at(), from, name);
    return;
  }
  NodePtr node;
  if (const auto* given = from.as<NodePtr>()) {
    node = *given;
  } else if (!from.isNothing()) {
    throw InspectError(fmt::format("{}: {} is no object; a {} is wanted", name, from.text(),
                                   dependency_->type->className));
  }
  if (node && !dependency_->isA(*node)) {
    throw InspectError(fmt::format("{}: a {} is no {}", name, node->typeData().className,
                                   dependency_->type->className));
  }
  if (kind_ == Kind::ptr) {
    *static_cast<NodePtr*>(at()) = std::move(node);
  } else {
    *static_cast<Lumen::Node**>(at()) = node.get();
  }
}

}  // namespace Brio
