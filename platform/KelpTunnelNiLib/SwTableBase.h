#pragma once

#include <cstdint>

#include "Asic/OrderedSwTable.h"
#include "Brio/Attributes.h"
#include "KelpTunnelNiLib/EntriesByKey.h"
#include "KelpTunnelNiLib/EntryRange.h"
#include "KelpTunnelNiLib/InspectClasses.h"
#include "Lumen/Assert.h"
#include "Lumen/Node.h"
#include "Lumen/Ptr.h"

namespace KelpTunnelNiLib {

template <class EntryT>
class SwTableBase;

// Where an iteration over a table stands between two steps: a state byte, and the table.
template <class EntryT>
class SwTableIteratorState : public Lumen::Node {
 public:
  using Entry = EntryT;

  // The state byte. At most one of inAddColl and inTblCfg is set; with neither, the next step ends
  // the iteration.
  class State {
   public:
    static constexpr std::uint8_t kValid = 1;         // there is a current entry
    static constexpr std::uint8_t kInAddColl = 2;     // the next step reads the writes in flight
    static constexpr std::uint8_t kInTblCfg = 4;      // the next step reads the configuration
    static constexpr std::uint8_t kSkipTblCfg = 8;    // the configuration is left out of the walk
    static constexpr std::uint8_t kHasBookmark = 16;  // there is a key to seek

    [[nodiscard]] std::uint8_t bits() const noexcept { return bits_; }
    [[nodiscard]] bool valid() const noexcept { return has(kValid); }
    [[nodiscard]] bool inAddColl() const noexcept { return has(kInAddColl); }
    [[nodiscard]] bool inTblCfg() const noexcept { return has(kInTblCfg); }
    [[nodiscard]] bool skipTblCfg() const noexcept { return has(kSkipTblCfg); }
    [[nodiscard]] bool hasBookmark() const noexcept { return has(kHasBookmark); }
    void set(std::uint8_t bit, bool on) noexcept {
      bits_ = static_cast<std::uint8_t>(on ? bits_ | bit : bits_ & ~bit);
    }

   private:
    [[nodiscard]] bool has(std::uint8_t bit) const noexcept { return (bits_ & bit) != 0; }

    std::uint8_t bits_ = 0;
  };

  static constexpr const char* className() {
    return kInspectTableText<Entry, "SwTableIteratorState">.c_str();
  }
  static constexpr auto attributes() {
    using S = SwTableIteratorState;
    return Brio::attributeList(
        258, Brio::view("state", &S::stateBits), Brio::stored("swTable", &S::swTable_),
        Brio::operation("maybeUpdateCurrentEntry", &S::maybeUpdateCurrentEntry));
  }
  static constexpr const Lumen::TypeData& classData() {
    return kInspectTableClass<Entry, 2, "SwTableIteratorState">;
  }

  // One step: the entry to show, or the default entry at the end.
  virtual Entry maybeUpdateCurrentEntry() = 0;

  [[nodiscard]] const State& state() const noexcept { return state_; }
  [[nodiscard]] State& state() noexcept { return state_; }
  // The table; it must outlive the state.
  [[nodiscard]] const SwTableBase<Entry>* swTable() const noexcept { return swTable_; }
  void swTableIs(const SwTableBase<Entry>* swTable) noexcept { swTable_ = swTable; }

 private:
  [[nodiscard]] std::uint8_t stateBits() const noexcept { return state_.bits(); }

  State state_;
  const SwTableBase<Entry>* swTable_ = nullptr;
};

// Base of the software table of one record type: what feature code calls.
template <class EntryT>
class SwTableBase : public Asic::OrderedSwTableWithMarkSweep {
 public:
  using Entry = EntryT;
  using Key = typename Entry::Key;
  using IteratorState = SwTableIteratorState<Entry>;
  using ResponseHandler = Asic::OrderedSwTable::ResponseHandler;

  class EntryHandle : public Asic::OrderedSwTable::EntryHandle {
   public:
    static constexpr const char* className() {
      return kInspectTableText<Entry, "SwTableBase::EntryHandle">.c_str();
    }
    static constexpr auto attributes() {
      return Brio::attributeList(514, Brio::stored("key", &EntryHandle::key_));
    }
    static constexpr const Lumen::TypeData& classData() {
      return kInspectTableClass<Entry, 1, "SwTableBase::EntryHandle",
                                &Asic::OrderedSwTable::EntryHandle::classData()>;
    }

    // The key of the operation; the default key on a remove-all's handle.
    [[nodiscard]] const Key& key() const noexcept { return key_; }

   protected:
    EntryHandle(const Asic::EntryVersion& version, const Key& key, SwTableBase* table)
        : Asic::OrderedSwTable::EntryHandle(version, table), key_(key) {}

   private:
    Key key_;
  };

