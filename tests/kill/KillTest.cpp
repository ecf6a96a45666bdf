#include <gmock/gmock.h>

#include "ResourceRecount.h"

// An agent is ended in front of every single store to shared memory and every operation on a file,
// in every kind of operation. The next one must find the table as it was before the operation or as
// it is after it, and the hardware side, which has lived on, must come to what the configuration
// collections say.

namespace {

template <class T>
class AgentEndedAnywhere : public TestSupport::ResourceRecount<T> {
 protected:
  using Base = TestSupport::ResourceRecount<T>;
  using typename Base::Content;
  using typename Base::Place;
  using typename Base::Told;
  using Work = std::function<void()>;

  // An operation that is ended everywhere.
  struct Operation {
    // Brings the store into the state from which the operation starts, as one agent. `here` runs in
    // the agent that is ended, before the steps are counted; `work` is what is ended.
    Work before = [] {};
    Work here = [] {};
    Work work;
    Content old;
    Content changed;
    // Each entry for itself may be old or changed; else all are the one or the other.
    bool entryByEntry = false;
    bool marking = false;
    // The resources of the entries may come to have other indexes.
    bool newIndexes = false;
  };

  // Six records on unit 0, of which one is deleted and known to the hardware side, one deleted and
  // not; and one on unit 1.
  Work someRecords() {
    return [this] {
      this->startAgent();
      for (std::uint64_t number = 1; number <= 5; ++number) {
        this->put(number, 0);
      }
      this->put(1, 0, 1);
      this->take(4);
      this->settle();
      this->take(5);
      this->put(2, 1);
    };
  }
  static Content someContent() { return {{{0, 1}, 0}, {{0, 2}, 1}, {{0, 3}, 0}, {{1, 1}, 0}}; }

  // What the agent after the end must find; it leaves the hardware side everything to do.
  Told agentAfter(const Operation& operation, const Told& told) {
    return this->runAgent([&] {
      this->startAgent();
      const auto log = this->intf()->entryLog();
      const auto control = log->tableEntryLog()->collectionControl();
      const std::uint64_t version = log->tableVersion().value;
      EXPECT_EQ(control->scratchpad(), version);
      EXPECT_EQ(control->published(), version);
      EXPECT_LE(told.version, version) << "a version that was told is gone";
      EXPECT_FALSE(log->tableEntryLog()->mapBase().damaged());
      expectContent(operation, told, this->content());
      this->resources_.replayComplete();
      this->expectRecounted();
      expectNoVersionAbove(*log, version);
      // It goes on with a version that nobody has seen.
      this->put(6, 3, 1);
      EXPECT_EQ(log->tableVersion().value, version + 1);
      this->expectRecounted();
    });
  }
  // What nobody uses any more is free when all is reported.
  void expectNothingLeaked() {
    this->runAgent([&] {
      this->startAgent();
      this->resources_.replayComplete();
      this->settle();
      this->resources_.work();
      this->expectNothingElseTaken();
    });
  }
  static void expectContent(const Operation& operation, const Told& told, const Content& found) {
    if (told.done || found == operation.changed) {
      EXPECT_EQ(found, operation.changed);
    } else if (!operation.entryByEntry) {
      EXPECT_EQ(found, operation.old);
    } else {
      std::set<Place> places;
      for (const Content* content : {&operation.old, &operation.changed, &found}) {
        for (const auto& [place, variant] : *content) {
          places.insert(place);
        }
      }
      const auto at = [](const Content& content, const Place& place) {
        const auto here = content.find(place);
        return here == content.end() ? std::optional<std::uint64_t>() : std::optional(here->second);
      };
      for (const Place& place : places) {
        EXPECT_TRUE(at(found, place) == at(operation.old, place) ||
                    at(found, place) == at(operation.changed, place))
            << "unit " << place.first << ", key " << place.second;
      }
    }
  }
  template <class Log>
  static void expectNoVersionAbove(Log& log, std::uint64_t version) {
    for (const unsigned unit : {0U, 1U}) {
      auto& records =
          log.tableConfigQuilt(Asic::UnitId{static_cast<std::uint16_t>(unit)})->swTableEntries();
      typename Log::ConfigRecord record;
      Quilt::IterHint hint;
      for (bool more = records.first(record, hint); more;
           more = records.next(record.quiltKey(), record, hint)) {
        EXPECT_LE(record.version.value, version);
      }
      EXPECT_FALSE(records.damaged());
    }
    typename Log::LogRecord record;
    Quilt::IterHint hint;
    EXPECT_FALSE(
        log.tableEntryLog()->entryLogConfig().next(Asic::LogVersion{version}, record, hint));
  }
  void expectChipEqual() {
    this->chipWorks();
    const Chip::CheckResult result = this->chip_->check();
    EXPECT_TRUE(result.same()) << result.text();
  }

