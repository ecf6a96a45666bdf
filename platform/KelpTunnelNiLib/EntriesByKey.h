#pragma once

#include <cstdint>
#include <utility>

#include "Brio/InspectCollection.h"

namespace KelpTunnelNiLib {

template <class Entry>
class SwTableBase;

// The entries of a table as a reader sees them, as a collection by key, for inspection. A walk goes
// from entry to entry of the table as it is by then, and copies nothing but the one it stands on.
template <class EntryT>
struct EntriesByKey {
  using Entry = EntryT;

  const SwTableBase<Entry>* table;
};

}  // namespace KelpTunnelNiLib

template <class EntryT>
struct Brio::InspectCollection<KelpTunnelNiLib::EntriesByKey<EntryT>> {
  using Collection = KelpTunnelNiLib::EntriesByKey<EntryT>;
  using Table = KelpTunnelNiLib::SwTableBase<EntryT>;
  using Key = typename EntryT::Key;
  using Value = EntryT;

  // Costs a walk over what is in flight.
  static std::uint32_t size(Collection in) { return in.table->entrys(); }
  static std::uint32_t secondSize(Collection in) { return size(in); }
  // Good until the next call on this thread.
  static const Value* find(Collection in, const Key& key) {
    thread_local Value found;
    return read(*in.table, key, found);
  }
  static const Value& valueOf(const Value& entry) { return entry; }

  class Iterator {
   public:
    explicit Iterator(Collection in) : Iterator(*in.table, in.table->entryIteratorConst()) {}
    Iterator(Collection in, const Key& key)
        : Iterator(*in.table, in.table->entryIteratorConst(key)) {}

    [[nodiscard]] bool nonnull() const { return static_cast<bool>(at_); }
    [[nodiscard]] const Value* present() const {
      return nonnull() ? read(table_, key(), present_) : nullptr;
    }
    [[nodiscard]] Key key() const { return nonnull() ? at_->logEntry.key : Key{}; }
    void advance() {
      if (nonnull()) {
        ++at_;
      }
    }

   private:
    Iterator(const Table& table, typename Table::EntryIteratorConst at)
        : table_(table), at_(std::move(at)) {}

    const Table& table_;
    typename Table::EntryIteratorConst at_;
    mutable Value present_{};
  };

 private:
  // The entry of the key, in `to`; null if there is none.
  static const Value* read(const Table& table, const Key& key, Value& to) {
    to = table.entryRead(key);
    return table.entryHas(key) ? &to : nullptr;
  }
};
