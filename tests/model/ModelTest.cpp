#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <random>

#include "Brio/Log.h"
#include "BrioSharedMem/EntityPath.h"
#include "Driver.h"
#include "KelpTunnelNiLib/ResourceTableSet.h"

// Random operations on the real tables and on a model with the same rules, compared after every
// step. KELP_MODEL_SEED=N repeats the run of a seed, KELP_MODEL_STEPS=N makes runs longer.

namespace ModelTest {
namespace {

using Drivers = std::vector<std::unique_ptr<Driver>>;

template <class... Tables>
Drivers driversOf() {
  Drivers drivers;
  (drivers.push_back(std::make_unique<TableDriver<Tables>>()), ...);
  return drivers;
}

// An entry of somebody else that operations depend on.
class ForeignHandle final : public Asic::DependencyEntryHandle {
 public:
  explicit ForeignHandle(Asic::TableVersion version) : version_(version) {}
  [[nodiscard]] Asic::TableVersion entryTableVersion() const override { return version_; }

 private:
  Asic::TableVersion version_;
};

class RandomRun {
 public:
  RandomRun(Drivers drivers, std::uint64_t seed)
      : drivers_(std::move(drivers)), model_(idsOf(drivers_)), random_(seed) {
    // Losses are made on purpose.
    previousSink_ = Brio::logSinkIs([this](const Brio::LogRecord&) { ++lossesReported_; });
  }
  ~RandomRun() {
    stop();
    Brio::logSinkIs(previousSink_);
  }
  RandomRun(const RandomRun&) = delete;
  RandomRun& operator=(const RandomRun&) = delete;

  // False once model and tables do not agree; then says where.
  bool steps(std::uint64_t count) {
    start();
    for (std::uint64_t i = 0; i < count; ++i) {
      step();
      // The touched table each time, the others now and then.
      Findings findings;
      for (unsigned index = 0; index < drivers_.size(); ++index) {
        if (index == touched_ || touched_ == kAll || i % 16 == 0) {
          drivers_[index]->compare(model_, index, i % 64 == 0, findings);
          compareNeeded(index, findings);
        }
      }
      compareHandles(findings);
      findings.equal("losses reported", lossesReported_, losses_);
      if (!findings.text().empty()) {
        std::string history;
        for (const std::string& line : history_) {
          history += "  " + line + "\n";
        }
        ADD_FAILURE() << "after step " << i << ":\n"
                      << findings.text() << "last steps:\n"
                      << history;
        return false;
      }
    }
    return true;
  }

  struct Coverage {
    std::uint64_t restarts = 0;
    std::uint64_t losses = 0;
    std::uint64_t commits = 0;
    std::uint64_t failed = 0;
    std::uint64_t succeeded = 0;
    std::uint64_t dependencies = 0;
  };
  [[nodiscard]] const Coverage& coverage() const noexcept { return coverage_; }

 private:
  static constexpr unsigned kAll = ~0U;

  static std::vector<std::uint32_t> idsOf(const Drivers& drivers) {
    std::vector<std::uint32_t> ids;
    for (const auto& driver : drivers) {
      ids.push_back(driver->tableId().value);
    }
    return ids;
  }
  std::uint64_t below(std::uint64_t limit) { return random_() % limit; }
  bool oneIn(std::uint64_t limit) { return below(limit) == 0; }
  template <class... Args>
  void note(fmt::format_string<Args...> format, Args&&... args) {
    history_.push_back(fmt::format(format, std::forward<Args>(args)...));
    if (history_.size() > 30) {
      history_.pop_front();
    }
  }

  // --- the agent's life ------------------------------------------------------------------------

