#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "Lumen/TypeData.h"

namespace Brio {
struct InspectType;
}

namespace Lumen {

class Node;
struct ModuleInspectData;

// One attribute, as inspection speaks of it: a row of a module's attribute table.
struct FieldDescriptor {
  const ModuleInspectData* module = nullptr;
  std::uint32_t attribute = 0;
};

// Type codes that are no index in a dependency table.
enum InspectTypeCode : std::int16_t {
  kInspectNoKey = -1,
  kInspectNothing = -4,
  kInspect8 = -5,
  kInspect16 = -7,
  kInspect32 = -9,
  kInspect64 = -11,
  kInspectBool = -13,
  kInspectString = -17,
};

// Flags of an attribute, and kInspectPtr of an argument.
enum InspectFlag : std::uint16_t {
  kInspectCollection = 0x0001,  // of an attribute
  kInspectMutating = 0x0001,    // of an operation
  kInspectOperation = 0x0010,
  kInspectPtr = 0x0020,       // the value or result is held by a Lumen::Ptr
  kInspectWritable = 0x0040,  // code 1 is accepted, with the arguments of the row
  kInspectDeletes = 0x0080,   // code 2 is accepted
  kInspectSet = 0x0100,       // a collection without values
  kInspectNullArgs = 0x0200,  // an operation that takes null for a node
  kInspectStored = 0x0400,
  kInspectServed = 0x0800,
};

// The record that describes the classes of one source unit: constant, and made at compile time.
struct ModuleInspectData {
  struct ClassRow {
    std::uint32_t name;  // offset in the type-name pool
    std::uint16_t attributes;
    std::uint16_t firstAttribute;
  };
  struct AttributeRow {
    std::uint16_t fieldId;
    std::uint16_t flags;
    std::uint32_t name;  // offset in the attribute-name pool; 0: a number that is not used
    std::int16_t type;
    std::int16_t keyType;     // kInspectNoKey but on a collection
    std::uint16_t arguments;  // where they start in the argument table; those of the writer, too
    std::int16_t member;      // which of the class's members it reads directly; -1: none
  };
  // A list ends with a row of type kInspectNoKey. Row 0 is the empty list; the lists of the
  // constructors follow, one for each class, and then those of the attributes.
  struct ArgumentRow {
    std::int16_t type;
    std::uint16_t flags;
  };
  // A class of another module or of this one, or a type that has no module.
  struct Dependency {
    const TypeData* type;
    const Brio::InspectType* value;  // null: a node
    bool (*isA)(const Node&);        // null: a value
  };
  struct GlueRow {
    const void* empty[2];
    const void* nodeMethods;
    void (*construct)(void* result, void* const* args);  // null: not made from outside
    int (*inspectOperation)(void* result, void* object, FieldDescriptor field,
                            unsigned char operation, void* key, void* args);
    void* (*iterator)(void* object, void** key, FieldDescriptor field,
                      const void** iteratorFunctions);
  };

  const ClassRow* classTable;
  const AttributeRow* attributeTable;
  const ArgumentRow* argumentTable;
  const char* typeNames;
  const char* attributeNames;  // sorted; offset 0 is the empty name
  const Dependency* dependencyTable;
  const GlueRow* glueTable;
  std::uint32_t word;  // the number of classes in the low 16 bits

  [[nodiscard]] constexpr unsigned classes() const noexcept { return word & 0xffff; }

  // Keeps a module in the list of the process.
  class Loaded {
   public:
    explicit Loaded(std::string_view name) noexcept : name_(name) {}
    ~Loaded();
    Loaded(const Loaded&) = delete;
    Loaded& operator=(const Loaded&) = delete;

   private:
    std::string_view name_;
  };
  // Enters the module under the name of its symbol, until the result is destroyed. For static
  // initialisers; `name` must last as long.
  [[nodiscard]] Loaded loaded(std::string_view name) const;

  // Null if no such module is loaded.
  [[nodiscard]] static const ModuleInspectData* find(std::string_view name);
  // The names of all that are loaded, sorted.
  [[nodiscard]] static std::vector<std::string_view> names();
};

}  // namespace Lumen