  void TearDown() override {
    this->RecordProperty("agentsEnded", std::to_string(ended_));
    Base::TearDown();
  }

  // Ends `operation` in front of each of its steps. Where `recovery` is set, the agent that
  // finishes what was cut off is ended in front of each of its steps, too.
  void endEverywhere(const Operation& operation, bool recovery = false) {
    for (std::uint64_t last = 1;; ++last) {
      SCOPED_TRACE("step " + std::to_string(last));
      bool through = false;
      const Told told = toStep(operation, last, through);
      const std::string left = this->left();
      const auto cutOff = this->leftEntries();
      const Told after = agentAfter(operation, told);
      if (!operation.newIndexes) {
        this->expectSameResults(before_, this->leftEntries());
      }
      this->expectMovedStay(before_, cutOff, this->leftEntries());
      expectChipEqual();
      // It takes an agent more.
      if (this->linkages() != 0 && (through || last % 16 == 0)) {
        expectNothingLeaked();
      }
      // The same state was left in front of several steps.
      if (recovery && after.finished != 0 && recovered_.insert(left).second) {
        endRecoveryEverywhere(operation, last);
      }
      if (testing::Test::HasFailure()) {
        return;
      }
      if (through) {
        EXPECT_TRUE(told.done || operation.changed == operation.old);
        EXPECT_GT(last, 2U) << "the steps were not counted";
        return;
      }
    }
  }
  Told toStep(const Operation& operation, std::uint64_t last, bool& through) {
    this->startChip();
    this->runAgent(operation.before);
    before_ = this->leftEntries();
    ++ended_;
    return this->runAgent(operation.here, operation.work, last, through);
  }
  void endRecoveryEverywhere(const Operation& operation, std::uint64_t step) {
    for (std::uint64_t last = 1;; ++last) {
      SCOPED_TRACE("step " + std::to_string(last) + " of the recovery");
      bool through = false;
      const Told told = toStep(operation, step, through);
      ++ended_;
      this->runAgent([] {}, [&] { this->startAgent(); }, last, through);
      agentAfter(operation, told);
      expectChipEqual();
      if (through || testing::Test::HasFailure()) {
        EXPECT_GT(last, 2U);
        return;
      }
    }
  }