  void start() {
    vault_ = Lumen::makeNode<Vault::EntityManager>("kelp-model", false, root_.path());
    agent_ = Lumen::makeNode<Asic::OrderedTableInterface>(vault_);
    marking_ = oneIn(2);
    agent_->skipMarkOnRestoreIs(!marking_);
    resources_ = KelpTunnelNiLib::ResourceTableSet::make(agent_);
    hardware_.emplace(Asic::writableSharedMemory(*vault_));
    touched_ = kAll;
    note("start marking {}", marking_);
    for (unsigned index = 0; index < drivers_.size(); ++index) {
      drivers_[index]->open(agent_);
      model_.open(index);
      make({index, 0});
    }
  }
  void stop() {
    for (const auto& driver : drivers_) {
      driver->drop();
    }
    if (agent_) {
      resources_ = {};
      agent_->stop();
      agent_ = nullptr;
      hardware_.reset();
      Asic::writableSharedMemory(*vault_)->entityDelAll();
      vault_ = nullptr;
    }
  }
  void restart() {
    note("stop");
    stop();
    for (Real& handle : reals_) {
      handle.dropped = true;
    }
    model_.stop();
    ++coverage_.restarts;
    if (oneIn(8)) {
      lose();
    }
    start();
  }
  // A file is gone when the agent comes back.
  void lose() {
    const Place place = anyPlace();
    const bool log = oneIn(3);
    const Lumen::String path =
        log ? drivers_[place.table]->logPath() : drivers_[place.table]->configPath(place.unit);
    if (!std::filesystem::remove(root_.path() + "/kelp-model/" + BrioSharedMem::encodedPath(path) +
                                 ".quilt")) {
      return;
    }
    note("lost {}", path);
    ++coverage_.losses;
    if (log) {
      model_.loseLog(place.table);
      ++losses_;
    } else {
      model_.loseConfig(place);
      lostUnits_.insert({place.table, place.unit});
    }
  }
  void make(Place place) {
    const bool reset = oneIn(10);
    note("make {} {} reset {}", drivers_[place.table]->name(), place.unit, reset);
    if (lostUnits_.erase({place.table, place.unit}) != 0) {
      ++losses_;
    }
    drivers_[place.table]->make(place.unit, reset);
    model_.make(place, reset, marking_);
  }

  // --- steps -----------------------------------------------------------------------------------

  Place anyPlace() {
    return {static_cast<unsigned>(below(drivers_.size())), static_cast<unsigned>(below(kUnits))};
  }

  void step() {
    const Place place = anyPlace();
    touched_ = place.table;
    if (oneIn(1500)) {
      restart();
      return;
    }
    if (!model_.has(place)) {
      if (oneIn(30)) {
        make(place);
      }
      return;
    }
    // Kinds of steps, with the shares of a hundred that they have.
    const std::uint64_t choice = below(100);
    if (choice < 36) {
      write(place);
    } else if (choice < 51) {
      remove(place);
    } else if (choice < 52) {
      removeAll(place);
    } else if (choice < 76) {
      touched_ = kAll;
      note("pass");
      const std::size_t committed = group().groupResolver()->runPass();
      EXPECT_EQ(committed, model_.pass());
      coverage_.commits += committed;
    } else if (choice < 84) {
      report(place.table);
    } else if (choice < 92) {
      touched_ = kAll;
      note("poll");
      const std::size_t news = group().pollStatus();
      resources_.work();
      EXPECT_EQ(news, model_.poll());
    } else if (choice < 95) {
      foreignStep(oneIn(3));
    } else if (choice < 97) {
      update(place);
    } else {
      rareStep(place);
    }
  }

