#include "Asic/InspectClasses.h"

#include <algorithm>

#include "Asic/CanonicalTableName.h"
#include "Asic/EntryLogBase.h"
#include "Asic/OrderedSwTableSet.h"
#include "Asic/OrderedTableInterface.h"
#include "Asic/SwTableInterfacesSingleton.h"
#include "Brio/TypeModule.h"

namespace Brio {

// The tables of a set, which stand in the order of their units.
template <>
struct InspectCollection<Asic::OrderedSwTableSet::ByUnit> {
  using Tables = std::vector<Lumen::Ptr<Asic::OrderedSwTable>>;
  using Collection = Asic::OrderedSwTableSet::ByUnit;
  using Key = Asic::UnitId;
  using Value = Lumen::Ptr<Asic::OrderedSwTable>;

  static std::uint32_t size(Collection in) { return static_cast<std::uint32_t>(in.tables->size()); }
  static std::uint32_t secondSize(Collection in) {
    return static_cast<std::uint32_t>(in.tables->capacity());
  }
  static const Value* find(Collection in, Key unit) {
    const Value* table = from(*in.tables, unit.value);
    return table != nullptr && (*table)->unitId() == unit ? table : nullptr;
  }
  static const Value& valueOf(const Value& table) { return table; }

  class Iterator {
   public:
    explicit Iterator(Collection in) : tables_(in.tables) { stand(0); }
    Iterator(Collection in, Key unit) : tables_(in.tables), stands_(find(in, unit)), unit_(unit) {}

    [[nodiscard]] bool nonnull() const { return stands_; }
    [[nodiscard]] const Value* present() const {
      return stands_ ? find({tables_}, unit_) : nullptr;
    }
    [[nodiscard]] Key key() const { return unit_; }
    void advance() {
      if (stands_) {
        stand(unit_.value + 1U);
      }
    }

   private:
    void stand(unsigned unit) {
      const Value* table = from(*tables_, unit);
      stands_ = table != nullptr;
      unit_ = stands_ ? (*table)->unitId() : unit_;
    }

    const Tables* tables_;
    bool stands_ = false;
    Key unit_;
  };

 private:
  // The first table of a unit from `unit` on; null if there is none.
  static const Value* from(const Tables& tables, unsigned unit) {
    const auto at = std::find_if(tables.begin(), tables.end(),
                                 [&](const Value& table) { return table->unitId().value >= unit; });
    return at == tables.end() ? nullptr : &*at;
  }
};

}  // namespace Brio

namespace Asic {

extern "C" constinit const Brio::TypeModule _AsicInspectClasses_d564a9c69c80efad_brioModule =
    Brio::TypeModuleOf<
        "Asic::", OrderedSwTableSet, OrderedSwTableStatus, SwTableStats, DependencyEntryHandle,
        SwTableBase, SwTableBase::EntryHandle, NamedSwTable, OrderedSwTable,
        OrderedSwTable::EntryHandle, EntryLogBase, CanonicalTableName, TableInterfaceBase,
        ResolverEntry, OrderedSwTableWithMarkSweep, OrderedTableInterface, GroupInterfaceColl,
        GroupInterface, GroupResolver, NeededEntry, SwTableInterfacesSingleton>::module();
static_assert(kInspectModule.view() == "_AsicInspectClasses_d564a9c69c80efad_brioModule");
static const Lumen::ModuleInspectData::Loaded inspectClassesLoaded =
    _AsicInspectClasses_d564a9c69c80efad_brioModule.loaded(
        "_AsicInspectClasses_d564a9c69c80efad_brioModule");

}  // namespace Asic
