#include "Asic/GroupResolver.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace Asic {

ResolverEntry::~ResolverEntry() = default;

bool GroupResolver::frontIsLater(const TableQueue* a, const TableQueue* b) noexcept {
  return a->frontArrival_ > b->frontArrival_;
}

ResolverTableQueue::~ResolverTableQueue() { clear(); }

void ResolverTableQueue::clear() noexcept {
  if (resolver_ != nullptr) {
    resolver_->forget(*this);
  }
  // One at a time: a chain of a million operations must not be dropped recursively.
  while (front_) {
    front_ = std::move(front_->next_);
  }
  back_ = nullptr;
  size_ = 0;
}

GroupResolver::GroupResolver() = default;

GroupResolver::~GroupResolver() {
  for (TableQueue* queue : std::vector<TableQueue*>(active_)) {
    queue->clear();
  }
}

void GroupResolver::forget(TableQueue& queue) noexcept {
  size_ -= queue.size_;
  std::erase(active_, &queue);
  if (std::erase(candidates_, &queue) != 0) {
    std::make_heap(candidates_.begin(), candidates_.end(), frontIsLater);
  }
  queue.resolver_ = nullptr;
  if (asking_ == &queue) {
    asking_ = nullptr;
  }
}

void GroupResolver::resolverQueueEnq(const Lumen::Ptr<ResolverEntry>& entry) {
  TableQueue& queue = entry->queue_;
  entry->arrival_ = nextArrival_++;
  if (queue.back_ == nullptr) {
    queue.front_ = entry;
    queue.frontArrival_ = entry->arrival_;
    queue.refusedAt_ = 0;
    queue.resolver_ = this;
    active_.push_back(&queue);
  } else {
    queue.back_->next_ = entry;
  }
  queue.back_ = entry.get();
  ++queue.size_;
  ++size_;
}

bool GroupResolver::passWorthRunning() const noexcept {
  return !active_.empty() && passGenId_ != genId_;
}

void GroupResolver::wake() {
  if (wakeUp_) {
    awake_ = true;
    wakeUp_();
  }
}

// Has what the next operations need fetched while this one is worked on. Each pointer has been
// fetched some operations before it is followed.
void GroupResolver::fetchAhead(const TableQueue& queue, const ResolverEntry& entry) noexcept {
  // As numbers: what is fetched may be null, and may end before its second line.
  const auto fetch = [](const void* object) {
    const auto at = reinterpret_cast<std::uintptr_t>(object);
    __builtin_prefetch(reinterpret_cast<const void*>(at));
    __builtin_prefetch(reinterpret_cast<const void*>(at + 64));
  };
  const ResolverEntry* ahead = entry.next_.get();
  for (const bool near : {true, false}) {
    if (ahead == nullptr) {
      return;
    }
    if (queue.fetchAhead_ != nullptr && ahead->operation_ != nullptr) {
      queue.fetchAhead_(queue.table_, ahead->operation_, near);
    }
    ahead = ahead->next_.get();
  }
  if (ahead != nullptr) {
    fetch(ahead->operation_);
    fetch(ahead->handle_);
    fetch(ahead->next_.get());
  }
}

// Commits from one table, up to the arrival `end` of the pass and as long as its front is earlier
// than `limit`, the earliest front of the others. Gives true if the table may have more for this
// pass.
bool GroupResolver::askFirst(TableQueue& queue, std::uint64_t end, std::uint64_t limit,
                             std::size_t& committed) {
  while (queue.resolver_ != nullptr && queue.frontArrival_ < end) {
    if (queue.frontArrival_ > limit) {
      return true;
    }
    const Lumen::Ptr<ResolverEntry> entry = queue.front_;
    fetchAhead(queue, *entry);
    if (!entry->isResolved()) {
      queue.refusedAt_ = genId_;
      return false;
    }
    queue.front_ = std::move(entry->next_);
    --queue.size_;
    --size_;
    queue.refusedAt_ = 0;
    if (queue.front_) {
      queue.frontArrival_ = queue.front_->arrival_;
    } else {
      queue.back_ = nullptr;
      queue.resolver_ = nullptr;
      std::erase(active_, &queue);
    }
    ++committed;
    // A response handler may drop the table, and its queue with it.
    asking_ = queue.front_ ? &queue : nullptr;
    entry->commitEntry(entry);
    // Somebody may have waited for this one.
    updateGenId();
    if (asking_ == nullptr) {
      return false;
    }
  }
  return false;
}

std::size_t GroupResolver::runPass() {
  if (inPass_) {
    return 0;
  }
  // A response handler may drop the last pointer to the group, or throw.
  const Lumen::Ptr<GroupResolver> self(this);
  struct Pass {
    explicit Pass(bool& flag) : running(flag) { running = true; }
    ~Pass() { running = false; }
    Pass(const Pass&) = delete;
    Pass& operator=(const Pass&) = delete;
    bool& running;
  };
  std::optional<Pass> pass(inPass_);
  awake_ = false;
  const std::uint64_t end = nextArrival_;
  const std::uint64_t genAtStart = genId_;
  std::size_t committed = 0;

  candidates_.clear();
  for (TableQueue* queue : active_) {
    if (queue->refusedAt_ != genAtStart) {
      candidates_.push_back(queue);
    }
  }
  std::make_heap(candidates_.begin(), candidates_.end(), frontIsLater);
  while (!candidates_.empty()) {
    std::pop_heap(candidates_.begin(), candidates_.end(), frontIsLater);
    TableQueue* queue = candidates_.back();
    candidates_.pop_back();
    const TableQueue* next = candidates_.empty() ? nullptr : candidates_.front();
    const std::uint64_t limit = next == nullptr ? end : next->frontArrival_;
    if (askFirst(*queue, end, limit, committed)) {
      candidates_.push_back(queue);
      std::push_heap(candidates_.begin(), candidates_.end(), frontIsLater);
    }
  }
  // Another pass is worth running if an answer was given before the last commit, or not at all.
  const bool more = std::any_of(active_.begin(), active_.end(), [&](const TableQueue* queue) {
    return queue->refusedAt_ != genId_;
  });
  passGenId_ = more ? genId_ - 1 : genId_;
  pass.reset();
  maybeUpdateSuspend();
  return committed;
}

}  // namespace Asic
