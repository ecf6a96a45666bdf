#include "Lumen/Publisher.h"

#include <algorithm>
#include <vector>

namespace Lumen {

struct Publisher::State {
  std::vector<Subscriber*> subscribers;  // a null stands for one that went during a publication
  unsigned publishing = 0;
};

Publisher::Publisher() noexcept = default;
Publisher::~Publisher() = default;

void Publisher::subscriberAdd(Subscriber* subscriber) {
  if (!state_) {
    state_ = std::make_unique<State>();
  }
  auto& all = state_->subscribers;
  if (std::find(all.begin(), all.end(), subscriber) == all.end()) {
    all.push_back(subscriber);
  }
}

void Publisher::subscriberRemove(Subscriber* subscriber) noexcept {
  if (!state_) {
    return;
  }
  auto& all = state_->subscribers;
  auto found = std::find(all.begin(), all.end(), subscriber);
  if (found == all.end()) {
    return;
  }
  if (state_->publishing != 0) {
    *found = nullptr;
    return;
  }
  all.erase(found);
  if (all.empty()) {
    state_.reset();
  }
}

void Publisher::deliver(FieldId field, const void* key, const void* oldValue) {
  struct Depth {
    explicit Depth(Publisher& owner) : publisher(owner) { ++publisher.state_->publishing; }
    ~Depth() {
      State& state = *publisher.state_;
      if (--state.publishing == 0) {
        std::erase(state.subscribers, nullptr);
        if (state.subscribers.empty()) {
          publisher.state_.reset();
        }
      }
    }
    Publisher& publisher;
  } depth(*this);

  const std::size_t count = state_->subscribers.size();
  for (std::size_t i = 0; i < count; ++i) {
    Subscriber* subscriber = state_->subscribers[i];
    if (subscriber != nullptr && subscriber->dispatch() != nullptr) {
      subscriber->dispatch()(this, subscriber, field, key, oldValue);
    }
  }
}

}  // namespace Lumen
