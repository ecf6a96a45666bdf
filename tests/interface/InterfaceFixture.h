#pragma once

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "Quilt/IterHint.h"
#include "TableFixture.h"

namespace TestSupport {

// A table and its interface, with what an earlier run may have left.
template <class T>
class InterfaceFixture : public TableFixture<T> {
 public:
  using Base = TableFixture<T>;
  using Interface = typename Base::Interface;
  using Table = typename Base::Table;

 protected:
  static std::string tableText(const std::string& before, const std::string& after) {
    return before + std::string(T::name.view()) + after;
  }
  // Leaves a log with the versions 1 to `versions` on unit 0 and no agent. Keys 0, 1, ...
  void earlierRun(std::uint64_t versions) {
    const auto table = this->table();
    for (std::uint64_t i = 0; i < versions; ++i) {
      this->commit(table, i);
    }
    incarnation_ = incarnation();
    this->stop();
  }
  // A row that the hardware side left; starts the agent, but makes no interface.
  void leaveRow(std::uint64_t version, std::uint64_t incarnation) {
    this->start();
    this->hardware().report(T::tableId, version, incarnation);
  }
  std::uint64_t incarnation() {
    return this->intf()->entryLog()->tableEntryLog()->collectionControl()->incarnation();
  }
  std::vector<std::uint64_t> logVersions() {
    auto& map = this->intf()->entryLog()->tableEntryLog()->entryLogConfig();
    std::vector<std::uint64_t> versions;
    typename KelpEmServer::KelpEntryLog<T>::LogRecord record;
    Quilt::IterHint hint;
    for (bool more = map.first(record, hint); more; more = map.next(record.version, record, hint)) {
      versions.push_back(record.version.value);
    }
    return versions;
  }

  std::uint64_t incarnation_ = 0;
};

}  // namespace TestSupport
