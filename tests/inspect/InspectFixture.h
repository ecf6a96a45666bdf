#pragma once

#include <gmock/gmock.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Lumen/Inspect.h"
#include "Lumen/ModuleInspectData.h"
#include "Lumen/Publisher.h"
#include "SampleResources.h"
#include "TableFixture.h"

namespace InspectTest {

using Lumen::Inspect::kDone;
using Lumen::Inspect::kNotValid;
using Lumen::Inspect::kUnknownField;
using Module = Lumen::ModuleInspectData;
using NodePtr = Lumen::Ptr<Lumen::Node>;

// A class of a loaded module.
struct ClassOf {
  const Module* module = nullptr;
  unsigned index = 0;

  [[nodiscard]] const Module::ClassRow& row() const { return module->classTable[index]; }
  [[nodiscard]] const Module::GlueRow& glue() const { return module->glueTable[index]; }
  [[nodiscard]] std::string name() const { return module->typeNames + row().name; }
  [[nodiscard]] const Module::AttributeRow& attribute(unsigned place) const {
    return module->attributeTable[row().firstAttribute + place];
  }
  [[nodiscard]] std::string nameOf(unsigned place) const {
    return module->attributeNames + attribute(place).name;
  }
  // The attribute of a name; fails the test if there is none.
  [[nodiscard]] Lumen::FieldDescriptor field(std::string_view name) const {
    for (unsigned i = 0; i < row().attributes; ++i) {
      if (nameOf(i) == name) {
        return {module, row().firstAttribute + i};
      }
    }
    ADD_FAILURE() << "no attribute " << name;
    return {};
  }
};

// The class of an object, by what it says of itself.
inline ClassOf classOf(const Lumen::Node& node) {
  const Lumen::TypeData& type = node.typeData();
  const Module* module = Module::find(type.module);
  EXPECT_NE(module, nullptr) << type.module;
  return {module, type.classIndex};
}

// Asks an object something of a field.
inline int ask(Lumen::Node& node, std::string_view field, unsigned char operation,
               void* result = nullptr, const void* key = nullptr,
               std::vector<const void*> args = {}) {
  const ClassOf of = classOf(node);
  std::vector<void*> pointers;
  for (const void* arg : args) {
    pointers.push_back(const_cast<void*>(arg));
  }
  return of.glue().inspectOperation(result, &node, of.field(field), operation,
                                    const_cast<void*>(key),
                                    pointers.empty() ? nullptr : pointers.data());
}

template <class V>
V read(Lumen::Node& node, std::string_view field) {
  V value{};
  EXPECT_EQ(ask(node, field, Lumen::Inspect::kRead, &value), kDone) << field;
  return value;
}

// Counts what a publisher publishes of one field.
class FieldWatch final : private Lumen::Subscriber {
 public:
  FieldWatch(Lumen::Publisher* publisher, unsigned field)
      : Subscriber(&FieldWatch::changed), publisher_(publisher), field_(field) {
    publisher_->subscriberAdd(this);
  }
  ~FieldWatch() { publisher_->subscriberRemove(this); }
  [[nodiscard]] unsigned changes() const noexcept { return changes_; }

 private:
  static void changed(Lumen::Publisher*, Lumen::Subscriber* self, Lumen::FieldId field, const void*,
                      const void*) {
    auto& watch = *static_cast<FieldWatch*>(self);
    watch.changes_ += field.attribute() == watch.field_ ? 1 : 0;
  }

  Lumen::Publisher* publisher_;
  unsigned field_;
  unsigned changes_ = 0;
};

// An agent with one table.
template <class T>
class InspectFixture : public TestSupport::TableFixture<T> {
 public:
  using Base = TestSupport::TableFixture<T>;
  using Wrapper = KelpEmServer::KelpEntryWrapper<T>;
  using typename Base::Entry;
  using typename Base::Key;
  using typename Base::Table;

 protected:
  void SetUp() override { table_ = this->table(); }
  void TearDown() override {
    table_ = nullptr;
    Base::TearDown();
  }
  Lumen::Ptr<Wrapper> wrapper(std::uint64_t number) {
    return Wrapper::KelpEntryWrapperIs(
        this->entry(number), Table::entryHandleFactory({}, this->key(number), table_.get()));
  }
  // Each linkage of the table, as a node.
  std::vector<NodePtr> linkages() {
    std::vector<NodePtr> all;
    T::Linkages::forEachKind([&](auto tag) {
      all.emplace_back(TestSupport::linkageOf<typename decltype(tag)::Kind>(*table_));
    });
    return all;
  }

  Lumen::Ptr<Table> table_;
};

}  // namespace InspectTest
