#include "Asic/GroupResolver.h"

#include <gmock/gmock.h>

#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// What the resolver did, in order: "? a1" is a question, "! a1" a commit.
using Story = std::vector<std::string>;

class Operation final : public Asic::ResolverEntry {
 public:
  Operation(Asic::ResolverTableQueue& queue, std::string name, Story& story)
      : ResolverEntry(nullptr, Asic::EntryFlags::none, queue),
        name_(std::move(name)),
        story_(story) {}

  bool isResolved() override {
    story_.push_back("? " + name_);
    return !answer_ || answer_();
  }
  void commitEntry(const Lumen::Ptr<ResolverEntry>& self) override {
    EXPECT_EQ(self.get(), this);
    story_.push_back("! " + name_);
    if (effect_) {
      effect_();
    }
  }

  void answerIs(std::function<bool()> answer) { answer_ = std::move(answer); }
  void effectIs(std::function<void()> effect) { effect_ = std::move(effect); }

 private:
  std::string name_;
  Story& story_;
  std::function<bool()> answer_;  // yes if empty
  std::function<void()> effect_;  // of the commit
};

class GroupResolverTest : public testing::Test {
 protected:
  // As the tables do it: in, an answer may have changed, somebody may want to run a pass.
  Lumen::Ptr<Operation> enq(Asic::ResolverTableQueue& table, const std::string& name) {
    auto operation = Lumen::makeNode<Operation>(table, name, story);
    resolver->resolverQueueEnq(operation);
    resolver->updateGenId();
    resolver->maybeUpdateSuspend();
    return operation;
  }
  Lumen::Ptr<Operation> enqBlocked(Asic::ResolverTableQueue& table, const std::string& name) {
    auto operation = enq(table, name);
    operation->answerIs([this] { return open; });
    return operation;
  }
  // Only the commits of the story.
  Story commits() const {
    Story only;
    for (const std::string& step : story) {
      if (step[0] == '!') {
        only.push_back(step.substr(2));
      }
    }
    return only;
  }

  Story story;
  bool open = false;
  Lumen::Ptr<Asic::GroupResolver> resolver = Lumen::makeNode<Asic::GroupResolver>();
  Asic::ResolverTableQueue a;
  Asic::ResolverTableQueue b;
  Asic::ResolverTableQueue c;
};

TEST_F(GroupResolverTest, OperationsCommitInTheOrderOfTheirArrivalOverAllTables) {
  enq(a, "1");
  enq(b, "2");
  enq(b, "3");
  enq(a, "4");
  enq(c, "5");
  enq(b, "6");
  enq(a, "7");
  EXPECT_EQ(resolver->runPass(), 7U);
  EXPECT_THAT(commits(), ElementsAre("1", "2", "3", "4", "5", "6", "7"));
  EXPECT_EQ(resolver->size(), 0U);
}

TEST_F(GroupResolverTest, TheQuestionAndTheCommitOfAnOperationAreAdjacent) {
  enq(a, "1");
  enq(b, "2");
  enq(a, "3");
  resolver->runPass();
  EXPECT_THAT(story, ElementsAre("? 1", "! 1", "? 2", "! 2", "? 3", "! 3"));
}

TEST_F(GroupResolverTest, PuttingAnOperationInAsksAndCommitsNothing) {
  enq(a, "1");
  enqBlocked(b, "2");
  EXPECT_THAT(story, IsEmpty());
  EXPECT_EQ(resolver->size(), 2U);
  EXPECT_EQ(a.size(), 1U);
  EXPECT_NE(a.front(), nullptr);
  EXPECT_EQ(c.front(), nullptr);
}

TEST_F(GroupResolverTest, ABlockedFrontHoldsBackItsOwnTableAndNobodyElses) {
  enqBlocked(a, "a1");
  enq(b, "b1");
  enq(a, "a2");
  enq(b, "b2");
  enq(c, "c1");
  EXPECT_EQ(resolver->runPass(), 3U);
  EXPECT_THAT(commits(), ElementsAre("b1", "b2", "c1"));
  EXPECT_EQ(a.size(), 2U);
  story.clear();
  open = true;
  resolver->updateGenId();
  EXPECT_EQ(resolver->runPass(), 2U);
  EXPECT_THAT(commits(), ElementsAre("a1", "a2"));
}