  void write(Place place) {
    const auto key = static_cast<unsigned>(below(kKeys));
    const auto variant = static_cast<unsigned>(below(kVariants));
    const Dependency on = anyDependency();
    const auto action = anyAction();
    note("write {} {} key {} variant {} on {}", drivers_[place.table]->name(), place.unit, key,
         variant, describe(on));
    realWrite(place, key, variant, on, action);
    (void)model_.write(place, key, variant, on, action);
  }
  void remove(Place place) {
    const auto key = static_cast<unsigned>(below(kKeys));
    const Dependency on = anyDependency();
    const auto action = anyAction();
    note("remove {} {} key {} on {}", drivers_[place.table]->name(), place.unit, key, describe(on));
    const std::size_t id = newReal(action);
    reals_[id].handle = drivers_[place.table]->remove(place.unit, key, real(on), handlerOf(id));
    (void)model_.remove(place, key, on, action);
  }
  void removeAll(Place place) {
    const Dependency on = anyDependency();
    note("remove all {} {} on {}", drivers_[place.table]->name(), place.unit, describe(on));
    drivers_[place.table]->removeAll(place.unit, real(on), handlerOf(newReal({})));
    (void)model_.removeAll(place, on);
  }
  // Without resources an update finds nothing changed.
  void update(Place place) {
    const auto key = static_cast<unsigned>(below(kKeys));
    const auto version = drivers_[place.table]->update(place.unit, key);
    const auto committed = model_.committed(place, key);
    EXPECT_EQ(version.has_value(), committed.has_value());
    if (version && committed) {
      EXPECT_EQ(*version, model_.table(place.table).config[place.unit].at(key).version);
    }
  }
  void rareStep(Place place) {
    Driver& driver = *drivers_[place.table];
    switch (below(12)) {
      case 0: {
        const bool release = oneIn(2);
        note("clear {} {} release {}", driver.name(), place.unit, release);
        driver.clear(place.unit, release);
        model_.clear(place);
        break;
      }
      case 1:
        make(place);
        break;
      case 2:
      case 3: {
        const bool marking = oneIn(2);
        note("mark {} {} {}", driver.name(), place.unit, marking);
        driver.mark(place.unit, marking);
        marking ? model_.mark(place) : model_.endMarking(place);
        break;
      }
      default:
        break;
    }
  }

  // The hardware side writes a row: mostly some version that was issued, also one that was not, a
  // lower one than before, one of another log or of an unknown table.
  void report(unsigned index) {
    Table& table = model_.table(index);
    const std::uint64_t chance = below(20);
    if (chance == 0) {
      const std::uint64_t other = drivers_[index]->incarnation() ^ (below(100) + 1);
      note("row of {}: another incarnation", drivers_[index]->name());
      hardware_->report(drivers_[index]->tableId(), below(20), other);
      table.row.reset();
      return;
    }
    if (chance == 1) {
      hardware_->report(Asic::SwTableId{static_cast<std::uint32_t>(0x29080480 + below(100))},
                        below(1000), drivers_[index]->incarnation());
      return;
    }
    std::uint64_t version = table.tableVersion - std::min(table.tableVersion, below(4));
    if (chance == 2) {
      version = ~std::uint64_t{0} - below(2);
    } else if (chance == 3) {
      version = below(table.tableVersion + 1);
    } else if (chance == 4) {
      version = table.tableVersion + below(5);
    }
    note("row of {}: {}", drivers_[index]->name(), version);
    hardware_->report(drivers_[index]->tableId(), version, drivers_[index]->incarnation());
    table.row = version;
  }

  // Somebody else's entry comes, or reaches its end.
  void foreignStep(bool fresh) {
    if (fresh || openForeign_.empty()) {
      const std::uint32_t tableId =
          oneIn(3) ? 0x30080401 : model_.table(static_cast<unsigned>(below(drivers_.size()))).id;
      const std::uint64_t version = below(4);
      openForeign_.push_back(foreigns_.size());
      foreigns_.push_back(Lumen::makeNode<ForeignHandle>(
          Asic::TableVersion{Asic::SwTableId{tableId}, Asic::LogVersion{version}}));
      model_.foreign().push_back({State::unresolved, tableId, version});
      note("foreign {} comes: {}@{}", foreigns_.size() - 1, tableId, version);
      return;
    }
    const std::size_t at = below(openForeign_.size());
    const std::size_t index = openForeign_[at];
    openForeign_.erase(openForeign_.begin() + static_cast<std::ptrdiff_t>(at));
    const State state = oneIn(3) ? State::failed : oneIn(2) ? State::inLog : State::success;
    note("foreign {} is {}", index, static_cast<int>(state));
    foreigns_[index]->entryStateIs(static_cast<Asic::EntryState>(state));
    model_.foreign()[index].state = state;
    group().groupResolver()->updateGenId();
  }

