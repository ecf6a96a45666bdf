#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "Lumen/ModuleInspectData.h"
#include "Lumen/Node.h"
#include "Lumen/Ptr.h"
#include "Lumen/String.h"

// Finds what inspection can reach, by name: classes and their attributes, and the objects at which
// a path begins.

namespace Brio {

// One attribute of a class.
class InspectAttribute {
 public:
  explicit InspectAttribute(Lumen::FieldDescriptor field) noexcept : field_(field) {}

  [[nodiscard]] Lumen::FieldDescriptor field() const noexcept { return field_; }
  [[nodiscard]] const Lumen::ModuleInspectData::AttributeRow& row() const noexcept {
    return field_.module->attributeTable[field_.attribute];
  }
  [[nodiscard]] std::uint16_t id() const noexcept { return row().fieldId; }
  [[nodiscard]] std::string_view name() const noexcept {
    return field_.module->attributeNames + row().name;
  }
  [[nodiscard]] bool has(Lumen::InspectFlag flag) const noexcept {
    return (row().flags & flag) != 0;
  }
  [[nodiscard]] bool isOperation() const noexcept { return has(Lumen::kInspectOperation); }
  [[nodiscard]] bool isCollection() const noexcept {
    return !isOperation() && has(Lumen::kInspectCollection);
  }
  // As people read it: "bool", "u32", "string", or the name of a class or record.
  [[nodiscard]] std::string_view typeName() const { return typeName(row().type); }
  [[nodiscard]] std::string_view typeName(std::int16_t code) const;
  // Of the operation, or of the writer of what is written; empty where there are none.
  [[nodiscard]] std::vector<Lumen::ModuleInspectData::ArgumentRow> arguments() const;

 private:
  Lumen::FieldDescriptor field_;
};

// A class of a loaded module.
class InspectClass {
 public:
  InspectClass(const Lumen::ModuleInspectData& module, unsigned index) noexcept
      : module_(&module), index_(index) {}

  // The class that an object says it is of, or the next above it that has a module; nothing if none
  // has.
  [[nodiscard]] static std::optional<InspectClass> of(const Lumen::TypeData& type);
  // By its full name, such as "KelpEmServer::Isem1TagKelpSwTable"; nothing if there is none.
  [[nodiscard]] static std::optional<InspectClass> find(std::string_view name);
  // Every class, in the order of modules.
  [[nodiscard]] static std::vector<InspectClass> all();

  [[nodiscard]] std::string_view name() const noexcept {
    return module_->typeNames + module_->classTable[index_].name;
  }
  // Those that the class declares and that inspection serves, in declared order.
  [[nodiscard]] std::vector<InspectAttribute> attributes() const;
  // Of this class alone; nothing if it declares none of this name.
  [[nodiscard]] std::optional<InspectAttribute> attribute(std::string_view name) const;
  [[nodiscard]] const Lumen::ModuleInspectData::GlueRow& glue() const noexcept {
    return module_->glueTable[index_];
  }

 private:
  const Lumen::ModuleInspectData* module_;
  unsigned index_;
};

// An attribute, and the class that declares it.
struct InspectField {
  InspectClass declaredBy;
  InspectAttribute attribute;
};

// The attributes of an object: those of its class and of the classes above it, its own first.
[[nodiscard]] std::vector<InspectField> inspectFields(const Lumen::Node& node);
// Nothing if the object has none of this name, or does not serve it.
[[nodiscard]] std::optional<InspectField> inspectField(const Lumen::Node& node,
                                                       std::string_view name);

// The objects of the process at which a path begins, by name. Holds no reference: who enters one
// takes it out before it goes. For the agent's thread.
class InspectRoots {
 public:
  // Takes the place of a root of the same name.
  static void rootIs(const Lumen::String& name, Lumen::Node* node);
  // Takes a root out; nothing if the name is another object's by now.
  static void rootDel(const Lumen::String& name, const Lumen::Node* node) noexcept;
  // Null if there is none.
  [[nodiscard]] static Lumen::Ptr<Lumen::Node> root(std::string_view name);
  // Sorted.
  [[nodiscard]] static std::vector<Lumen::String> names();
};

}  // namespace Brio
