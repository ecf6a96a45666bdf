#pragma once

#include <cstdint>
#include <utility>

#include "Asic/EntryState.h"
#include "Asic/NeededEntry.h"
#include "Lumen/Node.h"
#include "Lumen/Publisher.h"

namespace PactResourceTable {

// What a resource table gives out for a key: the state of the resource and, in the class of each
// table, its key and its results. One handle per key and client; the table changes it, everybody
// else reads.
class ResourceHandle : public Lumen::Node {
 public:
  ~ResourceHandle() override;

  [[nodiscard]] Lumen::Publisher* publisher() const override { return &publisher_; }

  [[nodiscard]] Asic::EntryState entryState() const noexcept { return entryState_; }
  // What the resource itself depends on; never null.
  [[nodiscard]] const Lumen::Ptr<Asic::NeededEntry>& neededEntry() const noexcept {
    return neededEntry_;
  }
  // Rises with every change of the resource; a client echoes it when it has worked the change off.
  [[nodiscard]] std::uint32_t updateVersion() const noexcept { return updateVersion_; }
  // The resource has gone past release: its changes concern nobody any more.
  [[nodiscard]] bool isPostReleaseProtoState() const noexcept { return postRelease_; }

  void entryStateIs(Asic::EntryState state) noexcept { entryState_ = state; }
  void updateVersionIs(std::uint32_t version) noexcept { updateVersion_ = version; }
  void postReleaseProtoStateIs(bool postRelease) noexcept { postRelease_ = postRelease; }

 protected:
  ResourceHandle() : neededEntry_(Lumen::makeNode<Asic::NeededEntry>()) {}

 private:
  mutable Lumen::Publisher publisher_;
  Lumen::Ptr<Asic::NeededEntry> neededEntry_;
  std::uint32_t updateVersion_ = 0;
  Asic::EntryState entryState_ = Asic::EntryState::entryStateUnresolved;
  bool postRelease_ = false;
};

// The handle of one resource table: Results is what an entry reads off it.
template <class Key, class Results>
class TypedResourceHandle final : public ResourceHandle {
 public:
  explicit TypedResourceHandle(const Key& key) : key_(key) {}

  [[nodiscard]] const Key& key() const noexcept { return key_; }
  [[nodiscard]] const Results& results() const noexcept { return results_; }
  void resultsIs(const Results& results) noexcept { results_ = results; }

 private:
  Key key_;
  Results results_;
};

}  // namespace PactResourceTable
