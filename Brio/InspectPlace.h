#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>
#include <vector>

#include "Brio/InspectCursor.h"
#include "Brio/InspectRegistry.h"
#include "Brio/InspectSubscription.h"
#include "Brio/InspectValue.h"

namespace Brio {

// Somewhere in the objects of the process: an object, an attribute of one, or a value. Holds the
// object that it belongs to; to be dropped before the agent stops.
//
// What can't be done throws InspectError, whose text begins with the path. What an operation throws
// comes out as it is.
class InspectPlace {
 public:
  using NodePtr = InspectValue::NodePtr;
  using Args = std::vector<InspectValue>;

  static constexpr std::size_t kLongestPath = 4096;
  static constexpr std::size_t kMostSteps = 64;

  // The place that a path leads to:
  //   ROOT/STEP/STEP...
  // A root is one of InspectRoots. A step is the name of an attribute, of an operation that changes
  // nothing and takes no arguments, or of a field of a record; behind it a key in brackets names a
  // member of a collection: [3], [port=3,vlan=100], ["text"], [key={a=1,b=2}]. Brackets behind an
  // object mean its one collection.
  [[nodiscard]] static InspectPlace find(std::string_view path);
  // The same from roots of the caller's own; null where there is none of a name.
  using RootOf = std::function<NodePtr(std::string_view name)>;
  [[nodiscard]] static InspectPlace find(std::string_view path, const RootOf& rootOf);
  // An object that is at hand; `path` is what errors call it.
  InspectPlace(NodePtr object, Lumen::String path);

  [[nodiscard]] const Lumen::String& path() const noexcept { return path_; }
  // The object that the place is, or that has the attribute; null for a value.
  [[nodiscard]] const NodePtr& object() const noexcept { return object_; }
  // The attribute that the place is; nothing for an object and for a value.
  [[nodiscard]] const std::optional<InspectField>& field() const noexcept { return field_; }
  // Whether the path leads to the same object once more; what lies behind an operation is made anew
  // each time.
  [[nodiscard]] bool leadsBack() const noexcept {
    return !behindCall_ && !(field_ && field_->attribute.isOperation());
  }
  // What the object below serves.
  [[nodiscard]] std::vector<InspectField> fields() const;

  // One step further, as in a path.
  [[nodiscard]] InspectPlace step(std::string_view name) const;
  [[nodiscard]] InspectPlace member(const InspectValue& key) const;
  // The path of a member. Of a key that is a list of a fixed length, what is at its default is left
  // out.
  [[nodiscard]] Lumen::String memberPath(const InspectValue& key) const;

  // The value: an object as itself, a plain attribute, the result of an operation that changes
  // nothing and takes no arguments. A collection has none: use cursor().
  [[nodiscard]] InspectValue read() const;
  // Calls the writer of an attribute, or adds a member to a collection. The writer of a plain
  // attribute takes the value, that of a map the member, or the key and the value.
  InspectValue write(const Args& args) const;
  InspectValue call(const Args& args) const;
  // Throws unless the operation, or the writer of what is written, takes as many arguments.
  void checkArgs(std::size_t count) const;

  // Of collections only.
  [[nodiscard]] std::uint32_t count() const;
  [[nodiscard]] std::uint32_t secondSize() const;
  [[nodiscard]] bool has(const InspectValue& key) const;
  // Null or the default for an absent key; of a set, whether the key is there.
  [[nodiscard]] InspectValue lookup(const InspectValue& key) const;
  // Gives the old value; null or the default for an absent key.
  InspectValue del(const InspectValue& key) const;
  [[nodiscard]] InspectCursor cursor() const;
  [[nodiscard]] InspectCursor cursor(const InspectValue& key) const;

  // Listens to the changes of an attribute until the result is destroyed.
  [[nodiscard]] InspectSubscription subscribe(InspectSubscription::Told told) const;

 private:
  InspectPlace() = default;

  [[noreturn]] void refuse(const Lumen::String& why) const;
  // `missing` is the path that leads nowhere.
  [[noreturn]] void refuseMissing(const Lumen::String& why, const Lumen::String& missing) const;
  [[nodiscard]] const InspectField& attributeField() const;
  [[nodiscard]] const InspectField& collectionField() const;
  // The same place as an object or a value, and the collection that a key is for.
  [[nodiscard]] InspectPlace entered() const;
  [[nodiscard]] InspectPlace onlyCollection() const;
  [[nodiscard]] InspectPlace with(InspectValue value, Lumen::String path) const;
  InspectValue run(unsigned char operation, const InspectValue* key, const Args* args) const;

  Lumen::String path_;
  NodePtr object_;
  std::optional<InspectField> field_;
  InspectValue value_;  // where there is neither
  bool behindCall_ = false;
};

}  // namespace Brio
