#pragma once

#include <cstdint>
#include <tuple>
#include <utility>

#include "Asic/EntryState.h"
#include "Asic/NeededEntry.h"
#include "Brio/Attributes.h"
#include "Lumen/Node.h"
#include "Lumen/Publisher.h"
#include "PactResourceTable/InspectClasses.h"

namespace PactResourceTable {

class ResourceHandle;

// Who gives handles out.
class HandleOwner {
 public:
  // Nobody holds the handle any more; it is about to be deleted.
  virtual void handleGone(ResourceHandle& handle) noexcept = 0;

 protected:
  HandleOwner() = default;
  ~HandleOwner() = default;
};

// What a resource table gives out for a key: the state of the resource and, in the class of each
// table, its key and its results. One handle per key and client; the table changes it, everybody
// else reads.
class ResourceHandle : public Lumen::Node {
 public:
  static constexpr const char* className() { return "ResourceHandle"; }
  static constexpr auto attributes() {
    using H = ResourceHandle;
    return Brio::attributeList(130, Brio::stored("neededEntry", &H::neededEntry_),
                               Brio::stored("isPostReleaseProtoState", &H::postRelease_));
  }
  static constexpr const Lumen::TypeData& classData() { return kInspectClass<0, "ResourceHandle">; }

  ~ResourceHandle() override;
  void lastUserGone() const noexcept override;

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

  // What the client keeps with its handle; null at first, and the client's to take away again.
  [[nodiscard]] void* note() const noexcept { return note_; }
  void noteIs(void* note) const noexcept { note_ = note; }

  // For the table: who hears of the handle's end (null: nobody), and what it keeps with the handle.
  void ownerIs(HandleOwner* owner) noexcept { owner_ = owner; }
  [[nodiscard]] void* resource() const noexcept { return resource_; }
  void resourceIs(void* resource) noexcept { resource_ = resource; }
  [[nodiscard]] const void* client() const noexcept { return client_; }
  void clientIs(const void* client) noexcept { client_ = client; }
  [[nodiscard]] ResourceHandle* next() const noexcept { return next_; }
  void nextIs(ResourceHandle* next) noexcept { next_ = next; }

 protected:
  ResourceHandle() : neededEntry_(Lumen::makeNode<Asic::NeededEntry>()) {}

 private:
  mutable Lumen::Publisher publisher_;
  Lumen::Ptr<Asic::NeededEntry> neededEntry_;
  HandleOwner* owner_ = nullptr;
  void* resource_ = nullptr;
  const void* client_ = nullptr;
  ResourceHandle* next_ = nullptr;  // of the same resource
  mutable void* note_ = nullptr;
  std::uint32_t updateVersion_ = 0;
  Asic::EntryState entryState_ = Asic::EntryState::entryStateUnresolved;
  bool postRelease_ = false;
};

// The handle of one resource table: Results is what an entry reads off it. A change of the resource
// is published as one of `entryState`.
template <class KeyT, class ResultsT>
class TypedResourceHandle final : public ResourceHandle {
 public:
  using Key = KeyT;
  using Results = ResultsT;

  static constexpr const char* className() { return Results::handleData().className.data(); }
  static constexpr auto attributes() {
    using H = TypedResourceHandle;
    constexpr std::tuple kResults{Brio::stored("key", &H::key_),
                                  Brio::stored("results", &H::results_)};
    constexpr std::tuple kState{Brio::view("updateVersion", &ResourceHandle::updateVersion),
                                Brio::view("entryState", &ResourceHandle::entryState)};
    if constexpr (requires(const Results& results) { results.clientData; }) {
      return Brio::attributeGroups(514, kResults, std::tuple{Brio::view("clientData", &H::data)},
                                   kState);
    } else {
      return Brio::attributeGroups(514, kResults, kState);
    }
  }
  static constexpr const Lumen::TypeData& classData() { return Results::handleData(); }
  [[nodiscard]] const Lumen::TypeData& typeData() const override { return classData(); }

  explicit TypedResourceHandle(const Key& key) : key_(key) {}

  [[nodiscard]] const Key& key() const noexcept { return key_; }
  [[nodiscard]] const Results& results() const noexcept { return results_; }
  void resultsIs(const Results& results) noexcept { results_ = results; }

 private:
  [[nodiscard]] auto data() const noexcept requires requires(const Results& results) {
    results.clientData;
  }
  { return results_.clientData; }

  Key key_;
  Results results_;
};

}  // namespace PactResourceTable
