#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

#include "Asic/DependencyEntryHandle.h"
#include "Asic/EntryFlags.h"
#include "Asic/InspectClasses.h"
#include "Brio/Attributes.h"
#include "Lumen/Node.h"
#include "Lumen/Ptr.h"

namespace Asic {

class GroupResolver;
class ResolverTableQueue;

// One operation in the group's queue: what it depends on and what kind it is. A table derives its
// own, which carries the operation itself.
class ResolverEntry : public Lumen::Node {
 public:
  static constexpr const char* className() { return "ResolverEntry"; }
  static constexpr auto attributes() {
    return Brio::attributeList(130, Brio::stored("dependency", &ResolverEntry::dependency_),
                               Brio::stored("flags", &ResolverEntry::flags_),
                               Brio::view("isEntryDeleted", &ResolverEntry::isEntryDeleted),
                               Brio::view("isTableDeleted", &ResolverEntry::isTableDeleted));
  }
  static constexpr const Lumen::TypeData& classData() { return kInspectClass<12, "ResolverEntry">; }

  ~ResolverEntry() override;

  // Whether the operation may go forward now. Asked again when an answer may have changed.
  [[nodiscard]] virtual bool isResolved() = 0;
  // Takes the operation forward. Called once, right after isResolved() has answered true; `self` is
  // this entry.
  virtual void commitEntry(const Lumen::Ptr<ResolverEntry>& self) = 0;

  // The entry that must be logged first; null for none.
  [[nodiscard]] const Lumen::Ptr<const DependencyEntryHandle>& dependency() const noexcept {
    return dependency_;
  }
  [[nodiscard]] EntryFlags flags() const noexcept { return flags_; }
  [[nodiscard]] bool isEntryDeleted() const noexcept {
    return has(flags_, EntryFlags::entryDeleted);
  }
  [[nodiscard]] bool isTableDeleted() const noexcept {
    return has(flags_, EntryFlags::tableDeleted);
  }

 protected:
  // `queue` is that of the table whose operation this is; `operation` and `handle` are what its
  // commit will touch first, which the resolver has fetched into the cache ahead.
  ResolverEntry(Lumen::Ptr<const DependencyEntryHandle> dependency, EntryFlags flags,
                ResolverTableQueue& queue, const void* operation = nullptr,
                const void* handle = nullptr)
      : dependency_(std::move(dependency)),
        queue_(queue),
        operation_(operation),
        handle_(handle),
        flags_(flags) {}

 private:
  friend class GroupResolver;  // which links the entries of a table
  friend class ResolverTableQueue;

  Lumen::Ptr<const DependencyEntryHandle> dependency_;
  ResolverTableQueue& queue_;
  const void* operation_;
  const void* handle_;
  Lumen::Ptr<ResolverEntry> next_;
  std::uint64_t arrival_ = 0;
  EntryFlags flags_;
};

// The operations of one software table, oldest first. Part of the table; it drops what is left when
// the table goes.
class ResolverTableQueue {
 public:
  ResolverTableQueue() = default;
  ~ResolverTableQueue();
  ResolverTableQueue(const ResolverTableQueue&) = delete;
  ResolverTableQueue& operator=(const ResolverTableQueue&) = delete;

  // Has the processor fetch what the commit of an operation will look for, first its keys' places
  // (far), and some operations later what lies there (near).
  using FetchAhead = void (*)(const void* table, const void* operation, bool near);
  void fetchAheadIs(FetchAhead fetchAhead, const void* table) noexcept {
    fetchAhead_ = fetchAhead;
    table_ = table;
  }

  [[nodiscard]] std::size_t size() const noexcept { return size_; }
  // The oldest operation, or null.
  [[nodiscard]] const Lumen::Ptr<ResolverEntry>& front() const noexcept { return front_; }
  // Drops every operation without a commit.
  void clear() noexcept;

 private:
  friend class GroupResolver;

  Lumen::Ptr<ResolverEntry> front_;
  ResolverEntry* back_ = nullptr;
  std::size_t size_ = 0;
  GroupResolver* resolver_ = nullptr;  // set while the queue holds something
  std::uint64_t frontArrival_ = 0;
  std::uint64_t refusedAt_ = 0;  // the generation at which the front answered no; 0: not asked
  FetchAhead fetchAhead_ = nullptr;
  const void* table_ = nullptr;
};

}  // namespace Asic
