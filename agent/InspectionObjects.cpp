#include "agent/InspectionObjects.h"

#include <fmt/format.h>

#include <algorithm>
#include <string_view>
#include <utility>
#include <vector>

#include "Brio/InspectPlace.h"
#include "Brio/InspectRegistry.h"
#include "agent/InspectionError.h"
#include "agent/InspectionParams.h"

namespace Agent {

using Brio::InspectAttribute;
using Brio::InspectClass;
using Brio::InspectPlace;

namespace {

// The name under which `attributes` knows the class of an object.
std::string_view classOf(const Lumen::Node& object) {
  const auto known = InspectClass::of(object.typeData());
  return known ? known->name() : object.typeData().className;
}

void appendMember(std::string& out, std::string_view name, std::string_view text) {
  out += fmt::format(R"(,"{}":)", name);
  Common::appendString(out, text);
}

std::string_view kindOf(const InspectAttribute& attribute) {
  return attribute.isOperation()    ? "operation"
         : attribute.isCollection() ? "collection"
                                    : "attribute";
}

std::vector<std::string_view> flagsOf(const InspectAttribute& attribute) {
  std::vector<std::string_view> names;
  const auto add = [&](bool has, std::string_view name) {
    if (has) {
      names.push_back(name);
    }
  };
  add(attribute.has(Lumen::kInspectStored), "stored");
  add(attribute.has(Lumen::kInspectPtr), "ptr");
  add(attribute.isOperation() && attribute.has(Lumen::kInspectMutating), "mutating");
  add(attribute.has(Lumen::kInspectWritable), "writable");
  add(attribute.has(Lumen::kInspectDeletes), "deletes");
  add(attribute.isCollection() && attribute.has(Lumen::kInspectSet), "set");
  return names;
}

// Without the end.
void appendAttribute(std::string& out, const InspectAttribute& attribute) {
  out += R"({"name":)";
  Common::appendString(out, attribute.name());
  out += fmt::format(R"(,"id":{})", attribute.id());
  appendMember(out, "kind", kindOf(attribute));
  appendMember(out, "type", attribute.typeName());
  if (attribute.isCollection()) {
    appendMember(out, "keyType", attribute.typeName(attribute.row().keyType));
  }
  const auto appendList = [&](std::string_view name, const std::vector<std::string_view>& texts) {
    out += fmt::format(R"(,"{}":[)", name);
    for (const std::string_view text : texts) {
      out += out.back() == '[' ? "" : ",";
      Common::appendString(out, text);
    }
    out += ']';
  };
  std::vector<std::string_view> types;
  for (const auto& argument : attribute.arguments()) {
    types.push_back(attribute.typeName(argument.type));
  }
  if (!types.empty()) {
    appendList("arguments", types);
  }
  appendList("flags", flagsOf(attribute));
}

// Whether a read gives a value, and changes nothing.
bool isReadable(const InspectAttribute& attribute) {
  return !attribute.isCollection() &&
         !(attribute.isOperation() &&
           (attribute.has(Lumen::kInspectMutating) || !attribute.arguments().empty()));
}

void appendObject(std::string& out, const Lumen::Node& object) {
  appendMember(out, "class", classOf(object));
  out += R"(,"attributes":[)";
  for (const Brio::InspectField& field : Brio::inspectFields(object)) {
    out += out.back() == '[' ? "" : ",";
    appendAttribute(out, field.attribute);
    appendMember(out, "declaredBy", field.declaredBy.name());
    out += '}';
  }
  out += "]}";
}

}  // namespace

void inspectObjects(InspectionCall& call) {
  const InspectionParams params(call.params, {});
  call.out += '[';
  for (const Lumen::String& name : Brio::InspectRoots::names()) {
    call.out += call.out.back() == '[' ? "" : ",";
    call.out += R"({"path":)";
    Common::appendString(call.out, name);
    appendMember(call.out, "class", classOf(*Brio::InspectRoots::root(name)));
    call.out += '}';
  }
  call.out += ']';
}

void inspectClasses(InspectionCall& call) {
  const InspectionParams params(call.params, {});
  std::vector<std::string_view> names;
  for (const InspectClass& one : InspectClass::all()) {
    names.push_back(one.name());
  }
  std::sort(names.begin(), names.end());
  call.out += '[';
  for (const std::string_view name : names) {
    call.out += call.out.back() == '[' ? "" : ",";
    Common::appendString(call.out, name);
  }
  call.out += ']';
}

void inspectAttributes(InspectionCall& call) {
  const InspectionParams params(call.params, {"class"});
  const std::string& name = params.text("class");
  const auto found = InspectClass::find(name);
  if (!found) {
    throw InspectionError(
        kNotFound, fmt::format("{}: no such class; the method \"classes\" names them all", name));
  }
  call.out += '[';
  for (const InspectAttribute& attribute : found->attributes()) {
    call.out += call.out.back() == '[' ? "" : ",";
    appendAttribute(call.out, attribute);
    call.out += '}';
  }
  call.out += ']';
}

void inspectList(InspectionCall& call) {
  const InspectionParams params(call.params, {"path"});
  const InspectPlace place = call.session.find(params.text("path"));
  call.out += R"({"path":)";
  Common::appendString(call.out, place.path());
  if (place.field() && !isReadable(place.field()->attribute)) {
    call.out += R"(,"attribute":)";
    appendAttribute(call.out, place.field()->attribute);
    appendMember(call.out, "declaredBy", place.field()->declaredBy.name());
    call.out += '}';
    if (place.field()->attribute.isCollection()) {
      call.out += fmt::format(R"(,"count":{})", place.count());
    }
    call.out += '}';
    return;
  }
  const Brio::InspectValue value = place.read();
  const auto* object = value.as<Brio::InspectValue::NodePtr>();
  if (object != nullptr && *object) {
    appendObject(call.out, **object);
    return;
  }
  call.out += R"(,"value":)";
  call.session.appendValue(call.out, value, place.path(), InspectionSession::From::elsewhere);
  call.out += '}';
}

}  // namespace Agent
