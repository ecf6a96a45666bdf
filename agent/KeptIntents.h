#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "common/AnyTable.h"
#include "common/Intent.h"

struct sqlite3;

namespace Agent {

// What peers of the socket have asked for, for the next start: the last state of every key, in an
// SQLite database with one table that any SQLite tool reads:
//
//   CREATE TABLE intent (place TEXT, unit INTEGER, key TEXT, number INTEGER, line TEXT,
//                        PRIMARY KEY (place, unit, key))
//
// `place` is the table's name, `key` as it stands in an intent ("" for a removeAll), `line` the
// intent. Numbers go up with the order in which intents were accepted, over all runs; what is older
// than a removeAll of its place does not count.
//
// Changes are collected and written many at a time. What flush() has written survives a process
// that is killed at any moment. Errors of the database throw std::runtime_error, which names the
// file and the remedy, but for those of flush().
class KeptIntents {
 public:
  // Opens `file`, and makes it (mode 0640) if it is absent. With `forget` what is in it is dropped,
  // even if it can't be read. Without `removes`, a key that was removed is not kept: there is
  // nothing that would bring it back.
  KeptIntents(std::string file, bool forget, bool removes);
  ~KeptIntents();
  KeptIntents(const KeptIntents&) = delete;
  KeptIntents& operator=(const KeptIntents&) = delete;

  [[nodiscard]] const std::string& file() const noexcept { return file_; }
  // The intents of earlier runs that count, in the order of their acceptance.
  [[nodiscard]] std::vector<std::string> lines() const;

  // An intent of this run has ended well: the `number`th accepted, for `place`, which stands in
  // `line`.
  void add(std::uint64_t number, Common::IntentOp op, const Common::AnyTable& place,
           const Common::AnyKey& key, std::string line);
  // Writes what was added. False if that failed, which has been said then, once; the next call
  // tries again. Nothing of it may be acknowledged before.
  [[nodiscard]] bool flush();

 private:
  class Statement;
  struct Change {
    Common::IntentOp op;
    std::uint64_t number;
    std::string place;
    unsigned unit;
    std::string key;
    std::string line;
  };
  struct Closer {
    void operator()(sqlite3* database) const noexcept;
  };

  void open();
  void execute(const char* sql) const;
  [[noreturn]] void fail(std::string_view what) const;
  void write();
  void rollBack() const noexcept;

  std::string file_;
  bool removes_;
  std::unique_ptr<sqlite3, Closer> database_;
  std::uint64_t earlier_ = 0;  // the highest number of earlier runs
  std::vector<Change> changes_;
  bool failing_ = false;
};

}  // namespace Agent
