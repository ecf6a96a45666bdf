#pragma once

#include "Brio/Attributes.h"
#include "KelpEmServer/Forward.h"
#include "KelpEmServer/KelpEntryWrapper.h"
#include "KelpEmServer/TypeModule.h"
#include "Lumen/Node.h"
#include "PoolSlab/Slabbed.h"

namespace KelpEmServer {

// The one extension point of the library: subclass it, and hand it to makeSwTable, to learn the
// fate of a table's entries and to steer what is logged.
template <TableSpec T>
class KELP_EM_EXPORT KelpSwTableHelperBase : public Lumen::Node,
                                             public PoolSlab::Slabbed<KelpSwTableHelperBase<T>> {
 public:
  static constexpr const char* className() {
    return kTableText<T, "KelpSwTableHelperBase">.c_str();
  }
  static constexpr auto attributes() {
    return Brio::attributeList(
        130, Brio::operation("finalizeOnSuccess", &KelpSwTableHelperBase::finalizeOnSuccess),
        Brio::operation("finalizeOnFailure", &KelpSwTableHelperBase::finalizeOnFailure),
        Brio::operation("finalizeOnResourceUpdate",
                        &KelpSwTableHelperBase::finalizeOnResourceUpdate));
  }
  static constexpr auto factory() { return &Lumen::makeNode<KelpSwTableHelperBase>; }

  KelpSwTableHelperBase() = default;
  ~KelpSwTableHelperBase() override = default;

  static constexpr const Lumen::TypeData& classData() {
    return kTypeData<T, "KelpSwTableHelperBase", 0, "KelpSwTableHelperBase">;
  }
  [[nodiscard]] const Lumen::TypeData& typeData() const override { return classData(); }

  // An operation is about to go to the log. Does nothing unless overridden.
  virtual void finalizeOnSuccess(const Lumen::Ptr<KelpEntryWrapper<T>>&, bool /*isDelete*/,
                                 const Lumen::Ptr<KelpSwTable<T>>&) {}
  // A resource of a write has failed: true has the entry logged all the same. False unless
  // overridden.
  virtual bool finalizeOnFailure(const Lumen::Ptr<KelpEntryWrapper<T>>&, bool /*isDelete*/,
                                 const Lumen::Ptr<KelpSwTable<T>>&) {
    return false;
  }
  // A resource of a committed entry has changed: true has the changed record logged. True unless
  // overridden.
  virtual bool finalizeOnResourceUpdate(const Lumen::Ptr<KelpEntryWrapper<T>>&,
                                        const Lumen::Ptr<KelpSwTable<T>>&,
                                        bool /*someResourceHasFailed*/) {
    return true;
  }
};

}  // namespace KelpEmServer
