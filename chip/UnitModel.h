#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>

#include "Asic/LogVersion.h"
#include "Brio/HashMap2018.h"
#include "KelpEmServer/TableSpec.h"

namespace Chip {

// What has been done to the entries of one unit of a table.
struct UnitCounts {
  std::uint64_t programmed = 0;
  std::uint64_t overwritten = 0;
  std::uint64_t deleted = 0;
};

// The entries of one table that one chip unit has been programmed with. Every change carries the
// version of the table's log that asked for it, and does nothing to an entry that is at that
// version or beyond: to take a record in twice is to take it in once.
template <KelpEmServer::TableSpec T>
class UnitModel {
 public:
  using Key = typename T::Entry::Key;
  using LogEntry = typename T::Entry::LogEntry;

  struct Programmed {
    LogEntry logEntry;
    Asic::LogVersion version;
  };

  UnitModel() : entries_(std::make_unique<Entries>()) {}

  [[nodiscard]] std::size_t size() const noexcept { return entries_->size(); }

  // Null if the chip has no such entry. Good until the next change.
  [[nodiscard]] const Programmed* find(const Key& key) const {
    const auto* node = (*entries_)[key];
    return node == nullptr ? nullptr : &node->value();
  }

  void entryIs(const LogEntry& logEntry, Asic::LogVersion version, UnitCounts& counts) {
    const auto hashed = entries_->hashed(logEntry.key);
    if (auto* node = entries_->find(hashed)) {
      Programmed& programmed = node->value();
      if (programmed.version < version) {
        programmed = Programmed{logEntry, version};
        ++counts.overwritten;
      }
    } else {
      entries_->emplaceMember(hashed, Programmed{logEntry, version});
      ++counts.programmed;
    }
    newest_ = std::max(newest_, version);
  }

  void entryDel(const Key& key, Asic::LogVersion version, UnitCounts& counts) {
    const auto hashed = entries_->hashed(key);
    const auto* node = entries_->find(hashed);
    if (node != nullptr && node->value().version < version) {
      entries_->del(hashed, nullptr);
      ++counts.deleted;
    }
  }

  // Removes what is older than `version`.
  void tableDel(Asic::LogVersion version, UnitCounts& counts) {
    if (newest_ < version) {
      counts.deleted += entries_->size();
      entries_->delAll();
      return;
    }
    for (auto at = entries_->iterator(); at; at.advance()) {
      const Programmed& programmed = at.currNodeMaybeStale()->value();
      if (programmed.version < version) {
        entries_->del(Key(programmed.logEntry.key));
        ++counts.deleted;
      }
    }
  }

  // Calls visit(programmed) for each entry, in no order; it must not change the model.
  template <class Visit>
  void forEach(Visit&& visit) const {
    for (auto at = entries_->iterator(); at; at.advance()) {
      visit(at.currNodeMaybeStale()->value());
    }
  }

 private:
  struct KeyOfProgrammed {
    const Key& operator()(const Programmed& programmed) const { return programmed.logEntry.key; }
  };
  struct Node : Brio::Hm2018NI<T::salts.tableEntries, Key, Programmed, KeyOfProgrammed, 1> {
    using Brio::Hm2018NI<T::salts.tableEntries, Key, Programmed, KeyOfProgrammed, 1>::Hm2018NI;
  };
  using Entries = Brio::HashMap2018<Node>;

  std::unique_ptr<Entries> entries_;  // a collection stays where it was made
  Asic::LogVersion newest_;           // no entry is above
};

}  // namespace Chip
