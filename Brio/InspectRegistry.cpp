#include "Brio/InspectRegistry.h"

#include <functional>
#include <map>

namespace Brio {

namespace {

using Roots = std::map<Lumen::String, Lumen::Node*, std::less<>>;

// Never destroyed: objects take themselves out at the very end of a process.
Roots& roots() {
  static Roots& all = *new Roots;
  return all;
}

}  // namespace

std::string_view InspectAttribute::typeName(std::int16_t code) const {
  switch (code) {
    case Lumen::kInspectNothing:
      return "nothing";
    case Lumen::kInspect8:
      return "u8";
    case Lumen::kInspect16:
      return "u16";
    case Lumen::kInspect32:
      return "u32";
    case Lumen::kInspect64:
      return "u64";
    case Lumen::kInspectBool:
      return "bool";
    case Lumen::kInspectString:
      return "string";
    default:
      return code < 0 ? "" : field_.module->dependencyTable[code].type->className;
  }
}

std::vector<Lumen::ModuleInspectData::ArgumentRow> InspectAttribute::arguments() const {
  std::vector<Lumen::ModuleInspectData::ArgumentRow> rows;
  for (const auto* arg = field_.module->argumentTable + row().arguments;
       arg->type != Lumen::kInspectNoKey; ++arg) {
    rows.push_back(*arg);
  }
  return rows;
}

std::optional<InspectClass> InspectClass::of(const Lumen::TypeData& type) {
  for (const Lumen::TypeData* at = &type; at != nullptr; at = at->base) {
    const auto* module = Lumen::ModuleInspectData::find(at->module);
    if (module != nullptr && at->classIndex < module->classes()) {
      return InspectClass(*module, at->classIndex);
    }
  }
  return std::nullopt;
}

std::optional<InspectClass> InspectClass::find(std::string_view name) {
  for (const InspectClass& one : all()) {
    if (one.name() == name) {
      return one;
    }
  }
  return std::nullopt;
}

std::vector<InspectClass> InspectClass::all() {
  std::vector<InspectClass> classes;
  for (const std::string_view name : Lumen::ModuleInspectData::names()) {
    const auto& module = *Lumen::ModuleInspectData::find(name);
    for (unsigned i = 0; i < module.classes(); ++i) {
      classes.emplace_back(module, i);
    }
  }
  return classes;
}

std::vector<InspectAttribute> InspectClass::attributes() const {
  const auto& row = module_->classTable[index_];
  std::vector<InspectAttribute> all;
  for (unsigned i = 0; i < row.attributes; ++i) {
    const InspectAttribute attribute({module_, row.firstAttribute + i});
    if (attribute.has(Lumen::kInspectServed)) {
      all.push_back(attribute);
    }
  }
  return all;
}

std::optional<InspectAttribute> InspectClass::attribute(std::string_view name) const {
  for (const InspectAttribute& one : attributes()) {
    if (one.name() == name) {
      return one;
    }
  }
  return std::nullopt;
}

std::vector<InspectField> inspectFields(const Lumen::Node& node) {
  std::vector<InspectField> fields;
  for (const Lumen::TypeData* at = &node.typeData(); at != nullptr; at = at->base) {
    const auto* module = Lumen::ModuleInspectData::find(at->module);
    if (module == nullptr || at->classIndex >= module->classes()) {
      continue;
    }
    const InspectClass declaredBy(*module, at->classIndex);
    for (const InspectAttribute& attribute : declaredBy.attributes()) {
      fields.push_back({declaredBy, attribute});
    }
  }
  return fields;
}

std::optional<InspectField> inspectField(const Lumen::Node& node, std::string_view name) {
  for (const InspectField& field : inspectFields(node)) {
    if (field.attribute.name() == name) {
      return field;
    }
  }
  return std::nullopt;
}

void InspectRoots::rootIs(const Lumen::String& name, Lumen::Node* node) { roots()[name] = node; }

void InspectRoots::rootDel(const Lumen::String& name, const Lumen::Node* node) noexcept {
  const auto found = roots().find(name);
  if (found != roots().end() && found->second == node) {
    roots().erase(found);
  }
}

Lumen::Ptr<Lumen::Node> InspectRoots::root(std::string_view name) {
  const auto found = roots().find(name);
  return found == roots().end() ? nullptr : Lumen::Ptr<Lumen::Node>(found->second);
}

std::vector<Lumen::String> InspectRoots::names() {
  std::vector<Lumen::String> names;
  for (const auto& [name, node] : roots()) {
    names.push_back(name);
  }
  return names;
}

}  // namespace Brio
