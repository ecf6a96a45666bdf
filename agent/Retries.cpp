#include "agent/Retries.h"

#include <algorithm>

#include "agent/Say.h"

namespace Agent {

Retries::Watch::Watch(Retries& retries, const Common::MissingResource& resource)
    : Lumen::Subscriber(&Watch::dispatchTo), owner(retries), missing(resource) {
  missing.handle->publisher()->subscriberAdd(this);
}

Retries::Watch::~Watch() { missing.handle->publisher()->subscriberRemove(this); }

void Retries::Watch::dispatchTo(Lumen::Publisher*, Lumen::Subscriber* subscriber,
                                Lumen::FieldId field, const void*, const void*) noexcept {
  const auto& self = *static_cast<Watch*>(subscriber);
  if (field.attribute() != self.missing.field.attribute()) {
    return;
  }
  for (const Number number : self.waiters) {
    self.owner.readyIs(number);
  }
}

Retries::Retries(const Tables& tables) : tables_(tables), places_(tables.size()) {}

Retries::~Retries() = default;

void Retries::add(HeldWrite write, const Missing& missing) {
  const Number number = next_++;
  places_[write.place][write.key] = number;
  Waiting& waiting = waiting_[number];
  waiting.write = std::move(write);
  watch(number, waiting, missing);
  if (waiting_.size() > kMost) {
    if (!std::exchange(saidGivenUp_, true)) {
      say("more than {} failed writes wait for resources: the oldest are given up, write them "
          "again",
          kMost);
    }
    forget(waiting_.begin()->first);
  }
}

// What is missing still must be held all the time: the new ones come before the old ones go.
void Retries::watch(Number number, Waiting& waiting, const Missing& missing) {
  std::vector<Watch*> watches;
  for (const Common::MissingResource& one : missing) {
    auto& watch = watches_[one.handle.get()];
    if (!watch) {
      watch = std::make_unique<Watch>(*this, one);
    }
    watch->waiters.insert(number);
    watches.push_back(watch.get());
  }
  waiting.watches.swap(watches);
  for (Watch* const old : watches) {
    if (std::find(waiting.watches.begin(), waiting.watches.end(), old) != waiting.watches.end()) {
      continue;
    }
    old->waiters.erase(number);
    if (old->waiters.empty()) {
      watches_.erase(old->missing.handle.get());
    }
  }
}

void Retries::forget(Number number) {
  const auto found = waiting_.find(number);
  const HeldWrite& write = found->second.write;
  places_[write.place].erase(write.key);
  watch(number, found->second, {});
  waiting_.erase(found);
}

void Retries::drop(std::size_t place, const Common::AnyKey& key) {
  // Nearly always there is none.
  if (const auto found = places_[place].find(key); found != places_[place].end()) {
    forget(found->second);
  }
}

void Retries::dropAll(std::size_t place) {
  while (!places_[place].empty()) {
    forget(places_[place].begin()->second);
  }
}

void Retries::readyIs(Number number) {
  Waiting& waiting = waiting_.at(number);
  if (!std::exchange(waiting.ready, true)) {
    ready_.push_back(number);
    maybeWake();
  }
}

void Retries::maybeWake() {
  if (hasWork() && !woken_ && wakeUp_) {
    woken_ = true;
    wakeUp_();
  }
}

void Retries::step(unsigned most, const std::function<bool()>& hasRoom,
                   const std::function<void(HeldWrite&)>& again) {
  woken_ = false;
  for (unsigned looked = 0; looked < most && hasWork() && hasRoom(); ++looked) {
    const Number number = ready_.front();
    ready_.pop_front();
    const auto found = waiting_.find(number);
    if (found == waiting_.end()) {
      continue;
    }
    Waiting& waiting = found->second;
    waiting.ready = false;
    const Missing missing =
        tables_[waiting.write.place]->missingResources(waiting.write.intent->entry);
    if (missing.empty()) {
      // What is let go before it is written goes to the next that waits.
      again(waiting.write);
      forget(number);
    } else {
      watch(number, waiting, missing);
    }
  }
  if (hasRoom()) {
    maybeWake();
  }
}

void Retries::forEach(std::uint64_t from, const Visit& visit) const {
  for (auto one = waiting_.lower_bound(from); one != waiting_.end(); ++one) {
    Missing missing;
    for (const Watch* const watch : one->second.watches) {
      missing.push_back(watch->missing);
    }
    if (!visit(one->first, one->second.write, missing)) {
      return;
    }
  }
}

void Retries::lookAround(unsigned most) {
  for (unsigned looked = 0; looked < most && looked < waiting_.size(); ++looked) {
    auto next = waiting_.upper_bound(lookedAt_);
    if (next == waiting_.end()) {
      next = waiting_.begin();
    }
    lookedAt_ = next->first;
    readyIs(lookedAt_);
  }
}

}  // namespace Agent
