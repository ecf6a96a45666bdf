#include "Asic/NeededEntry.h"

namespace Asic {

NeededEntry::~NeededEntry() = default;

void NeededEntry::add(const TableVersion& version) {
  TableVersion* all = overflow_.empty() ? inline_.data() : overflow_.data();
  for (std::size_t i = 0; i < count_; ++i) {
    if (all[i].tableId == version.tableId) {
      if (version.version > all[i].version) {
        all[i].version = version.version;
      }
      return;
    }
  }
  if (count_ < inline_.size()) {
    inline_[count_] = version;
  } else {
    if (overflow_.empty()) {
      overflow_.assign(inline_.begin(), inline_.end());
    }
    overflow_.push_back(version);
  }
  ++count_;
}

void NeededEntry::merge(const Lumen::Ptr<const NeededEntry>& other) {
  if (!other) {
    return;
  }
  for (const TableVersion& version : other->versions()) {
    add(version);
  }
}

}  // namespace Asic
