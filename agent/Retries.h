#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Lumen/Publisher.h"
#include "agent/HashKey.h"
#include "agent/HeldWrite.h"
#include "common/AnyTable.h"

namespace Agent {

// Remembers writes that failed for want of a resource, and hands them back once all that they name
// can be had.
//
// It holds the handles of what is missing, so that the resource tables know that somebody waits and
// keep the place in their queues. What can be had while something else is still missing is not
// held: whoever can use it gets it. So a write that waits for two resources may lose one again, and
// asks for both anew when the other one comes.
//
// What the handles publish is only noted; step() does the work, from the loop. The oldest writes
// are given up where there are more than kMost.
class Retries {
 public:
  static constexpr std::size_t kMost = 16384;

  using Tables = std::vector<std::unique_ptr<Common::AnyTable>>;
  using Missing = std::vector<Common::MissingResource>;

  // The tables by place; they must outlive it.
  explicit Retries(const Tables& tables);
  ~Retries();
  Retries(const Retries&) = delete;
  Retries& operator=(const Retries&) = delete;

  // Called when a step is worth taking; at most once before the next step.
  void wakeUpIs(std::function<void()> wakeUp) { wakeUp_ = std::move(wakeUp); }

  // Remembers a write. Nothing of its key is remembered.
  void add(HeldWrite write, const Missing& missing);
  // A newer intent is there for the key, or for all of a place.
  void drop(std::size_t place, const Common::AnyKey& key);
  void dropAll(std::size_t place);

  // Looks at writes whose resources have changed, at most `most` and as long as hasRoom() says so,
  // and calls again(write) for those that can have all they need, which are forgotten then. again()
  // has to write, may take what it needs out of the write but for its place and key, and must not
  // call back.
  void step(unsigned most, const std::function<bool()>& hasRoom,
            const std::function<void(HeldWrite&)>& again);
  // Calls for a step, if there is anything to do in it.
  void maybeWake();
  // Has some looked at, in turn, whose resources have told nothing: a resource table that has no
  // room in its store to note a use says nothing when it has room again.
  void lookAround(unsigned most);

  [[nodiscard]] std::size_t size() const noexcept { return waiting_.size(); }
  // Calls visit(number, write, missing) for the writes from this number on, the oldest first, until
  // it gives false: `missing` are the resources that could not be had, as they are now.
  using Visit =
      std::function<bool(std::uint64_t number, const HeldWrite& write, const Missing& missing)>;
  void forEach(std::uint64_t from, const Visit& visit) const;
  // Whether a step would look at anything.
  [[nodiscard]] bool hasWork() const noexcept { return !ready_.empty(); }

 private:
  using Number = std::uint64_t;  // in the order of their coming

  // One handle, and who waits for it.
  struct Watch final : Lumen::Subscriber {
    Watch(Retries& retries, const Common::MissingResource& resource);
    ~Watch();
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;
    static void dispatchTo(Lumen::Publisher* publisher, Lumen::Subscriber* subscriber,
                           Lumen::FieldId field, const void* key, const void* oldValue) noexcept;

    Retries& owner;
    Common::MissingResource missing;
    std::set<Number> waiters;
  };
  struct Waiting {
    HeldWrite write;
    std::vector<Watch*> watches;
    bool ready = false;  // to be looked at
  };
  using Place = std::unordered_map<Common::AnyKey, Number, HashKey>;

  void watch(Number number, Waiting& waiting, const Missing& missing);
  void readyIs(Number number);
  void forget(Number number);

  const Tables& tables_;
  std::function<void()> wakeUp_;
  std::map<Number, Waiting> waiting_;
  std::vector<Place> places_;
  std::unordered_map<const PactResourceTable::ResourceHandle*, std::unique_ptr<Watch>> watches_;
  std::deque<Number> ready_;  // and some that are not there any more
  Number next_ = 1;
  Number lookedAt_ = 0;
  bool woken_ = false;
  bool saidGivenUp_ = false;
};

}  // namespace Agent