 private:
  std::uint64_t ended_ = 0;
  typename Base::Entries before_;    // the operation
  std::set<std::string> recovered_;  // what recoveries began with that were ended everywhere
};
TYPED_TEST_SUITE(AgentEndedAnywhere, TestSupport::AllTableTypes, TestSupport::TableTestName);

#ifdef KELP_FEW_TABLES
using LinkedTables = testing::Types<KelpEmServer::EsemFodoVd, KelpEmServer::Isem1Tag>;
#else
using LinkedTables =
    testing::Types<KelpEmServer::EsemFodoVd, KelpEmServer::Isem1Tag, KelpEmServer::Isem2Tag,
                   KelpEmServer::IsemMpls, KelpEmServer::IsemUntagged>;
#endif

// Operations that move resources.
template <class T>
class AgentEndedWithResources : public AgentEndedAnywhere<T> {
 protected:
  // An operator gives the resources that the entry names other indexes.
  void changeResourcesOf(const typename T::Entry& entry) {
    T::Linkages::forEachKind([&](auto tag) {
      using L = typename decltype(tag)::Kind;
      EXPECT_TRUE(TestSupport::resourceTableOf<L>(this->resources_).change(L::key(entry)));
    });
  }
};
TYPED_TEST_SUITE(AgentEndedWithResources, LinkedTables, TestSupport::TableTestName);

TYPED_TEST(AgentEndedAnywhere, InAWriteOfANewEntry) {
  typename TestFixture::Operation operation;
  operation.before = this->someRecords();
  operation.here = [&] {
    this->startAgent();
    this->watch(this->table()->entryWrite(this->key(6), this->entry(6, 0), nullptr));
  };
  operation.work = [&] { this->pass(); };
  operation.old = operation.changed = this->someContent();
  operation.changed[{0, 6}] = 0;
  this->endEverywhere(operation, true);
}

TYPED_TEST(AgentEndedAnywhere, InAnOverwrite) {
  typename TestFixture::Operation operation;
  operation.before = this->someRecords();
  operation.here = [&] {
    this->startAgent();
    this->watch(this->table()->entryWrite(this->key(3), this->entry(3, 2), nullptr));
  };
  operation.work = [&] { this->pass(); };
  operation.old = operation.changed = this->someContent();
  operation.changed[{0, 3}] = 2;
  this->endEverywhere(operation);
}

TYPED_TEST(AgentEndedAnywhere, InAWriteOverADeletedEntryThatWaitsForAnotherTable) {
  using Other = typename TestFixture::Other;
  typename TestFixture::Operation operation;
  operation.before = this->someRecords();
  operation.here = [&] {
    this->startAgent();
    using OtherEntry = typename Other::Entry;
    const auto otherKey = TestSupport::sampleKey<typename OtherEntry::Key>(1);
    const auto other =
        KelpEmServer::KelpInterface<Other>::getIntf(this->agent_)
            ->makeSwTable(this->unit0, nullptr, false)
            ->entryWrite(otherKey, TestSupport::sampleEntry<OtherEntry>(otherKey, 0), nullptr);
    this->pass();
    this->watch(this->table()->entryWrite(this->key(5), this->entry(5, 3), other));
  };
  operation.work = [&] { this->pass(); };
  operation.old = operation.changed = this->someContent();
  operation.changed[{0, 5}] = 3;
  this->endEverywhere(operation);
}

TYPED_TEST(AgentEndedAnywhere, InARemove) {
  typename TestFixture::Operation operation;
  operation.before = this->someRecords();
  operation.here = [&] {
    this->startAgent();
    this->watch(this->table()->entryRemove(this->key(3), nullptr));
  };
  operation.work = [&] { this->pass(); };
  operation.old = operation.changed = this->someContent();
  operation.changed.erase({0, 3});
  this->endEverywhere(operation);
}

TYPED_TEST(AgentEndedAnywhere, InARemoveOfAllEntries) {
  typename TestFixture::Operation operation;
  operation.before = this->someRecords();
  operation.here = [&] {
    this->startAgent();
    this->table()->entryRemoveAll(nullptr);
  };
  operation.work = [&] {
    this->pass();
    this->tell('d', 0);
  };
  operation.old = operation.changed = this->someContent();
  for (const std::uint64_t number : {1, 2, 3}) {
    operation.changed.erase({0, number});
  }
  operation.entryByEntry = true;
  this->endEverywhere(operation, true);
}

TYPED_TEST(AgentEndedWithResources, InTheRemoveOfALastUser) {
  typename TestFixture::Operation operation;
  operation.before = this->someRecords();
  operation.here = [&] {
    this->startAgent();
    this->watch(this->table()->entryRemove(this->key(2), nullptr));
  };
  operation.work = [&] { this->pass(); };
  operation.old = operation.changed = this->someContent();
  operation.changed.erase({0, 2});
  this->endEverywhere(operation);
}

TYPED_TEST(AgentEndedWithResources, InTheMoveOfALastUser) {
  typename TestFixture::Operation operation;
  operation.before = this->someRecords();
  operation.here = [&] {
    this->startAgent();
    this->watch(this->table()->entryWrite(this->key(2), this->entry(2, 3), nullptr));
  };
  operation.work = [&] { this->pass(); };
  operation.old = operation.changed = this->someContent();
  operation.changed[{0, 2}] = 3;
  this->endEverywhere(operation);
}

TYPED_TEST(AgentEndedWithResources, InAResourceChange) {
  typename TestFixture::Operation operation;
  operation.before = this->someRecords();
  operation.here = [&] { this->startAgent(); };
  operation.work = [&] { this->changeResourcesOf(this->entry(1, 0)); };
  operation.old = operation.changed = this->someContent();
  operation.newIndexes = true;
  this->endEverywhere(operation);
}

TYPED_TEST(AgentEndedWithResources, InAReportThatFreesIndexes) {
  typename TestFixture::Operation operation;
  operation.before = [&] {
    this->someRecords()();
    this->changeResourcesOf(this->entry(1, 0));
    this->take(2);
  };
  operation.here = [&] {
    this->startAgent();
    this->chipWorksNow();
  };
  operation.work = [&] {
    this->group()->pollStatus();
    this->resources_.work();
  };
  operation.old = operation.changed = this->someContent();
  operation.old.erase({0, 2});
  operation.changed.erase({0, 2});
  this->endEverywhere(operation);
}

TYPED_TEST(AgentEndedWithResources, InTheEndOfReplay) {
  typename TestFixture::Operation operation;
  operation.before = this->someRecords();
  operation.here = [&] {
    this->start();
    (void)this->table(this->unit1);
    (void)this->intf()->makeSwTable(this->unit0, nullptr, true);
  };
  operation.work = [&] { this->resources_.replayComplete(); };
  operation.old = operation.changed = {{{1, 1}, 0}};
  this->endEverywhere(operation);
}

TYPED_TEST(AgentEndedAnywhere, InACleanup) {
  typename TestFixture::Operation operation;
  operation.before = this->someRecords();
  operation.here = [&] {
    this->startAgent();
    this->chipWorksNow();
  };
  operation.work = [&] { this->group()->pollStatus(); };
  operation.old = operation.changed = this->someContent();
  this->endEverywhere(operation);
}

TYPED_TEST(AgentEndedAnywhere, InTheFirstStart) {
  typename TestFixture::Operation operation;
  operation.work = [&] { this->startAgent(); };
  this->endEverywhere(operation);
}

TYPED_TEST(AgentEndedAnywhere, InAStart) {
  typename TestFixture::Operation operation;
  operation.before = [&] {
    this->someRecords()();
    this->chipWorksNow();
  };
  operation.work = [&] { this->startAgent(); };
  operation.old = operation.changed = this->someContent();
  this->endEverywhere(operation);
}

TYPED_TEST(AgentEndedAnywhere, InTheReplayOfIdenticalWrites) {
  typename TestFixture::Operation operation;
  operation.before = this->someRecords();
  operation.here = [&] { this->startAgent(true); };
  operation.work = [&] {
    for (const auto& [place, variant] : this->someContent()) {
      this->put(place.second, variant, place.first);
    }
    this->table(this->unit1)->sweep();
    this->pass();
  };
  operation.old = operation.changed = this->someContent();
  this->endEverywhere(operation);
}

TYPED_TEST(AgentEndedAnywhere, InASweep) {
  typename TestFixture::Operation operation;
  operation.before = this->someRecords();
  operation.here = [&] {
    this->startAgent(true);
    this->put(2, 1);
    this->put(1, 0, 1);
    this->table()->sweep();
    this->table(this->unit1)->sweep();
  };
  operation.work = [&] {
    this->pass();
    this->tell('d', 0);
  };
  operation.old = this->someContent();
  operation.changed = {{{0, 2}, 1}, {{1, 1}, 0}};
  operation.entryByEntry = true;
  this->endEverywhere(operation);
}

TYPED_TEST(AgentEndedAnywhere, InTheReconcileOfAUnitThatNobodyAskedFor) {
  typename TestFixture::Operation operation;
  operation.before = this->someRecords();
  operation.here = [&] {
    this->start();
    (void)this->table(this->unit1);
  };
  operation.work = [&] {
    this->intf()->reconcile();
    this->tell('d', 0);
  };
  operation.old = operation.changed = this->someContent();
  for (const std::uint64_t number : {1, 2, 3}) {
    operation.changed.erase({0, number});
  }
  operation.entryByEntry = true;
  this->endEverywhere(operation);
}

TYPED_TEST(AgentEndedAnywhere, InAStartOverALostCollection) {
  typename TestFixture::Operation operation;
  operation.before = [&] {
    this->someRecords()();
    this->chipWorksNow();
    std::filesystem::remove(
        this->root_.path() + "/kelp-test/" +
        BrioSharedMem::encodedPath(
            KelpEmServer::KelpConstants<TypeParam>::configQuiltPath(this->unit0)) +
        ".quilt");
  };
  operation.work = [&] { this->startAgent(); };
  operation.old = operation.changed = {{{1, 1}, 0}};
  this->endEverywhere(operation);
}

}  // namespace
