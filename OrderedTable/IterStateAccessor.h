#pragma once

#include <cstddef>

#include "Brio/TraceHandle.h"
#include "Lumen/Assert.h"
#include "Lumen/Exception.h"
#include "Lumen/Trace.h"
#include "Quilt/IterHint.h"

namespace Asic {

// One step of the iteration over a table: first the writes in flight, then the records of the
// configuration collection that nothing in flight replaces or removes. The state holds a key and no
// position in any collection, so the table may change between two steps in any way.
template <class IterState, class Table>
class IterStateAccessor {
 public:
  using State = typename IterState::State;

  explicit IterStateAccessor(IterState* iterState) noexcept
      : iterState_(iterState), table_(iterState->table()) {}

  // The entry to show; the default entry once there are no more.
  template <class Entry>
  Entry maybeUpdateCurrentEntry() {
    LUMEN_TRACE(_defaultTraceHandle(), 8, "", "");
    State& state = iterState_->state();
    Entry entry;
    if (state.inAddColl()) {
      Lumen::assertThat(!state.inTblCfg(), "!iterState_->state().inTblCfg()");
      if (stepInTransientAdd(entry)) {
        return entry;
      }
      Lumen::assertThat(!state.inAddColl(), "!iterState_->state().inAddColl()");
    }
    if (state.inTblCfg()) {
      LUMEN_TRACE(_defaultTraceHandle(), 9, "", "  in cfgQuilt collection");
      if (stepInConfig(entry)) {
        return entry;
      }
    }
    LUMEN_TRACE(_defaultTraceHandle(), 9, "", "  no more entries");
    state.set(State::kValid, false);
    state.set(State::kInAddColl, false);
    state.set(State::kInTblCfg, false);
    return Entry();
  }

  // One handle for the iteration of all tables.
  static const Brio::TraceHandle& _defaultTraceHandle() {
    static const Brio::TraceHandle handle("SwTableIter", false);
    return handle;
  }

 private:
  template <class Entry>
  bool stepInTransientAdd(Entry& entry) {
    State& state = iterState_->state();
    const auto& collection = table_->transientAddEntry();
    auto iter = state.hasBookmark() ? collection.iterator(iterState_->bookmarkKey())
                                    : collection.iterator();
    LUMEN_TRACE(_defaultTraceHandle(), 9, "", "  in transientAdd collection");
    if (!iter) {
      finishTransientAdd();
      return false;
    }
    const auto& wrapper = iter.currNodeMaybeStale()->value();
    state.set(State::kValid, true);
    LUMEN_TRACE(_defaultTraceHandle(), 9, "", "  found entry: {}", wrapper->key());
    entry = wrapper->entry();
    iter.advance();
    if (iter) {
      iterState_->bookmarkKeyIs(iter.currNodeMaybeStale()->value()->key());
      state.set(State::kHasBookmark, true);
      fetchAhead(iter);
    } else {
      state.set(State::kHasBookmark, false);
      finishTransientAdd();
    }
    return true;
  }

  // Has the processor fetch the wrapper behind the bookmark's, which the next step makes the
  // bookmark: wrappers lie in no order of memory, and each step would wait for one.
  template <class Iterator>
  static void fetchAhead(Iterator& iter) {
    constexpr std::size_t kCacheLine = 64;
    iter.advance();
    if (iter) {
      const auto* wrapper =
          reinterpret_cast<const unsigned char*>(iter.currNodeMaybeStale()->value().get());
      __builtin_prefetch(wrapper);
      __builtin_prefetch(wrapper + kCacheLine);
    }
  }

  void finishTransientAdd() {
    LUMEN_TRACE(_defaultTraceHandle(), 9, "", "  done with transAdd");
    State& state = iterState_->state();
    state.set(State::kInAddColl, false);
    if (!state.skipTblCfg()) {
      state.set(State::kInTblCfg, true);
    }
  }

  template <class Entry>
  bool stepInConfig(Entry& entry) {
    const auto configQuilt = table_->entryLog()->tableConfigQuilt(table_->unitId());
    if (!configQuilt) {
      return false;
    }
    State& state = iterState_->state();
    auto& records = configQuilt->swTableEntries();
    typename Table::ConfigRecord record;
    Quilt::IterHint hint;

    bool more = state.hasBookmark() ? seek(records, iterState_->bookmarkKey(), record, hint)
                                    : step(records, [&] { return records.first(record, hint); });
    while (more && hidden(record)) {
      more = step(records, [&] { return records.next(record.quiltKey(), record, hint); });
    }
    if (!more) {
      return false;
    }
    state.set(State::kValid, true);
    entry = record.entry;
    LUMEN_TRACE(_defaultTraceHandle(), 9, "", "  found entry: {}", record.quiltKey());
    if (step(records, [&] { return records.next(record.quiltKey(), record, hint); })) {
      state.set(State::kHasBookmark, true);
      iterState_->bookmarkKeyIs(record.quiltKey());
    } else {
      LUMEN_TRACE(_defaultTraceHandle(), 9, "", "  done with cfgQuilt");
      state.set(State::kHasBookmark, false);
      state.set(State::kInTblCfg, false);
    }
    return true;
  }

  // The record of `key`, or the one that follows it.
  template <class Map, class Key, class Record>
  bool seek(Map& records, const Key& key, Record& record, Quilt::IterHint& hint) {
    const bool there = step(records, [&] { return records.at(key, record, hint); });
    return there || step(records, [&] { return records.next(key, record, hint); });
  }

  // One operation on the collection; corruption is reported to it and counts as no record.
  template <class Map, class Operation>
  static bool step(Map& records, Operation operation) {
    try {
      return operation();
    } catch (const Lumen::CorruptionDetectedException& corruption) {
      records.doCorruptionDetected(corruption.msg());
      return false;
    }
  }

  template <class Record>
  bool hidden(const Record& record) const {
    return table_->transientRemoveEntry()[record.quiltKey()] != nullptr ||
           table_->transientAddEntry()[record.quiltKey()] != nullptr || record.isDeleted != 0;
  }

  IterState* iterState_;
  const Table* table_;
};

}  // namespace Asic
