#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

#include "Asic/InspectClasses.h"
#include "Asic/ResolverEntry.h"
#include "Brio/Attributes.h"
#include "Lumen/Node.h"
#include "Lumen/Ptr.h"

namespace Asic {

// The queue that the tables of a group share. It holds operations in the order of their arrival and
// commits them, one pass at a time, when its owner says so.
//
// A pass takes what was queued when it began, always from the software table whose front arrived
// first. A front that is not resolved holds back the later operations of its own software table and
// nobody else's. So a pass costs what it commits and one step per table with something queued,
// however long the queue is.
//
// Nothing is asked twice while nothing changes: a front that answered no waits until updateGenId()
// says that an answer may have changed. The question and the commit of an operation are adjacent.
// Putting an operation in never commits anything.
class GroupResolver final : public Lumen::Node {
 public:
  using TableQueue = ResolverTableQueue;

  static constexpr const char* className() { return "GroupResolver"; }
  static constexpr auto attributes() {
    using R = GroupResolver;
    return Brio::attributeList(130, Brio::stored("size", &R::size_),
                               Brio::stored("genId", &R::genId_),
                               Brio::view("passWorthRunning", &R::passWorthRunning));
  }
  static constexpr const Lumen::TypeData& classData() { return kInspectClass<17, "GroupResolver">; }
  [[nodiscard]] const Lumen::TypeData& typeData() const override { return classData(); }

  GroupResolver();
  ~GroupResolver() override;

  // Puts an operation behind everything that the group has pending. `entry` stands in no queue.
  void resolverQueueEnq(const Lumen::Ptr<ResolverEntry>& entry);

  // The answer of a waiting operation may have changed.
  void updateGenId() const noexcept { ++genId_; }
  [[nodiscard]] std::uint64_t genId() const noexcept { return genId_; }

  // Tells the owner of the loop, through the wake-up, that a pass is worth running. At most one
  // call between two passes, and none while a pass runs: it looks for itself when it ends.
  void maybeUpdateSuspend() {
    if (!awake_ && !inPass_ && passWorthRunning()) {
      wake();
    }
  }
  // Whether a pass would ask anybody anything.
  [[nodiscard]] bool passWorthRunning() const noexcept;
  void wakeUpIs(std::function<void()> wakeUp) {
    wakeUp_ = std::move(wakeUp);
    awake_ = false;
  }

  // Runs one pass and gives the number of operations committed. Called from within a pass (by a
  // response handler) it does nothing and gives 0.
  std::size_t runPass();

  // Operations queued, all tables.
  [[nodiscard]] std::size_t size() const noexcept { return size_; }

 private:
  friend class ResolverTableQueue;

  static bool frontIsLater(const TableQueue* a, const TableQueue* b) noexcept;
  static void fetchAhead(const TableQueue& queue, const ResolverEntry& entry) noexcept;
  void wake();
  void forget(TableQueue& queue) noexcept;
  bool askFirst(TableQueue& queue, std::uint64_t end, std::uint64_t limit, std::size_t& committed);

  std::vector<TableQueue*> active_;      // the tables with something queued
  std::vector<TableQueue*> candidates_;  // of the pass that runs: a heap, earliest front on top
  const TableQueue* asking_ = nullptr;   // the table whose operation commits; null once it is gone
  std::size_t size_ = 0;
  std::uint64_t nextArrival_ = 1;
  mutable std::uint64_t genId_ = 1;
  std::uint64_t passGenId_ = 0;  // the generation in which every front has answered no
  bool inPass_ = false;
  bool awake_ = false;
  std::function<void()> wakeUp_;
};

}  // namespace Asic
