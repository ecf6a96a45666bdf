#pragma once

#include "Asic/InspectClasses.h"
#include "Brio/Attributes.h"
#include "Lumen/Node.h"
#include "Lumen/String.h"
#include "PoolSlab/Slabbed.h"

namespace Asic {

enum class OrderedTableType : unsigned {
  orderedSwTable = 0,
  partiallyOrderedSwTable = 1,
  resourceTable = 2,
};

// The name of a table across the process. Units share it.
class CanonicalTableName final : public Lumen::Node, public PoolSlab::Slabbed<CanonicalTableName> {
 public:
  static constexpr const char* className() { return "CanonicalTableName"; }
  static constexpr auto attributes() {
    return Brio::attributeList(130, Brio::view("name", &CanonicalTableName::name),
                               Brio::stored("group", &CanonicalTableName::group_),
                               Brio::stored("tableNamespace", &CanonicalTableName::tableNamespace_),
                               Brio::stored("tableName", &CanonicalTableName::tableName_));
  }
  static constexpr const Lumen::TypeData& classData() {
    return kInspectClass<10, "CanonicalTableName">;
  }

  CanonicalTableName(OrderedTableType type, Lumen::String group, Lumen::String tableNamespace,
                     Lumen::String tableName);
  ~CanonicalTableName() override;

  [[nodiscard]] const Lumen::TypeData& typeData() const override { return classData(); }

  [[nodiscard]] OrderedTableType type() const noexcept { return type_; }
  [[nodiscard]] const Lumen::String& group() const noexcept { return group_; }
  [[nodiscard]] const Lumen::String& tableNamespace() const noexcept { return tableNamespace_; }
  [[nodiscard]] const Lumen::String& tableName() const noexcept { return tableName_; }

  // "OrderedSwTable.GROUP.TABLE", "PartiallyOrderedSwTable.TABLE" or
  // "ResourceTable.NAMESPACE::TABLE". Asserts that the type is one of the three.
  [[nodiscard]] Lumen::String name() const;

 private:
  OrderedTableType type_;
  Lumen::String group_;
  Lumen::String tableNamespace_;
  Lumen::String tableName_;
};

}  // namespace Asic
