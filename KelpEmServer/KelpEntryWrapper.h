#pragma once

#include "Asic/OrderedSwTable.h"
#include "Brio/Attributes.h"
#include "KelpEmServer/Forward.h"
#include "KelpEmServer/TypeModule.h"
#include "KelpEmServer/WrapperResources.h"
#include "Lumen/Node.h"
#include "Lumen/Ptr.h"
#include "PoolSlab/Slabbed.h"

namespace KelpEmServer {

// The entry in flight, together with its handle and the resources that it holds. Lives as long as a
// collection, a queued operation or a caller holds it.
template <TableSpec T>
class KELP_EM_EXPORT KelpEntryWrapper final : public Lumen::Node,
                                              public PoolSlab::Slabbed<KelpEntryWrapper<T>>,
                                              public T::WrapperResources {
 public:
  using Entry = typename T::Entry;
  using Key = typename Entry::Key;
  using LogEntry = typename Entry::LogEntry;
  using ResourceKeys = typename Entry::ResourceKeys;

  static constexpr const char* className() { return kTableText<T, "KelpEntryWrapper">.c_str(); }
  static constexpr auto attributes() {
    return Brio::attributeGroups(
        130,
        std::tuple{Brio::stored("entry", &KelpEntryWrapper::entry_),
                   Brio::stored("entryHandle", &KelpEntryWrapper::entryHandle_),
                   Brio::view("key", &KelpEntryWrapper::key),
                   Brio::view("logEntry", &KelpEntryWrapper::logEntry),
                   Brio::view("rsrcKeys", &KelpEntryWrapper::rsrcKeys)},
        T::WrapperResources::template attributes<KelpEntryWrapper>(),
        std::tuple{Brio::operation("setResolvedFields", &KelpEntryWrapper::setResolvedFields),
                   Brio::operation("retrieveClientData", &KelpEntryWrapper::retrieveClientData),
                   Brio::operation("finalizeOnSuccess", &KelpEntryWrapper::finalizeOnSuccess),
                   Brio::operation("finalizeOnFailure", &KelpEntryWrapper::finalizeOnFailure)});
  }

  // Copies the entry, and leaves the resources null.
  KelpEntryWrapper(const Entry& entry, const Lumen::Ptr<Asic::OrderedSwTable::EntryHandle>& handle)
      : entry_(entry), entryHandle_(handle) {}
  ~KelpEntryWrapper() override = default;
  [[nodiscard]] static Lumen::Ptr<KelpEntryWrapper> KelpEntryWrapperIs(
      const Entry& entry, const Lumen::Ptr<Asic::OrderedSwTable::EntryHandle>& handle) {
    return Lumen::makeNode<KelpEntryWrapper>(entry, handle);
  }
  static constexpr auto factory() { return &KelpEntryWrapper::KelpEntryWrapperIs; }

  static constexpr const Lumen::TypeData& classData() {
    return kTypeData<T, "KelpInfraTypes", 0, "KelpEntryWrapper">;
  }
  [[nodiscard]] const Lumen::TypeData& typeData() const override { return classData(); }

  [[nodiscard]] const Entry& entry() const noexcept { return entry_; }
  [[nodiscard]] const Lumen::Ptr<Asic::OrderedSwTable::EntryHandle>& entryHandle() const noexcept {
    return entryHandle_;
  }
  [[nodiscard]] const Key& key() const noexcept { return entry_.logEntry.key; }
  void keyIs(const Key& key) noexcept { entry_.logEntry.key = key; }
  [[nodiscard]] const LogEntry& logEntry() const noexcept { return entry_.logEntry; }
  [[nodiscard]] const ResourceKeys& rsrcKeys() const noexcept { return entry_.rsrcKeys; }

  // The keys of the resources, where the table names such: templates, so that each is made only for
  // those tables.
  template <class Keys = ResourceKeys>
  [[nodiscard]] const auto& inLifIdxKey() const noexcept {
    return static_cast<const Keys&>(entry_.rsrcKeys).inLifIdxKey;
  }
  template <class Keys = ResourceKeys>
  [[nodiscard]] const auto& vlanEditProfileKey() const noexcept {
    return static_cast<const Keys&>(entry_.rsrcKeys).vlanEditProfileKey;
  }
  template <class Keys = ResourceKeys>
  [[nodiscard]] const auto& remarkProfileKey() const noexcept {
    return static_cast<const Keys&>(entry_.rsrcKeys).remarkProfileKey;
  }
  template <class Keys = ResourceKeys>
  [[nodiscard]] std::uint16_t remarkProfileType() const noexcept {
    return static_cast<const Keys&>(entry_.rsrcKeys).remarkProfileType;
  }

  // Copies the values of the resources into the log entry; 0 where there is no handle. Nothing on a
  // table without resources.
  void setResolvedFields() noexcept { T::WrapperResources::setResolvedFields(entry_.logEntry); }
  // Copies into the entry what a resource decides besides its result.
  void retrieveClientData();
  // The operation goes to the log: completes the log entry, unless it is a delete, and tells the
  // helper.
  void finalizeOnSuccess(const Lumen::Ptr<KelpSwTable<T>>& table, bool isDeleted);
  // A resource of the write has failed; true if the helper wants it logged all the same.
  [[nodiscard]] bool finalizeOnFailure(const Lumen::Ptr<KelpSwTable<T>>& table, bool isDeleted);

 private:
  Entry entry_;
  Lumen::Ptr<Asic::OrderedSwTable::EntryHandle> entryHandle_;
};

}  // namespace KelpEmServer