TEST_F(GroupResolverTest, WhatStandsBehindABlockedFrontIsNotAsked) {
  enqBlocked(a, "front");
  for (int i = 0; i < 1000; ++i) {
    enq(a, "behind");
  }
  EXPECT_EQ(resolver->runPass(), 0U);
  EXPECT_THAT(story, ElementsAre("? front"));
}

TEST_F(GroupResolverTest, NothingIsAskedTwiceWhileNothingChanges) {
  enqBlocked(a, "a1");
  enqBlocked(b, "b1");
  EXPECT_TRUE(resolver->passWorthRunning());
  EXPECT_EQ(resolver->runPass(), 0U);
  EXPECT_THAT(story, ElementsAre("? a1", "? b1"));
  EXPECT_FALSE(resolver->passWorthRunning());
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(resolver->runPass(), 0U);
  }
  EXPECT_EQ(story.size(), 2U);
  resolver->updateGenId();
  EXPECT_TRUE(resolver->passWorthRunning());
  EXPECT_EQ(resolver->runPass(), 0U);
  EXPECT_EQ(story.size(), 4U);
}

TEST_F(GroupResolverTest, AFrontThatAnsweredSinceTheLastCommitIsNotAskedAgain) {
  enq(a, "a1");
  enqBlocked(b, "b1");  // asked after a1 has committed
  EXPECT_EQ(resolver->runPass(), 1U);
  EXPECT_THAT(story, ElementsAre("? a1", "! a1", "? b1"));
  EXPECT_FALSE(resolver->passWorthRunning());
  EXPECT_EQ(resolver->runPass(), 0U);
  EXPECT_EQ(story.size(), 3U);
}

TEST_F(GroupResolverTest, ACommitHasThoseAskedAgainThatAnsweredBeforeIt) {
  bool done = false;
  enq(a, "dependant")->answerIs([&] { return done; });
  enq(b, "dependency")->effectIs([&] { done = true; });
  EXPECT_EQ(resolver->runPass(), 1U);
  EXPECT_TRUE(resolver->passWorthRunning());
  EXPECT_EQ(resolver->runPass(), 1U);
  EXPECT_THAT(commits(), ElementsAre("dependency", "dependant"));
  EXPECT_FALSE(resolver->passWorthRunning());
}

TEST_F(GroupResolverTest, AnAnswerThatChangesWithinAPassIsSeenInTheSamePassByALaterFront) {
  bool done = false;
  enq(b, "dependency")->effectIs([&] { done = true; });
  enq(a, "dependant")->answerIs([&] { return done; });
  EXPECT_EQ(resolver->runPass(), 2U);
  EXPECT_THAT(commits(), ElementsAre("dependency", "dependant"));
}

TEST_F(GroupResolverTest, APassTakesWhatWasQueuedWhenItBegan) {
  enq(a, "a1")->effectIs([this] {
    enq(a, "a2");
    enq(b, "b2");
  });
  enq(a, "a3");
  EXPECT_EQ(resolver->runPass(), 2U);
  EXPECT_THAT(commits(), ElementsAre("a1", "a3"));
  EXPECT_TRUE(resolver->passWorthRunning());
  EXPECT_EQ(resolver->runPass(), 2U);
  EXPECT_THAT(commits(), ElementsAre("a1", "a3", "a2", "b2"));
}

TEST_F(GroupResolverTest, AnOperationThatAlwaysQueuesAnotherDoesNotKeepAPassGoing) {
  std::function<void()> again = [&] { enq(a, "again")->effectIs(again); };
  enq(a, "first")->effectIs(again);
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(resolver->runPass(), 1U);
    EXPECT_TRUE(resolver->passWorthRunning());
  }
  EXPECT_EQ(resolver->size(), 1U);
}

TEST_F(GroupResolverTest, APassFromWithinAPassDoesNothing) {
  enq(a, "a1")->effectIs([this] {
    enq(b, "b1");
    EXPECT_EQ(resolver->runPass(), 0U);
    story.push_back("end of a1");
  });
  EXPECT_EQ(resolver->runPass(), 1U);
  EXPECT_THAT(story, ElementsAre("? a1", "! a1", "end of a1"));
  EXPECT_EQ(resolver->runPass(), 1U);
}

