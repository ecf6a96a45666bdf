#include "Lumen/Publisher.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

// Subscribers that come and go while a publisher publishes.

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr Lumen::FieldId kField{0x10082};
constexpr std::size_t kMostCalls = 1000;

class PublisherRound : public testing::Test {
 protected:
  // Notes that it was called, and then does what the test asks for.
  class Listener final : public Lumen::Subscriber {
   public:
    Listener(PublisherRound& test, std::string name)
        : Subscriber(&Listener::changed), test_(test), name_(std::move(name)) {}

    std::function<void()> then;

   private:
    static void changed(Lumen::Publisher* publisher, Lumen::Subscriber* self, Lumen::FieldId field,
                        const void*, const void*) {
      auto* listener = static_cast<Listener*>(self);
      EXPECT_EQ(publisher, &listener->test_.publisher_);
      EXPECT_EQ(field, kField);
      listener->test_.called_.push_back(listener->name_);
      // It may be gone when `then` is through. A round that does not end does so all the same.
      const std::function<void()> action = listener->then;
      if (action && listener->test_.called_.size() < kMostCalls) {
        action();
      }
    }

    PublisherRound& test_;
    std::string name_;
  };

  void add(Listener& listener) { publisher_.subscriberAdd(&listener); }
  void remove(Listener& listener) { publisher_.subscriberRemove(&listener); }
  // Who was called in one round, in order.
  std::vector<std::string> round() {
    called_.clear();
    publisher_.publishChange(kField);
    return std::exchange(called_, {});
  }

  Lumen::Publisher publisher_;
  std::vector<std::string> called_;
  Listener a_{*this, "a"};
  Listener b_{*this, "b"};
  Listener c_{*this, "c"};
  Listener d_{*this, "d"};
};

TEST_F(PublisherRound, CallsEachOnceInTheOrderOfTheirComing) {
  EXPECT_THAT(round(), IsEmpty());
  for (Listener* listener : {&b_, &a_, &b_, &c_}) {
    add(*listener);
  }
  EXPECT_THAT(round(), ElementsAre("b", "a", "c"));
  remove(b_);
  remove(d_);
  EXPECT_THAT(round(), ElementsAre("a", "c"));
  add(b_);
  EXPECT_THAT(round(), ElementsAre("a", "c", "b"));
}

TEST_F(PublisherRound, GoesOnWhenTheOneThatIsCalledLeaves) {
  for (Listener* listener : {&a_, &b_, &c_}) {
    add(*listener);
    listener->then = [this, listener] { remove(*listener); };
  }
  EXPECT_THAT(round(), ElementsAre("a", "b", "c"));
  EXPECT_FALSE(publisher_.hasSubscribers());
  EXPECT_THAT(round(), IsEmpty());
  add(b_);
  EXPECT_THAT(round(), ElementsAre("b"));
}

TEST_F(PublisherRound, DoesNotCallThoseWhoWereRemovedBeforeTheirTurn) {
  for (Listener* listener : {&a_, &b_, &c_, &d_}) {
    add(*listener);
  }
  a_.then = [this] {
    remove(b_);
    remove(d_);
  };
  EXPECT_THAT(round(), ElementsAre("a", "c"));
  EXPECT_THAT(round(), ElementsAre("a", "c"));
}

TEST_F(PublisherRound, CallsNobodyTwiceWhenOneWhoWasCalledIsRemoved) {
  for (Listener* listener : {&a_, &b_, &c_, &d_}) {
    add(*listener);
  }
  // The places of those who follow must not move.
  c_.then = [this] {
    remove(a_);
    remove(b_);
  };
  EXPECT_THAT(round(), ElementsAre("a", "b", "c", "d"));
  EXPECT_THAT(round(), ElementsAre("c", "d"));
}

TEST_F(PublisherRound, CallsThoseWhoCameFromTheNextRoundOn) {
  add(a_);
  // Many, so that whatever keeps them has to grow during the round.
  std::vector<std::unique_ptr<Listener>> many;
  std::vector<std::string> everybody{"a"};
  for (int i = 0; i < 100; ++i) {
    many.push_back(std::make_unique<Listener>(*this, "m" + std::to_string(i)));
    everybody.push_back("m" + std::to_string(i));
  }
  a_.then = [&] {
    for (const auto& listener : many) {
      add(*listener);
    }
  };
  EXPECT_THAT(round(), ElementsAre("a"));
  EXPECT_EQ(round(), everybody) << "those who are there already are not added again";
}

TEST_F(PublisherRound, CallsOneWhoLeftAndCameBackNoMoreThanOnce) {
  for (Listener* listener : {&a_, &b_, &c_}) {
    add(*listener);
  }
  b_.then = [this] {
    for (Listener* listener : {&a_, &b_, &c_}) {
      remove(*listener);
      add(*listener);
    }
  };
  const auto called = round();
  EXPECT_EQ(std::count(called.begin(), called.end(), "a"), 1);
  EXPECT_EQ(std::count(called.begin(), called.end(), "b"), 1);
  EXPECT_LE(std::count(called.begin(), called.end(), "c"), 1);
  b_.then = nullptr;
  EXPECT_THAT(round(), ElementsAre("a", "b", "c")) << "in the order of their coming back";
}

TEST_F(PublisherRound, LetsOneWhoLeavesDieAtOnce) {
  auto dying = std::make_unique<Listener>(*this, "dying");
  auto other = std::make_unique<Listener>(*this, "other");
  add(*dying);
  add(a_);
  add(*other);
  dying->then = [&] {
    remove(*dying);
    remove(*other);
    dying.reset();
    other.reset();
  };
  EXPECT_THAT(round(), ElementsAre("dying", "a"));
  EXPECT_THAT(round(), ElementsAre("a"));
}

TEST_F(PublisherRound, MayBeginWithinAnother) {
  for (Listener* listener : {&a_, &b_, &c_}) {
    add(*listener);
  }
  // Within a's call all are called, and b leaves: it was called within, and is not called without.
  a_.then = [this] {
    a_.then = nullptr;
    publisher_.publishChange(kField);
  };
  b_.then = [this] {
    remove(b_);
    add(d_);
  };
  EXPECT_THAT(round(), ElementsAre("a", "a", "b", "c", "c"));
  EXPECT_THAT(round(), ElementsAre("a", "c", "d"));
}

TEST_F(PublisherRound, PassesOverOneWhoStopsListening) {
  for (Listener* listener : {&a_, &b_, &c_}) {
    add(*listener);
  }
  const auto dispatch = b_.dispatch();
  a_.then = [this] { b_.dispatchIs(nullptr); };
  EXPECT_THAT(round(), ElementsAre("a", "c"));
  a_.then = nullptr;
  b_.dispatchIs(dispatch);
  EXPECT_THAT(round(), ElementsAre("a", "b", "c"));
}

TEST_F(PublisherRound, ThatIsCutOffByAnExceptionLeavesThePublisherWhole) {
  for (Listener* listener : {&a_, &b_, &c_}) {
    add(*listener);
  }
  b_.then = [this] {
    remove(a_);
    throw std::runtime_error("no");
  };
  EXPECT_THROW(publisher_.publishChange(kField), std::runtime_error);
  EXPECT_THAT(called_, ElementsAre("a", "b"));
  b_.then = nullptr;
  EXPECT_THAT(round(), ElementsAre("b", "c"));
  // Outside of a round those who go are forgotten at once.
  remove(b_);
  remove(c_);
  EXPECT_FALSE(publisher_.hasSubscribers());
}

}  // namespace
