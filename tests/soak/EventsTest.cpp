#include <gtest/gtest.h>

#include <optional>
#include <set>
#include <string>

#include "common/ResourceEvent.h"
#include "common/Tables.h"
#include "soak/Events.h"

// The events of a soak: of resources that intents name, and never one that is prepared for good.

namespace {

using Common::ResourceEventKind;

Common::Intent write() {
  Common::EntryOf<KelpEmServer::EsemFodoVd> of;
  of.entry.logEntry.key.fodo = 5;
  of.entry.rsrcKeys.vlanEditProfileKey.elements[0].outerVlan = 7;
  of.entry.rsrcKeys.remarkProfileKey.intf = Netkit::IntfId::fromName("Ethernet3");
  Common::Intent intent;
  intent.entry = of;
  return intent;
}

TEST(SoakEvents, AreOfTheResourcesThatAnIntentNames) {
  Soak::Events events(1);
  const Common::Intent intent = write();
  const auto& keys =
      std::get<Common::EntryOf<KelpEmServer::EsemFodoVd>>(intent.entry).entry.rsrcKeys;
  std::set<ResourceEventKind> kinds;
  std::set<std::size_t> resources;
  for (std::uint64_t i = 0; i < 10'000; ++i) {
    const auto line = events.before(intent, i);
    if (!line) {
      continue;
    }
    const Common::ResourceEvent event = Common::parseResourceEvent(*line);
    kinds.insert(event.kind);
    resources.insert(event.key.index());
    if (event.key.index() == 1) {
      EXPECT_TRUE(std::get<1>(event.key).isEq(keys.vlanEditProfileKey));
    } else {
      EXPECT_TRUE(std::get<2>(event.key).isEq(keys.remarkProfileKey));
    }
  }
  EXPECT_EQ(kinds, (std::set{ResourceEventKind::change, ResourceEventKind::prepare,
                             ResourceEventKind::confirm}));
  EXPECT_EQ(resources, (std::set<std::size_t>{1, 2}));
}

TEST(SoakEvents, ComeWithNoIntentWithoutAResource) {
  Soak::Events events(1);
  Common::Intent remove = write();
  remove.op = Common::IntentOp::remove;
  Common::Intent plain;
  Common::EntryOf<KelpEmServer::EsemFodo> of;
  of.entry.logEntry.key = 5;
  plain.entry = of;
  Common::Intent none;
  Common::EntryOf<KelpEmServer::Isem1Tag> withoutKey;
  withoutKey.entry.logEntry.key = {1, 2};
  none.entry = withoutKey;
  for (std::uint64_t i = 0; i < 10'000; ++i) {
    EXPECT_FALSE(events.before(remove, i));
    EXPECT_FALSE(events.before(plain, i));
    EXPECT_FALSE(events.before(none, i));
  }
}

TEST(SoakEvents, WhatIsPreparedIsReadyInTimeOrWhenAllIs) {
  Soak::Events events(1);
  const auto prepare = [&] {
    for (std::uint64_t i = 0; !events.prepares(); ++i) {
      static_cast<void>(events.before(write(), i));
    }
  };
  EXPECT_FALSE(events.ready(1, false));
  prepare();
  EXPECT_FALSE(events.ready(2, false)) << "too early";
  const auto late = events.ready(1000, false);
  ASSERT_TRUE(late);
  EXPECT_EQ(Common::parseResourceEvent(*late).kind, ResourceEventKind::ready);
  EXPECT_FALSE(events.prepares());
  prepare();
  EXPECT_TRUE(events.ready(1001, true)) << "all";
  EXPECT_FALSE(events.ready(1001, true));
  prepare();
  events.forget();
  EXPECT_FALSE(events.prepares());
}

}  // namespace
