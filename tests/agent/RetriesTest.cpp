#include "agent/Retries.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Resources.h"
#include "TempRoot.h"
#include "agent/Store.h"

// Who remembers writes, beside tables and resource tables as an agent has them.

namespace {

using AgentTest::removeVd;
using AgentTest::withRemark;
using AgentTest::writeVd;

class Nobody final : public Agent::Source {
 public:
  Nobody() : Source("nobody") {}
  void outcomeIs(std::string_view) override {}
};

class RememberedWrites : public testing::Test {
 protected:
  RememberedWrites() {
    retries_.wakeUpIs([this] { ++wakeUps_; });
  }

  static KelpQos::EgressRemarkProfileEntryKey lag(const std::string& name) {
    return {Netkit::IntfId::fromName(name)};
  }
  [[nodiscard]] auto& remarks() { return *store_.resources().remarkProfile; }
  // Remembers a write of the key that names the interface.
  void remember(unsigned fodo, const std::string& interface) {
    auto intent =
        std::make_unique<Common::Intent>(Common::parseIntent(writeVd(fodo, withRemark(interface))));
    Agent::HeldWrite write;
    write.place = kPlace;
    write.key = Common::keyOf(intent->entry);
    write.source = Agent::LaterSource(source_);
    write.line = fodo;
    const auto missing = tables_[kPlace]->missingResources(intent->entry);
    write.intent = std::move(intent);
    retries_.add(std::move(write), missing);
  }
  // The lines that a step gives back.
  std::vector<std::uint64_t> step(unsigned most = 100, bool hasRoom = true) {
    std::vector<std::uint64_t> lines;
    retries_.step(
        most, [&] { return hasRoom; },
        [&](Agent::HeldWrite& write) { lines.push_back(write.line); });
    return lines;
  }

  static constexpr std::size_t kPlace = 1;  // EsemFodoVd on unit 0, the only one
  TestSupport::TempRoot root_;
  Agent::Store store_{"kelp", root_.path()};
  std::vector<std::unique_ptr<Common::AnyTable>> tables_ = store_.makeTables(1);
  std::shared_ptr<Agent::Source> source_ = std::make_shared<Nobody>();
  Agent::Retries retries_{tables_};
  unsigned wakeUps_ = 0;
};

TEST_F(RememberedWrites, ComeBackFromAStepAndNeverFromWithinAPublication) {
  remarks().refusedIs(lag("Lag1"), true);
  remember(1, "Lag1");
  EXPECT_EQ(step(), std::vector<std::uint64_t>{});
  EXPECT_EQ(wakeUps_, 0U);
  remarks().refusedIs(lag("Lag1"), false);
  EXPECT_EQ(wakeUps_, 1U);
  EXPECT_EQ(retries_.size(), 1U) << "it is still there";
  EXPECT_EQ(step(), std::vector<std::uint64_t>{1});
  EXPECT_EQ(retries_.size(), 0U);
  EXPECT_EQ(remarks().entrys(), 0U) << "nothing is held for it any more";
}

TEST_F(RememberedWrites, HoldTheirResourceAsLongAsTheyWait) {
  remarks().refusedIs(lag("Lag1"), true);
  remember(1, "Lag1");
  remember(2, "Lag1");
  EXPECT_EQ(remarks().entrys(), 1U);
  retries_.drop(kPlace, Common::keyOf(Common::parseIntent(removeVd(1)).entry));
  EXPECT_EQ(remarks().entrys(), 1U);
  retries_.dropAll(0);
  EXPECT_EQ(retries_.size(), 1U) << "that is another place";
  retries_.dropAll(kPlace);
  EXPECT_EQ(remarks().entrys(), 0U);
  remarks().refusedIs(lag("Lag1"), false);
  EXPECT_EQ(wakeUps_, 0U);
}

TEST_F(RememberedWrites, ComeAFewAtATimeAndOnlyWhereThereIsRoom) {
  remarks().refusedIs(lag("Lag1"), true);
  for (unsigned fodo = 1; fodo <= 5; ++fodo) {
    remember(fodo, "Lag1");
  }
  remarks().refusedIs(lag("Lag1"), false);
  EXPECT_EQ(wakeUps_, 1U) << "one call does for all";
  EXPECT_EQ(step(100, false), std::vector<std::uint64_t>{});
  EXPECT_EQ(wakeUps_, 1U) << "who makes room calls";
  retries_.maybeWake();
  EXPECT_EQ(wakeUps_, 2U);
  EXPECT_EQ(step(2), (std::vector<std::uint64_t>{1, 2}));
  EXPECT_EQ(wakeUps_, 3U) << "there are more";
  EXPECT_EQ(step(2), (std::vector<std::uint64_t>{3, 4}));
  EXPECT_EQ(step(2), std::vector<std::uint64_t>{5});
  EXPECT_EQ(wakeUps_, 4U);
  EXPECT_FALSE(retries_.hasWork());
}

TEST_F(RememberedWrites, ThatNothingTellsOfAreFoundByLookingAround) {
  // As of a use that the store had no room for: the resource is there, and its handle says no.
  const auto client = remarks().makeClientInstance();
  for (unsigned fodo = 1; fodo <= 3; ++fodo) {
    const std::string name = "Lag" + std::to_string(fodo);
    auto intent =
        std::make_unique<Common::Intent>(Common::parseIntent(writeVd(fodo, withRemark(name))));
    Agent::HeldWrite write;
    write.place = kPlace;
    write.key = Common::keyOf(intent->entry);
    write.source = Agent::LaterSource(source_);
    write.line = fodo;
    write.intent = std::move(intent);
    const auto handle = client->request(lag(name), nullptr);
    retries_.add(std::move(write), {{Common::resourceNumber<KelpQos::EgressRemarkProfileKind>(),
                                     handle, KelpQos::EgressRemarkProfileKind::kFieldId}});
  }
  EXPECT_EQ(step(), std::vector<std::uint64_t>{});
  retries_.lookAround(2);
  EXPECT_EQ(wakeUps_, 1U);
  EXPECT_EQ(step(), (std::vector<std::uint64_t>{1, 2}));
  retries_.lookAround(2);
  EXPECT_EQ(step(), std::vector<std::uint64_t>{3});
  retries_.lookAround(2);
  EXPECT_EQ(wakeUps_, 2U);
}

TEST_F(RememberedWrites, OfPeersKeepNoPeer) {
  class Peer final : public Agent::Source {
   public:
    Peer() : Source("socket:1") {}
    [[nodiscard]] bool isKept() const noexcept override { return true; }
    void outcomeIs(std::string_view) override {}
  };
  auto peer = std::make_shared<Peer>();
  const std::weak_ptr<Peer> watched = peer;
  const Agent::LaterSource ofPeer(peer);
  EXPECT_EQ(ofPeer.get(), peer);
  peer = nullptr;
  EXPECT_TRUE(watched.expired());
  ASSERT_NE(ofPeer.get(), nullptr);
  EXPECT_TRUE(ofPeer.get()->isKept()) << "what it asked for is kept all the same";

  auto file = std::make_shared<Nobody>();
  const Agent::LaterSource ofFile(file);
  file = nullptr;
  EXPECT_EQ(ofFile.get()->name(), "nobody");
}

}  // namespace
