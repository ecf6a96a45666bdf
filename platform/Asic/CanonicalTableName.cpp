#include "Asic/CanonicalTableName.h"

#include <utility>

#include "Brio/SassertHelper.h"

namespace Asic {

CanonicalTableName::CanonicalTableName(OrderedTableType type, Lumen::String group,
                                       Lumen::String tableNamespace, Lumen::String tableName)
    : type_(type),
      group_(std::move(group)),
      tableNamespace_(std::move(tableNamespace)),
      tableName_(std::move(tableName)) {}

CanonicalTableName::~CanonicalTableName() = default;

Lumen::String CanonicalTableName::name() const {
  switch (type_) {
    case OrderedTableType::orderedSwTable:
      return "OrderedSwTable." + group_ + "." + tableName_;
    case OrderedTableType::partiallyOrderedSwTable:
      return "PartiallyOrderedSwTable." + tableName_;
    case OrderedTableType::resourceTable:
      return "ResourceTable." + tableNamespace_ + "::" + tableName_;
  }
  {
    Brio::SassertHelper sentence("false");
    sentence.stream() << "Table type undefined!";
  }
  Brio::sassertFailed("false");
}

}  // namespace Asic
