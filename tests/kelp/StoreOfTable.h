#pragma once

#include <set>
#include <string>

#include "RunKelp.h"
#include "TableFixture.h"
#include "common/EntryJson.h"

namespace KelpTest {

// A store that this process writes as an agent, with two units of one table, and kelp on it.
template <class T>
class StoreOfTable : public TestSupport::TableFixture<T> {
 protected:
  using Base = TestSupport::TableFixture<T>;
  using typename Base::Key;
  using typename Base::Table;

  void SetUp() override {
    tables_[0] = this->table(Base::unit0);
    tables_[1] = this->table(Base::unit1);
  }
  void TearDown() override {
    stopAgent();
    Base::TearDown();
  }
  void stopAgent() {
    tables_[0] = nullptr;
    tables_[1] = nullptr;
    this->stop();
  }

  // Writes `count` entries on each unit, of which unit 1 has other payloads.
  void writeEntries(std::uint64_t count) {
    for (std::uint64_t i = 0; i < count; ++i) {
      this->commit(tables_[0], i, 0);
      this->commit(tables_[1], i, 1);
    }
  }
  void remove(std::uint64_t number, int unit = 0) {
    (void)tables_[unit]->entryRemove(this->key(number), nullptr);
    this->pass();
  }
  void removeAll(int unit) {
    tables_[unit]->entryRemoveAll(nullptr);
    this->pass();
  }

  Result kelp(std::vector<std::string> arguments) {
    return runKelp(this->root_.path(), "kelp-test", std::move(arguments));
  }
  // The same with the table behind the command.
  Result kelpOn(const std::string& command, std::vector<std::string> arguments = {}) {
    arguments.insert(arguments.begin(), {command, std::string(T::name.view())});
    return kelp(std::move(arguments));
  }
  [[nodiscard]] static std::string keyText(std::uint64_t number) {
    std::string text;
    Common::appendKey<T>(text, Base::key(number));
    return text;
  }
  // The same as {name: value}, and as "name=value,...".
  [[nodiscard]] static Json keyJson(std::uint64_t number) { return Json::parse(keyText(number)); }
  [[nodiscard]] static std::string keyPairs(std::uint64_t number, const std::string& between) {
    std::string text;
    const Json key = keyJson(number);
    for (const auto& [name, value] : key.items()) {
      text += (text.empty() ? "" : between) + name + "=" + value.dump();
    }
    return text;
  }
  [[nodiscard]] std::string folder() const { return this->root_.path() + "/kelp-test"; }
  // The file of one of the table's collections: "log", "config/0".
  [[nodiscard]] std::string fileOf(const std::string& collection) const {
    const std::string log = KelpEmServer::KelpConstants<T>::tableEntryLogQuiltPath();
    return folder() + "/" + log.substr(0, log.size() - 3) + collection + ".quilt";
  }

  Lumen::Ptr<Table> tables_[2];
};

}  // namespace KelpTest