  static constexpr const char* className() {
    return kInspectTableText<Entry, "SwTableBase">.c_str();
  }
  static constexpr auto attributes() {
    return Brio::attributeList(
        770, Brio::operation("entryWrite", &SwTableBase::entryWrite).takesNull(),
        Brio::operation("entryRemove", &SwTableBase::entryRemove).takesNull(),
        Brio::operation("entryRemoveAll", &SwTableBase::entryRemoveAll).takesNull(),
        Brio::operation("entryRead", &SwTableBase::entryRead),
        Brio::operation("entryHas", &SwTableBase::entryHas),
        Brio::operation("initIterState", &SwTableBase::initIterState),
        Brio::operation("initIterStateFromKey", &SwTableBase::initIterStateFromKey),
        Brio::collection("entries", &SwTableBase::entriesByKey));
  }
  static constexpr const Lumen::TypeData& classData() {
    return kInspectTableClass<Entry, 0, "SwTableBase",
                              &Asic::OrderedSwTableWithMarkSweep::classData()>;
  }

  // A position in the reader's view of a table. Two are equal when their entries are, so the end is
  // an iterator with the default entry. Stepping or dereferencing an ended one asserts "iter_".
  class EntryIteratorConst {
   public:
    EntryIteratorConst(const SwTableBase* swTable, Lumen::Ptr<IteratorState> iter, Entry entry)
        : swTable_(swTable), iter_(std::move(iter)), entry_(entry) {}

    explicit operator bool() const noexcept { return iter_ && iter_->state().valid(); }
    const Entry& operator*() const noexcept {
      Lumen::assertThat(static_cast<bool>(*this), "iter_");
      return entry_;
    }
    const Entry* operator->() const noexcept { return &**this; }
    EntryIteratorConst& operator++() {
      Lumen::assertThat(static_cast<bool>(*this), "iter_");
      entry_ = iter_->maybeUpdateCurrentEntry();
      return *this;
    }
    [[nodiscard]] const SwTableBase* swTable() const noexcept { return swTable_; }
    friend bool operator==(const EntryIteratorConst& a, const EntryIteratorConst& b) {
      return a.entry_.isEq(b.entry_);
    }

   private:
    const SwTableBase* swTable_;
    Lumen::Ptr<IteratorState> iter_;
    Entry entry_;
  };

  // Writes an entry: accepted at once, carried out in the order of the group's queue. `dependency`
  // names an entry, of this or another table, that must be logged first; null for none. The key
  // argument wins over the key inside `entry`. The handle tells the outcome; it is never null.
  virtual Lumen::Ptr<const EntryHandle> entryWrite(
      const Key& key, const Entry& entry,
      const Lumen::Ptr<const Asic::DependencyEntryHandle>& dependency) = 0;
  // The same; `handler` is called once the outcome is known.
  virtual Lumen::Ptr<const EntryHandle> entryWriteWithResponseHandler(
      const Key& key, const Entry& entry,
      const Lumen::Ptr<const Asic::DependencyEntryHandle>& dependency,
      const ResponseHandler& handler) = 0;
  // Removes one key. A key that is not there ends well.
  virtual Lumen::Ptr<const EntryHandle> entryRemove(
      const Key& key, const Lumen::Ptr<const Asic::DependencyEntryHandle>& dependency) = 0;
  virtual Lumen::Ptr<const EntryHandle> entryRemoveWithResponseHandler(
      const Key& key, const Lumen::Ptr<const Asic::DependencyEntryHandle>& dependency,
      const ResponseHandler& handler) = 0;
  // Removes all keys of the unit. There is no handle: hasPendingHwWrites() tells when it has
  // reached the hardware.
  virtual void entryRemoveAll(const Lumen::Ptr<const Asic::DependencyEntryHandle>& dependency) = 0;
  // The same; `handler` is called only if the dependency fails.
  virtual void entryRemoveAllWithResponseHandler(
      const Lumen::Ptr<const Asic::DependencyEntryHandle>& dependency,
      const ResponseHandler& handler) = 0;

  // The entry as a reader sees it, with everything that is in flight; the default entry if there is
  // none.
  [[nodiscard]] virtual Entry entryRead(const Key& key) const = 0;
  // The same as entryRead.
  [[nodiscard]] virtual Entry entry(const Key& key) const = 0;
  // Whether the key is in the reader's view.
  [[nodiscard]] virtual bool entryHas(const Key& key) const = 0;
  // The number of entries in the reader's view. Costs a walk of what is in flight and of the table.
  [[nodiscard]] virtual unsigned entrys() const = 0;

  // An iterator at `key`, with its entry fetched. A key that is nowhere gives an ended one.
  [[nodiscard]] virtual EntryIteratorConst entryIteratorConst(const Key& key) const = 0;
  // An iterator at the beginning, with its first entry fetched.
  [[nodiscard]] virtual EntryIteratorConst entryIteratorConst() const = 0;
  // The reader's view as a range of entries, for one pass each time it is begun.
  [[nodiscard]] EntryRange<SwTableBase> entries() const noexcept {
    return EntryRange<SwTableBase>(*this);
  }
  // A fresh state at the beginning, or at `key`, with nothing fetched.
  [[nodiscard]] virtual Lumen::Ptr<IteratorState> initIterState() const = 0;
  [[nodiscard]] virtual Lumen::Ptr<IteratorState> initIterStateFromKey(const Key& key) const = 0;

 protected:
  using Asic::OrderedSwTableWithMarkSweep::OrderedSwTableWithMarkSweep;

 private:
  [[nodiscard]] EntriesByKey<Entry> entriesByKey() const noexcept { return {this}; }
};

}  // namespace KelpTunnelNiLib