  Dependency anyDependency() {
    if (!oneIn(4)) {
      return {};
    }
    if (oneIn(3) && !foreigns_.empty()) {
      // A recent one: most of them reach their end soon.
      const std::uint64_t back = below(std::min<std::uint64_t>(foreigns_.size(), 4));
      return {Dependency::Kind::foreign, foreigns_.size() - 1 - back};
    }
    if (reals_.empty()) {
      return {};
    }
    const std::uint64_t back = below(std::min<std::uint64_t>(reals_.size(), 12));
    const std::size_t index = reals_.size() - 1 - back;
    // Of a remove-all nobody has the handle; one that was dropped would be waited for for ever.
    if (!reals_[index].handle ||
        (reals_[index].dropped && model_.handles()[index].state == State::unresolved)) {
      return {};
    }
    return {Dependency::Kind::handle, index};
  }
  static std::string describe(Dependency dependency) {
    return dependency.kind == Dependency::Kind::none
               ? "nothing"
               : fmt::format("{} {}",
                             dependency.kind == Dependency::Kind::handle ? "handle" : "foreign",
                             dependency.index);
  }
  [[nodiscard]] RealDependency real(Dependency dependency) const {
    switch (dependency.kind) {
      case Dependency::Kind::handle:
        return reals_[dependency.index].handle;
      case Dependency::Kind::foreign:
        return foreigns_[dependency.index];
      case Dependency::Kind::none:
        break;
    }
    return nullptr;
  }
  std::optional<Action> anyAction() {
    if (!oneIn(10)) {
      return {};
    }
    return Action{anyPlace(), static_cast<unsigned>(below(kKeys)),
                  static_cast<unsigned>(below(kVariants))};
  }

  // --- the real handles ------------------------------------------------------------------------

  std::size_t newReal(std::optional<Action> action) {
    reals_.push_back({nullptr, 0, action, false});
    waiting_.push_back(reals_.size() - 1);
    return reals_.size() - 1;
  }
  RealHandler handlerOf(std::size_t id) {
    return [this, id](const RealHandle& handle) {
      EXPECT_TRUE(!reals_[id].handle || reals_[id].handle == handle);
      ++reals_[id].responses;
      // Model and tables number their handles in the same order, those of handlers too.
      if (const auto action = reals_[id].action; action && model_.has(action->place)) {
        realWrite(action->place, action->key, action->variant, {}, {});
      }
    };
  }
  void realWrite(Place place, unsigned key, unsigned variant, Dependency on,
                 std::optional<Action> action) {
    const std::size_t id = newReal(action);
    const RealHandle handle =
        drivers_[place.table]->write(place.unit, key, variant, real(on), handlerOf(id));
    reals_[id].handle = handle;
  }

  void compareHandles(Findings& findings) {
    findings.equal("handles made", reals_.size(), model_.handles().size());
    if (reals_.size() != model_.handles().size()) {
      return;
    }
    std::erase_if(waiting_, [&](std::size_t id) {
      const Handle& expected = model_.handles()[id];
      findings.equal("responses", reals_[id].responses, expected.responses, id);
      if (const auto& handle = reals_[id].handle) {
        findings.equal("state of handle", static_cast<int>(handle->entryState()),
                       static_cast<int>(expected.state), id);
        findings.equal("logVersion of handle", handle->logVersion().value, expected.logVersion, id);
        findings.equal("version of handle", handle->version().majorVersion, expected.major, id);
      }
      const bool over = expected.state == State::success || expected.state == State::failed;
      coverage_.succeeded += expected.state == State::success ? 1U : 0U;
      coverage_.failed += expected.state == State::failed ? 1U : 0U;
      // The handles of remove-alls and those that an end of the agent has dropped come to no end.
      return over || id + 400 < reals_.size();
    });
  }
  void compareNeeded(unsigned index, Findings& findings) {
    const auto& expected = model_.table(index).needed;
    const auto quilt =
        Lumen::dynamicPtrCast<Asic::NeededQuilt>(Asic::writableSharedMemory(*vault_)->getEntity(
            Asic::Constants::groupNeededPath(group().canonicalName(), drivers_[index]->tableId())));
    findings.equal("dependencies", quilt->map().size(), expected.size(), drivers_[index]->name());
    for (const auto& [version, needed] : expected) {
      bool found = false;
      const auto& record = quilt->map().find(Asic::LogVersion{version}, found);
      findings.equal("dependencies of a version", found ? record.count : 0, 1U, version);
      findings.equal("table depended on", record.needed[0].tableId.value, needed.tableId, version);
      findings.equal("version depended on", record.needed[0].version.value, needed.version,
                     version);
      coverage_.dependencies += 1;
    }
  }

