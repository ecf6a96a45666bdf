#pragma once

#include "Asic/ResolverEntry.h"
#include "Brio/Attributes.h"
#include "KelpEmServer/Forward.h"
#include "KelpEmServer/KelpEntryWrapper.h"
#include "KelpEmServer/TypeModule.h"
#include "PoolSlab/Slabbed.h"

namespace KelpEmServer {

// What the group resolver queues: an operation with what it depends on and its kind. The table
// outlives its queued operations.
template <TableSpec T>
class KELP_EM_EXPORT KelpResolverEntry final : public Asic::ResolverEntry,
                                               public PoolSlab::Slabbed<KelpResolverEntry<T>> {
 public:
  static constexpr const char* className() { return kTableText<T, "KelpResolverEntry">.c_str(); }
  static constexpr auto attributes() {
    return Brio::attributeList(258, Brio::stored("swTable", &KelpResolverEntry::swTable_),
                               Brio::stored("swTableEntry", &KelpResolverEntry::swTableEntry_));
  }

  KelpResolverEntry(const Lumen::Ptr<const Asic::DependencyEntryHandle>& dependency,
                    Asic::EntryFlags flags, KelpSwTable<T>* swTable,
                    const Lumen::Ptr<KelpEntryWrapper<T>>& swTableEntry);
  ~KelpResolverEntry() override = default;
  [[nodiscard]] static Lumen::Ptr<KelpResolverEntry> KelpResolverEntryIs(
      const Lumen::Ptr<const Asic::DependencyEntryHandle>& dependency, Asic::EntryFlags flags,
      KelpSwTable<T>* swTable, const Lumen::Ptr<KelpEntryWrapper<T>>& swTableEntry) {
    return Lumen::makeNode<KelpResolverEntry>(dependency, flags, swTable, swTableEntry);
  }
  static constexpr auto factory() { return &KelpResolverEntry::KelpResolverEntryIs; }

  static constexpr const Lumen::TypeData& classData() {
    return kTypeData<T, "KelpInfraTypes", 1, "KelpResolverEntry",
                     &Asic::ResolverEntry::classData()>;
  }
  [[nodiscard]] const Lumen::TypeData& typeData() const override { return classData(); }

  [[nodiscard]] bool isResolved() override;
  void commitEntry(const Lumen::Ptr<Asic::ResolverEntry>& self) override;

  [[nodiscard]] KelpSwTable<T>* swTable() const noexcept { return swTable_; }
  [[nodiscard]] const Lumen::Ptr<KelpEntryWrapper<T>>& swTableEntry() const noexcept {
    return swTableEntry_;
  }

 private:
  KelpSwTable<T>* swTable_;
  Lumen::Ptr<KelpEntryWrapper<T>> swTableEntry_;
};

}  // namespace KelpEmServer