TEST_F(GroupResolverTest, TheOwnerIsWokenAtMostOnceBetweenTwoPasses) {
  int woken = 0;
  resolver->wakeUpIs([&] { ++woken; });
  enq(b, "b1");
  enq(b, "b2");
  enqBlocked(a, "a1");
  EXPECT_EQ(woken, 1);
  resolver->runPass();
  EXPECT_EQ(woken, 1);
  enq(b, "b3");
  enq(b, "b4");
  resolver->maybeUpdateSuspend();
  EXPECT_EQ(woken, 2);
}

TEST_F(GroupResolverTest, NobodyIsWokenWhenAPassWouldAskNothing) {
  int woken = 0;
  resolver->wakeUpIs([&] { ++woken; });
  resolver->updateGenId();
  resolver->maybeUpdateSuspend();
  EXPECT_EQ(woken, 0) << "nothing is queued";
  enqBlocked(a, "a1");
  EXPECT_EQ(woken, 1);
  resolver->runPass();
  resolver->maybeUpdateSuspend();
  EXPECT_EQ(woken, 1) << "the front has answered, and nothing has changed since";
  resolver->updateGenId();
  EXPECT_EQ(woken, 1) << "a change alone wakes nobody";
  resolver->maybeUpdateSuspend();
  EXPECT_EQ(woken, 2);
}

TEST_F(GroupResolverTest, NobodyIsWokenForWhatThePassThatRunsWillTake) {
  int woken = 0;
  resolver->wakeUpIs([&] { ++woken; });
  // As a table does at the end of every commit.
  enq(a, "a1")->effectIs([this] { resolver->maybeUpdateSuspend(); });
  enq(a, "a2")->effectIs([this] { resolver->maybeUpdateSuspend(); });
  EXPECT_EQ(woken, 1);
  EXPECT_EQ(resolver->runPass(), 2U);
  EXPECT_EQ(woken, 1);
}

TEST_F(GroupResolverTest, AnOperationQueuedByACommitWakesTheOwnerOnceThePassIsOver) {
  int woken = 0;
  bool wokenInside = false;
  resolver->wakeUpIs([&] { ++woken; });
  enq(a, "a1")->effectIs([&] {
    enq(a, "a2");
    enq(b, "b2");
    wokenInside = woken != 1;
  });
  EXPECT_EQ(woken, 1);
  resolver->runPass();
  EXPECT_EQ(woken, 2);
  EXPECT_FALSE(wokenInside);
  resolver->runPass();
  EXPECT_EQ(woken, 2);
}

TEST_F(GroupResolverTest, ATableThatGoesAwayTakesItsOperationsAlong) {
  auto table = std::make_unique<Asic::ResolverTableQueue>();
  enq(*table, "gone");
  enq(a, "a1");
  enq(*table, "gone too");
  EXPECT_EQ(resolver->size(), 3U);
  table.reset();
  EXPECT_EQ(resolver->size(), 1U);
  EXPECT_EQ(resolver->runPass(), 1U);
  EXPECT_THAT(commits(), ElementsAre("a1"));
}

TEST_F(GroupResolverTest, ATableMayGoAwayInTheCommitOfAnother) {
  auto table = std::make_unique<Asic::ResolverTableQueue>();
  enq(a, "a1")->effectIs([&] { table.reset(); });
  enq(*table, "gone");
  enq(a, "a2");
  EXPECT_EQ(resolver->runPass(), 2U);
  EXPECT_THAT(commits(), ElementsAre("a1", "a2"));
  EXPECT_EQ(resolver->size(), 0U);
}

TEST_F(GroupResolverTest, ATableMayGoAwayInACommitOfItsOwn) {
  auto table = std::make_unique<Asic::ResolverTableQueue>();
  enq(*table, "t1")->effectIs([&] { table.reset(); });
  enq(*table, "gone");
  enq(a, "a1");
  EXPECT_EQ(resolver->runPass(), 2U);
  EXPECT_THAT(commits(), ElementsAre("t1", "a1"));
}

