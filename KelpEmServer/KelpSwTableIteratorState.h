#pragma once

#include "Brio/Attributes.h"
#include "KelpEmServer/Forward.h"
#include "KelpEmServer/TypeModule.h"
#include "KelpTunnelNiLib/SwTableBase.h"
#include "PoolSlab/Slabbed.h"

namespace KelpEmServer {

// Where an iteration stands between two steps: the key at which the next step starts.
template <TableSpec T>
class KELP_EM_EXPORT KelpSwTableIteratorState final
    : public KelpTunnelNiLib::SwTableIteratorState<typename T::Entry>,
      public PoolSlab::Slabbed<KelpSwTableIteratorState<T>> {
 public:
  using Entry = typename T::Entry;
  using Key = typename Entry::Key;

  static constexpr const char* className() {
    return kTableText<T, "KelpSwTableIteratorState">.c_str();
  }
  static constexpr auto attributes() {
    return Brio::attributeList(386,
                               Brio::stored("bookmarkKey", &KelpSwTableIteratorState::bookmarkKey_)
                                   .writtenBy(&KelpSwTableIteratorState::bookmarkKeyIs));
  }
  static constexpr auto factory() { return &Lumen::makeNode<KelpSwTableIteratorState>; }

  KelpSwTableIteratorState() = default;
  ~KelpSwTableIteratorState() override = default;

  static constexpr const Lumen::TypeData& classData() {
    return kTypeData<T, "KelpSwTable", 2, "KelpSwTableIteratorState",
                     &KelpTunnelNiLib::SwTableIteratorState<Entry>::classData()>;
  }
  [[nodiscard]] const Lumen::TypeData& typeData() const override { return classData(); }

  Entry maybeUpdateCurrentEntry() override;

  [[nodiscard]] const Key& bookmarkKey() const noexcept { return bookmarkKey_; }
  void bookmarkKeyIs(const Key& key) noexcept { bookmarkKey_ = key; }
  [[nodiscard]] const KelpSwTable<T>* table() const noexcept;

 private:
  Key bookmarkKey_{};
};

}  // namespace KelpEmServer