  Asic::GroupInterface& group() {
    return *agent_->groupIntfColl()->groupIntf(
        Asic::Constants::canonicalizeGroupName("KelpTunnelNi", "KelpEmServerGroup"));
  }

  struct Real {
    RealHandle handle;
    unsigned responses;
    std::optional<Action> action;
    bool dropped;
  };

  TestSupport::TempRoot root_;
  Drivers drivers_;
  Model model_;
  std::mt19937_64 random_;
  Lumen::Ptr<Vault::EntityManager> vault_;
  Lumen::Ptr<Asic::OrderedTableInterface> agent_;
  KelpTunnelNiLib::ResourceTableSet resources_;
  std::optional<TestSupport::HardwareSide> hardware_;
  bool marking_ = false;
  unsigned touched_ = kAll;
  std::deque<Real> reals_;
  std::vector<std::size_t> waiting_;  // handles that may still change
  std::vector<Lumen::Ptr<ForeignHandle>> foreigns_;
  std::vector<std::size_t> openForeign_;
  std::set<std::pair<unsigned, unsigned>> lostUnits_;
  std::uint64_t losses_ = 0;
  std::uint64_t lossesReported_ = 0;
  Brio::LogSink previousSink_;
  std::deque<std::string> history_;
  Coverage coverage_;
};

std::optional<std::uint64_t> numberOf(const char* variable) {
  const char* const text = std::getenv(variable);
  return text == nullptr ? std::nullopt : std::optional(std::strtoull(text, nullptr, 10));
}

struct Group {
  const char* name;
  Drivers (*drivers)();
};

class TablesAgainstModel : public testing::TestWithParam<Group> {
 protected:
  static constexpr std::uint64_t kSteps = 25000;

  void run(std::uint64_t seed) {
    const std::uint64_t chosen = numberOf("KELP_MODEL_SEED").value_or(seed);
    SCOPED_TRACE(fmt::format("KELP_MODEL_SEED={}", chosen));
    std::printf("KELP_MODEL_SEED=%llu\n", static_cast<unsigned long long>(chosen));
    RandomRun run(GetParam().drivers(), chosen);
    const std::uint64_t steps = numberOf("KELP_MODEL_STEPS").value_or(kSteps);
    ASSERT_TRUE(run.steps(steps));
    if (steps >= kSteps) {
      // What a run of this length always comes upon; otherwise it proves less than it seems to.
      const RandomRun::Coverage& met = run.coverage();
      EXPECT_GT(met.restarts, 3U);
      EXPECT_GT(met.commits, steps / 10);
      EXPECT_GT(met.succeeded, steps / 20);
      EXPECT_GT(met.failed, 10U);
      EXPECT_GT(met.dependencies, 10U);
    }
  }
};

TEST_P(TablesAgainstModel, AgreeAfterEveryStep) { run(1); }
TEST_P(TablesAgainstModel, AgreeAfterEveryStepOfAnotherRun) { run(20260127); }
TEST_P(TablesAgainstModel, AgreeAfterEveryStepOfARunThatNobodyMadeBefore) {
  run(std::random_device()());
}

INSTANTIATE_TEST_SUITE_P(
    Groups, TablesAgainstModel,
    testing::Values(
        Group{"Tagged", driversOf<KelpEmServer::Isem1Tag, KelpEmServer::Isem2Tag>},
        Group{"Egress",
              driversOf<KelpEmServer::EsemFodo, KelpEmServer::EsemFodoVd, KelpEmServer::LemVpwsAc>},
        Group{"Ingress", driversOf<KelpEmServer::IsemUntagged, KelpEmServer::IsemInnerEth,
                                   KelpEmServer::IsemMpls>}),
    [](const auto& group) { return std::string(group.param.name); });

}  // namespace
}  // namespace ModelTest
