#include "Lumen/ModuleInspectData.h"

#include <map>

namespace Lumen {

namespace {

using Modules = std::map<std::string_view, const ModuleInspectData*>;

// Made by the first module, so that it outlives them all.
Modules& modules() {
  static Modules all;
  return all;
}

}  // namespace

ModuleInspectData::Loaded::~Loaded() { modules().erase(name_); }

ModuleInspectData::Loaded ModuleInspectData::loaded(std::string_view name) const {
  modules()[name] = this;
  return Loaded(name);
}

const ModuleInspectData* ModuleInspectData::find(std::string_view name) {
  const auto found = modules().find(name);
  return found == modules().end() ? nullptr : found->second;
}

std::vector<std::string_view> ModuleInspectData::names() {
  std::vector<std::string_view> names;
  for (const auto& [name, module] : modules()) {
    names.push_back(name);
  }
  return names;
}

}  // namespace Lumen
