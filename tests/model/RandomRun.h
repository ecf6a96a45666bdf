#pragma once

#include <gtest/gtest.h>

#include <deque>
#include <iterator>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "LiveAgent.h"

// A run of random operations on the real tables and on the model.

namespace ModelTest {

// An entry of somebody else that operations depend on.
class ForeignHandle final : public Asic::DependencyEntryHandle {
 public:
  explicit ForeignHandle(Asic::TableVersion version) : version_(version) {}
  [[nodiscard]] Asic::TableVersion entryTableVersion() const override { return version_; }

 private:
  Asic::TableVersion version_;
};

class RandomRun : public LiveAgent {
 public:
  using LiveAgent::LiveAgent;

  // False once model and tables do not agree; then says where.
  bool steps(std::uint64_t count) {
    start();
    for (std::uint64_t i = 0; i < count; ++i) {
      step();
      if (!events_.empty()) {
        touched_ = kAll;
      }
      model_.takeUpdates();
      // The touched table each time, the others now and then.
      Findings findings = std::exchange(stepFindings_, {});
      for (unsigned index = 0; index < drivers_.size(); ++index) {
        if (index == touched_ || touched_ == kAll || i % 16 == 0) {
          drivers_[index]->compare(model_, index, i % 64 == 0, findings);
          compareNeeded(index, findings);
          for (unsigned unit = 0; unit < kUnits; ++unit) {
            if (model_.has({index, unit})) {
              drivers_[index]->compareUses(model_, {index, unit}, findings);
            }
          }
        }
      }
      ResourceCheck(model_, resources_).all(kinds_, replayed_, findings);
      const std::string complaints = model_.takeComplaints();
      compareHandles(findings);
      findings.equal("losses reported", lossesReported_, losses_);
      if (!findings.text().empty() || !complaints.empty()) {
        std::string history;
        for (const std::string& line : history_) {
          history += "  " + line + "\n";
        }
        ADD_FAILURE() << "after step " << i << ":\n"
                      << complaints << findings.text() << "last steps:\n"
                      << history;
        return false;
      }
    }
    return true;
  }

  // All is removed and reported: nothing is left that an index was taken for.
  void finish() {
    replayComplete();
    for (const unsigned kind : kinds_) {
      for (unsigned number = 1; number <= kResources; ++number) {
        resources_.refusedIs({kind, number}, false);
        resources_.prepareIs({kind, number}, ResourceSide::Stage::none);
      }
    }
    model_.takeUpdates();
    for (const std::size_t index : std::exchange(openForeign_, {})) {
      foreigns_[index]->entryStateIs(Asic::EntryState::entryStateSuccess);
      model_.foreign()[index].state = State::success;
    }
    group().groupResolver()->updateGenId();
    // Handlers write while the entries go.
    for (int round = 0; round < 4; ++round) {
      for (unsigned index = 0; index < drivers_.size(); ++index) {
        for (unsigned unit = 0; unit < kUnits; ++unit) {
          removeAll({index, unit}, {});
        }
      }
      for (int passes = 0; passes < 1000 && group().groupResolver()->size() != 0; ++passes) {
        pass();
      }
      reportAll();
    }
    Findings findings = std::exchange(stepFindings_, {});
    ResourceCheck(model_, resources_).all(kinds_, true, findings);
    bool cleared = false;
    for (unsigned index = 0; index < drivers_.size(); ++index) {
      drivers_[index]->compare(model_, index, true, findings);
      for (unsigned unit = 0; unit < kUnits; ++unit) {
        drivers_[index]->compareUses(model_, {index, unit}, findings);
        cleared = cleared || model_.table(index).units[unit]->cleared;
      }
    }
    if (!cleared) {
      expectNoResources(findings);
    }
    // What a clear without release has left goes with the run.
    restart();
    replayComplete();
    model_.takeUpdates();
    reportAll();
    expectNoResources(findings);
    EXPECT_EQ(findings.text(), "");
    EXPECT_EQ(model_.takeComplaints(), "");
  }

 private:
  void restart() {
    newRun();
    for (Real& handle : reals_) {
      handle.dropped = true;
    }
  }

