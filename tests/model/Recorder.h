#pragma once

#include <array>
#include <cstdint>
#include <deque>

#include "KelpEmServer/AllTables.h"
#include "Model.h"
#include "ResourceSide.h"

namespace ModelTest {

// The helper of a software table: notes what the table is about to commit or to rewrite, and has
// some of the entries logged whose resources have failed.
template <class T>
class Recorder final : public KelpEmServer::KelpSwTableHelperBase<T> {
 public:
  using Wrapper = Lumen::Ptr<KelpEmServer::KelpEntryWrapper<T>>;
  using SwTable = Lumen::Ptr<KelpEmServer::KelpSwTable<T>>;
  using Keys = std::array<typename T::Entry::Key, kKeys>;

  Recorder(Place place, const Keys& keys, std::deque<Event>& events, ResourceSide& resources)
      : place_(place), keys_(keys), events_(events), resources_(resources) {}

  void finalizeOnSuccess(const Wrapper& wrapper, bool isDelete, const SwTable& table) override {
    note(isDelete ? Event::Kind::removed : Event::Kind::success, wrapper, table);
  }
  bool finalizeOnFailure(const Wrapper& wrapper, bool, const SwTable& table) override {
    return Model::keeps(note(Event::Kind::failure, wrapper, table).key);
  }
  bool finalizeOnResourceUpdate(const Wrapper& wrapper, const SwTable& table,
                                bool failed) override {
    note(Event::Kind::update, wrapper, table).failed = failed;
    return true;
  }

 private:
  Event& note(Event::Kind kind, const Wrapper& wrapper, const SwTable& table) {
    Event event;
    event.kind = kind;
    event.place = place_;
    while (!(keys_[event.key] == wrapper->key())) {
      ++event.key;
    }
    event.version = table->entryLog()->tableVersion().value;
    unsigned linkage = 0;
    T::Linkages::forEachKind([&](auto tag) {
      using L = typename decltype(tag)::Kind;
      event.indexes[linkage] =
          TestSupport::loggedIndex<L>(wrapper->logEntry()).value_or(~std::uint32_t{0});
      if (kind == Event::Kind::success || kind == Event::Kind::failure) {
        event.verdicts[linkage] = verdict<L>(wrapper->entry());
      }
      ++linkage;
    });
    return events_.emplace_back(event);
  }
  template <class L>
  Event::Verdict verdict(const typename T::Entry& entry) {
    Event::Verdict verdict;
    for (unsigned number = 1; number <= kResources; ++number) {
      const Resource of{kKindOf<L>, number};
      if (L::key(entry).isEq(TestSupport::sampleResource<typename L::ResourceKey>(number))) {
        const auto row = resources_.row(of);
        verdict.refused = resources_.refused(of);
        verdict.index = row ? row->index : 0;
        verdict.exhausted = verdict.index == 0 && resources_.exhausted(of);
      }
    }
    return verdict;
  }

  Place place_;
  const Keys& keys_;
  std::deque<Event>& events_;
  ResourceSide& resources_;
};

}  // namespace ModelTest
