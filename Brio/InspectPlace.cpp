#include "Brio/InspectPlace.h"

#include <fmt/format.h>

#include <utility>

#include "Brio/InspectBox.h"
#include "Brio/InspectPath.h"
#include "Lumen/Inspect.h"

namespace Brio {

namespace {

namespace Code = Lumen::Inspect;

Lumen::String namesOf(const std::vector<InspectField>& fields) {
  Lumen::String names;
  for (const InspectField& field : fields) {
    names += names.empty() ? "" : ", ";
    names += field.attribute.name();
  }
  return names.empty() ? Lumen::String("none") : names;
}

bool readsByCall(const InspectAttribute& attribute) {
  return attribute.isOperation() && !attribute.has(Lumen::kInspectMutating) &&
         attribute.arguments().empty();
}

Lumen::String keyText(const InspectValue& key) {
  const Lumen::String text = key.text();
  const bool record = key.as<InspectValue::Record>() != nullptr;
  return "[" + (record ? text.substr(1, text.size() - 2) : text) + "]";
}

// The elements of a list, and the fields in them, that are not as in `standard`, by their places:
// what the text of a list that is as long leaves out is the default.
InspectValue sparse(const InspectValue& value, const InspectValue& standard) {
  InspectValue::Record differing;
  const auto add = [&](Lumen::String name, const InspectValue& one, const InspectValue& usual) {
    if (one == usual) {
      return;
    }
    InspectValue part = sparse(one, usual);
    // The same fields in another order differ as well.
    const auto* fields = part.as<InspectValue::Record>();
    if (fields == nullptr || !fields->empty()) {
      differing.emplace_back(std::move(name), std::move(part));
    }
  };
  const auto* list = value.as<InspectValue::List>();
  const auto* usualList = standard.as<InspectValue::List>();
  if (list != nullptr && usualList != nullptr && !list->empty() &&
      list->size() == usualList->size()) {
    for (std::size_t i = 0; i < list->size(); ++i) {
      add(fmt::format("{}", i), (*list)[i], (*usualList)[i]);
    }
    return differing;
  }
  const auto* record = value.as<InspectValue::Record>();
  if (record == nullptr) {
    return value;
  }
  for (const auto& [name, field] : *record) {
    const InspectValue* usual = standard.field(name);
    add(name, field, usual == nullptr ? InspectValue() : *usual);
  }
  return differing;
}

}  // namespace

InspectPlace::InspectPlace(NodePtr object, Lumen::String path)
    : path_(std::move(path)), object_(std::move(object)) {}

InspectPlace InspectPlace::find(std::string_view path) { return find(path, &InspectRoots::root); }

InspectPlace InspectPlace::find(std::string_view path, const RootOf& rootOf) {
  if (path.size() > kLongestPath) {
    throw InspectSyntaxError(fmt::format("a path has {} characters at most", kLongestPath));
  }
  const std::vector<InspectStep> steps = inspectSteps(path);
  if (steps.size() > kMostSteps) {
    throw InspectSyntaxError(fmt::format("a path has {} steps at most", kMostSteps));
  }
  InspectPlace place(rootOf(steps[0].name), Lumen::String(steps[0].name));
  if (!place.object_) {
    Lumen::String roots;
    for (const Lumen::String& name : InspectRoots::names()) {
      roots += (roots.empty() ? "" : ", ") + name;
    }
    throw InspectError(fmt::format("{}: no such root; there are: {}", steps[0].name,
                                   roots.empty() ? "none" : roots),
                       place.path_);
  }
  bool first = true;
  for (const InspectStep& step : steps) {
    if (!std::exchange(first, false)) {
      place = place.step(step.name);
    }
    for (const InspectValue& key : step.keys) {
      place = place.member(key);
    }
  }
  return place;
}

void InspectPlace::refuse(const Lumen::String& why) const {
  throw InspectError(path_ + ": " + why);
}

void InspectPlace::refuseMissing(const Lumen::String& why, const Lumen::String& missing) const {
  throw InspectError(path_ + ": " + why, missing);
}

InspectPlace InspectPlace::with(InspectValue value, Lumen::String path) const {
  InspectPlace place;
  place.path_ = std::move(path);
  place.behindCall_ = !leadsBack();
  if (const auto* node = value.as<NodePtr>()) {
    place.object_ = *node;
  } else {
    place.value_ = std::move(value);
  }
  return place;
}

InspectPlace InspectPlace::entered() const {
  InspectPlace place = field_ ? with(read(), path_) : *this;
  if (!place.object_ && place.value_.isNothing()) {
    refuseMissing("null; nothing is below it", path_);
  }
  return place;
}

std::vector<InspectField> InspectPlace::fields() const {
  const InspectPlace place = entered();
  return place.object_ ? inspectFields(*place.object_) : std::vector<InspectField>();
}

InspectPlace InspectPlace::step(std::string_view name) const {
  if (field_ && field_->attribute.isCollection()) {
    refuse("a collection; name a member of it in brackets");
  }
  InspectPlace place = entered();
  const Lumen::String path = path_ + "/" + Lumen::String(name);
  if (place.object_) {
    place.field_ = inspectField(*place.object_, name);
    if (!place.field_) {
      refuseMissing(
          fmt::format("no attribute '{}' in {}; there are: {}", name,
                      place.object_->typeData().className, namesOf(inspectFields(*place.object_))),
          path);
    }
    place.path_ = path;
    return place;
  }
  if (const InspectValue* field = place.value_.field(name)) {
    return with(*field, path);
  }
  refuseMissing(fmt::format("no field '{}' in {}", name, place.value_.text()), path);
}

InspectPlace InspectPlace::onlyCollection() const {
  InspectPlace place = entered();
  std::vector<InspectField> collections;
  if (place.object_) {
    for (const InspectField& field : inspectFields(*place.object_)) {
      if (field.attribute.isCollection()) {
        collections.push_back(field);
      }
    }
  }
  if (collections.size() != 1) {
    refuse(collections.empty() ? Lumen::String("it has no members; leave the brackets away")
                               : "name one of its collections: " + namesOf(collections));
  }
  place.field_ = collections[0];
  return place;
}

InspectPlace InspectPlace::member(const InspectValue& key) const {
  InspectPlace in = *this;
  if (!field_ || !field_->attribute.isCollection()) {
    in = entered();
    if (const auto* list = in.value_.as<InspectValue::List>()) {
      if (list->empty()) {
        refuseMissing("an empty list", memberPath(key));
      }
      const std::uint64_t at = Impl::inspectNumber(key, path_, list->size() - 1);
      return with((*list)[at], memberPath(key));
    }
    in = in.onlyCollection();
  }
  const Lumen::String path = in.memberPath(key);
  if (!in.has(key)) {
    refuseMissing(fmt::format("no member {} among {}", path.substr(path_.size()), in.count()),
                  path);
  }
  return in.with(in.lookup(key), path);
}

Lumen::String InspectPlace::memberPath(const InspectValue& key) const {
  if (key.as<InspectValue::List>() == nullptr || !field_ || !field_->attribute.isCollection()) {
    return path_ + keyText(key);
  }
  const InspectAttribute& attribute = field_->attribute;
  const InspectBox standard(*attribute.field().module, attribute.row().keyType, 0);
  const InspectValue part = sparse(key, standard.get());
  const auto* record = part.as<InspectValue::Record>();
  return path_ + (record != nullptr && record->empty() ? "[{}]" : keyText(part));
}

const InspectField& InspectPlace::attributeField() const {
  if (!field_) {
    refuse("no attribute; name one of an object");
  }
  return *field_;
}

const InspectField& InspectPlace::collectionField() const {
  if (!field_ || !field_->attribute.isCollection()) {
    refuse("no collection; name a collection of an object");
  }
  return *field_;
}

void InspectPlace::checkArgs(std::size_t count) const {
  const InspectAttribute& attribute = attributeField().attribute;
  const auto wanted = attribute.arguments();
  if (count == wanted.size()) {
    return;
  }
  Lumen::String types;
  for (const auto& arg : wanted) {
    types += (types.empty() ? "" : ", ") + Lumen::String(attribute.typeName(arg.type));
  }
  refuse(fmt::format("{} arguments, not the {} that it takes: ({})", count, wanted.size(), types));
}

// Boxes for the key, the arguments and the result; `args` null: the operation takes none.
InspectValue InspectPlace::run(unsigned char operation, const InspectValue* key,
                               const Args* args) const {
  const InspectAttribute& attribute = field_->attribute;
  const Lumen::ModuleInspectData& module = *attribute.field().module;
  std::optional<InspectBox> keyBox;
  if (key != nullptr) {
    keyBox.emplace(module, attribute.row().keyType, 0);
    keyBox->set(*key, path_ + ": key");
  }
  std::vector<InspectBox> boxes;
  std::vector<InspectValue> found;  // what boxes may point to
  std::vector<void*> pointers;
  if (args != nullptr) {
    const auto wanted = attribute.arguments();
    checkArgs(args->size());
    boxes.reserve(wanted.size());
    found.reserve(wanted.size());
    for (std::size_t i = 0; i < wanted.size(); ++i) {
      InspectBox& box = boxes.emplace_back(module, wanted[i].type, wanted[i].flags);
      const auto* text = (*args)[i].as<Lumen::String>();
      // An object may be given by its path.
      found.push_back(box.holdsNode() && text != nullptr ? find(*text).read() : (*args)[i]);
      box.set(found.back(), fmt::format("{}: argument {}", path_, i + 1));
      if (operation == Code::kCall && box.holdsNode() && !attribute.has(Lumen::kInspectNullArgs) &&
          box.get() == InspectValue(NodePtr())) {
        refuse(fmt::format("argument {} is null; give the path of a {}", i + 1,
                           attribute.typeName(wanted[i].type)));
      }
      pointers.push_back(box.at());
    }
  }
  std::int16_t type = attribute.row().type;
  unsigned flags = attribute.row().flags;
  if (operation == Code::kCount || operation == Code::kSecondSize) {
    type = Lumen::kInspect32;
    flags = 0;
  } else if (operation == Code::kHas) {
    type = Lumen::kInspectBool;
    flags = 0;
  }
  const InspectBox result(module, type, flags);
  // A writer's result is of a type of its own.
  const bool wanted = operation != Code::kWrite && type != Lumen::kInspectNothing;
  const int outcome = field_->declaredBy.glue().inspectOperation(
      wanted ? result.at() : nullptr, object_.get(), attribute.field(), operation,
      keyBox ? keyBox->at() : nullptr, pointers.empty() ? nullptr : pointers.data());
  if (outcome != Code::kDone) {
    refuse("the attribute does not take this operation");
  }
  return wanted ? result.get() : InspectValue();
}

InspectValue InspectPlace::read() const {
  if (!field_) {
    return object_ ? InspectValue(object_) : value_;
  }
  if (field_->attribute.isCollection()) {
    refuse("a collection; name a member of it in brackets, or walk it");
  }
  if (field_->attribute.isOperation() && !readsByCall(field_->attribute)) {
    refuse("an operation that changes something or takes arguments; call it");
  }
  const Args none;
  return field_->attribute.isOperation() ? run(Code::kCall, nullptr, &none)
                                         : run(Code::kRead, nullptr, nullptr);
}

InspectValue InspectPlace::write(const Args& args) const {
  if (!attributeField().attribute.has(Lumen::kInspectWritable)) {
    refuse("it can only be read");
  }
  return run(Code::kWrite, nullptr, &args);
}

InspectValue InspectPlace::call(const Args& args) const {
  if (!attributeField().attribute.isOperation()) {
    refuse("no operation; read or write it");
  }
  return run(Code::kCall, nullptr, &args);
}

std::uint32_t InspectPlace::count() const {
  (void)collectionField();
  return static_cast<std::uint32_t>(*run(Code::kCount, nullptr, nullptr).as<std::uint64_t>());
}

std::uint32_t InspectPlace::secondSize() const {
  (void)collectionField();
  return static_cast<std::uint32_t>(*run(Code::kSecondSize, nullptr, nullptr).as<std::uint64_t>());
}

bool InspectPlace::has(const InspectValue& key) const {
  (void)collectionField();
  return *run(Code::kHas, &key, nullptr).as<bool>();
}

InspectValue InspectPlace::lookup(const InspectValue& key) const {
  (void)collectionField();
  return run(Code::kLookup, &key, nullptr);
}

InspectValue InspectPlace::del(const InspectValue& key) const {
  if (!collectionField().attribute.has(Lumen::kInspectDeletes)) {
    refuse("its members are not deleted from outside");
  }
  return run(Code::kDelete, &key, nullptr);
}

InspectCursor InspectPlace::cursor() const {
  return InspectCursor(object_, collectionField(), nullptr);
}

InspectCursor InspectPlace::cursor(const InspectValue& key) const {
  const InspectAttribute& attribute = collectionField().attribute;
  InspectBox box(*attribute.field().module, attribute.row().keyType, 0);
  box.set(key, path_ + ": key");
  return InspectCursor(object_, *field_, box.at());
}

InspectSubscription InspectPlace::subscribe(InspectSubscription::Told told) const {
  return InspectSubscription(object_, attributeField().attribute, std::move(told));
}

}  // namespace Brio