  // --- steps -----------------------------------------------------------------------------------

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
    if (choice < 34) {
      write(place);
    } else if (choice < 47) {
      remove(place);
    } else if (choice < 48) {
      removeAll(place);
    } else if (choice < 70) {
      touched_ = kAll;
      note("pass");
      pass();
    } else if (choice < 77) {
      report(place.table);
    } else if (choice < 84) {
      touched_ = kAll;
      note("poll");
      poll();
    } else if (choice < 87) {
      foreignStep(oneIn(3));
    } else if (choice < 89) {
      update(place);
    } else if (choice < 97) {
      touched_ = kAll;
      resourceStep();
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
  void removeAll(Place place) { removeAll(place, anyDependency()); }
  void removeAll(Place place, Dependency on) {
    note("remove all {} {} on {}", drivers_[place.table]->name(), place.unit, describe(on));
    drivers_[place.table]->removeAll(place.unit, real(on), handlerOf(newReal({})));
    (void)model_.removeAll(place, on);
  }
  // An update that nobody has asked for finds nothing changed.
  void update(Place place) {
    const auto key = static_cast<unsigned>(below(kKeys));
    const auto version = drivers_[place.table]->update(place.unit, key);
    model_.takeUpdates();
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
        model_.clear(place, release);
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
      case 4:
        if (!replayed_) {
          replayComplete();
        }
        break;
      default:
        break;
    }
  }

  // What an operator does to a resource, and what the time does.
  void resourceStep() {
    if (kinds_.empty()) {
      return;
    }
    const auto kind = std::next(kinds_.begin(), static_cast<std::ptrdiff_t>(below(kinds_.size())));
    const Resource of{*kind, static_cast<unsigned>(below(kResources)) + 1};
    const std::uint64_t choice = below(16);
    // What waits has been asked just before, and is to be asked again just after.
    const bool asked = oneIn(3);
    if (asked) {
      note("pass");
      pass();
      model_.takeUpdates();
    }
    const auto before = resources_.row(of);
    const auto users = model_.usersOf(of);
    std::multiset<std::pair<Place, unsigned>> rewritten;
    if (choice < 7) {
      note("change {}/{}", of.kind, of.number);
      const bool can = before && before->state == Asic::EntryState::entryStateSuccess &&
                       resources_.with(of.kind, [](auto& table) {
                         return table.indexesTaken() < table.limit();
                       });
      stepFindings_.equal("resource changes", resources_.change(of), can, of.kind, of.number);
      coverage_.changes += can && !users.empty() ? 1U : 0U;
    } else if (choice < 12) {
      const bool refused = choice == 7;
      note("refuse {}/{} {}", of.kind, of.number, refused);
      resources_.refusedIs(of, refused);
    } else if (choice < 15 || !anyPrepared()) {
      const std::uint64_t stage = choice == 12 ? 1 + below(2) : 0;
      note("prepare {}/{} stage {}", of.kind, of.number, stage);
      resources_.prepareIs(of, static_cast<ResourceSide::Stage>(stage));
    } else {
      note("deadline");
      poll();
      resources_.passDeadline();
      ++coverage_.deadlines;
      return;
    }
    for (const Event& event : events_) {
      rewritten.insert({event.place, event.key});
    }
    const auto after = resources_.row(of);
    // Once for each version that it has come to.
    std::multiset<std::pair<Place, unsigned>> expected;
    for (auto version = before ? before->updateVersion : 0;
         before && after && version < after->updateVersion; ++version) {
      expected.insert(users.begin(), users.end());
    }
    stepFindings_.equal("just the users are rewritten", rewritten == expected, true, of.kind,
                        of.number);
    if (asked) {
      model_.takeUpdates();
      note("pass");
      pass();
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

  struct Real {
    RealHandle handle;
    unsigned responses;
    std::optional<Action> action;
    bool dropped;
  };

  std::deque<Real> reals_;
  std::vector<std::size_t> waiting_;  // handles that may still change
  std::vector<Lumen::Ptr<ForeignHandle>> foreigns_;
  std::vector<std::size_t> openForeign_;
};

}  // namespace ModelTest