TEST_F(GroupResolverTest, ATableMayGoAwayInItsLastCommit) {
  auto table = std::make_unique<Asic::ResolverTableQueue>();
  enq(*table, "t1")->effectIs([&] { table.reset(); });
  enq(a, "a1");
  EXPECT_EQ(resolver->runPass(), 2U);
  EXPECT_THAT(commits(), ElementsAre("t1", "a1"));
}

TEST_F(GroupResolverTest, AClearedTableMayBeUsedAgain) {
  enq(a, "dropped");
  a.clear();
  EXPECT_EQ(a.size(), 0U);
  EXPECT_EQ(a.front(), nullptr);
  enq(a, "kept");
  EXPECT_EQ(resolver->runPass(), 1U);
  EXPECT_THAT(commits(), ElementsAre("kept"));
}

TEST_F(GroupResolverTest, AResolverThatGoesAwayDropsWhatIsQueued) {
  enq(a, "a1");
  enq(b, "b1");
  resolver = nullptr;
  EXPECT_EQ(a.size(), 0U);
  EXPECT_EQ(b.size(), 0U);
  EXPECT_THAT(story, IsEmpty());
}

TEST_F(GroupResolverTest, ALongQueueIsDroppedWithoutRecursion) {
  const auto operation = Lumen::makeNode<Operation>(a, "first", story);
  resolver->resolverQueueEnq(operation);
  for (int i = 0; i < 300000; ++i) {
    resolver->resolverQueueEnq(Lumen::makeNode<Operation>(a, "", story));
  }
  EXPECT_EQ(resolver->size(), 300001U);
  a.clear();
  EXPECT_EQ(resolver->size(), 0U);
  EXPECT_EQ(operation->refCount(), 1U);
}

TEST_F(GroupResolverTest, AnOperationIsReleasedAfterItsCommit) {
  const auto operation = enq(a, "a1");
  enq(a, "a2");
  resolver->runPass();
  EXPECT_EQ(operation->refCount(), 1U);
}

TEST_F(GroupResolverTest, ABlockedFrontThatComesOpenTakesItsPlaceByArrival) {
  enqBlocked(a, "a1");
  resolver->runPass();
  enq(b, "b2");
  enq(a, "a3");
  enq(b, "b4");
  open = true;
  resolver->runPass();
  EXPECT_THAT(commits(), ElementsAre("a1", "b2", "a3", "b4"));
}

TEST_F(GroupResolverTest, ACommitThatThrowsLeavesTheQueueUsable) {
  enq(a, "a1")->effectIs([] { throw std::runtime_error("of a handler"); });
  enq(a, "a2");
  EXPECT_THROW(resolver->runPass(), std::runtime_error);
  EXPECT_EQ(resolver->runPass(), 1U);
  EXPECT_THAT(story, ElementsAre("? a1", "! a1", "? a2", "! a2"));
}

TEST_F(GroupResolverTest, AnotherOwnerOfTheLoopIsWokenThoughTheFirstNeverRanAPass) {
  unsigned first = 0;
  resolver->wakeUpIs([&] { ++first; });
  enq(a, "a1");
  unsigned second = 0;
  resolver->wakeUpIs([&] { ++second; });
  resolver->maybeUpdateSuspend();
  EXPECT_EQ(first, 1U);
  EXPECT_EQ(second, 1U);
}

TEST_F(GroupResolverTest, ANewsThatComesWithAQuestionWakesTheOwnerThoughNothingWasCommitted) {
  enq(a, "a1")->answerIs([&] { return open; });
  enq(b, "b1")->answerIs([&] {
    if (!open) {
      open = true;
      resolver->updateGenId();
    }
    return false;
  });
  unsigned woken = 0;
  resolver->wakeUpIs([&] { ++woken; });
  EXPECT_EQ(resolver->runPass(), 0U);
  EXPECT_EQ(woken, 1U) << "a1 was asked before the news";
  EXPECT_EQ(resolver->runPass(), 1U);
}

TEST_F(GroupResolverTest, TheLastPointerToItMayGoWhileAPassRuns) {
  enq(a, "a1")->effectIs([&] { resolver = nullptr; });
  enq(a, "a2");
  EXPECT_EQ(resolver->runPass(), 2U);
  EXPECT_THAT(story, ElementsAre("? a1", "! a1", "? a2", "! a2"));
}

}  // namespace
