#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "Lumen/Exception.h"
#include "Lumen/Node.h"
#include "Lumen/String.h"

struct sqlite3;

namespace Vault {

// The state database could not be opened, read or written, or holds what it should not. The text
// names the file and says what to do.
class VaultError : public Lumen::Exception {
 public:
  using Exception::Exception;
  ~VaultError() override;
};

// The rows behind the entities, in one SQLite database with one table that any SQLite tool reads:
//
//   CREATE TABLE entity (path TEXT PRIMARY KEY NOT NULL, type TEXT NOT NULL, value TEXT NOT NULL)
//
// `path` names the entity, `type` its class ("Asic::GenId"), `value` its state as text (a decimal
// number for a counter). The database is in write-ahead-log mode, so that a tool that reads never
// holds up the process that writes. A change is on disk when the call that made it returns; a
// process killed in the middle leaves it wholly done or not done. Two processes may write; each
// waits up to 5 seconds for the other. Every operation throws VaultError. Not to be carried across
// fork().
class Store final : public Lumen::Node {
 public:
  struct Row {
    Lumen::String type;
    Lumen::String value;
  };

  // Opens `file`, and makes it (mode 0640) if it is absent; its folder must be there. ":memory:"
  // keeps the rows in this process alone.
  explicit Store(Lumen::String file);
  ~Store() override;

  [[nodiscard]] const Lumen::String& file() const noexcept { return file_; }

  // The row at `path`, empty if there is none.
  [[nodiscard]] std::optional<Row> row(const Lumen::String& path) const;
  // Adds a row unless the path has one; gives back the row that is there afterwards.
  Row rowAdd(const Lumen::String& path, const Row& row);
  // Replaces the value at `path` by what `change` makes of it, in one step for all processes; gives
  // back the new value. Empty, and `change` is not called, if there is no such row.
  std::optional<Lumen::String> valueChange(
      const Lumen::String& path, const std::function<Lumen::String(const Lumen::String&)>& change);
  // False if there was none.
  bool rowDel(const Lumen::String& path);
  // All paths, in ascending order.
  [[nodiscard]] std::vector<Lumen::String> paths() const;

 private:
  class Statement;
  class Transaction;

  void open();
  void writeAheadLogIs() const;
  [[nodiscard]] int schemaVersion() const;
  void execute(const char* sql) const;
  [[noreturn]] void fail(int code, const Lumen::String& what) const;

  struct Closer {
    void operator()(sqlite3* database) const noexcept;
  };

  Lumen::String file_;
  mutable std::mutex mutex_;
  std::unique_ptr<sqlite3, Closer> database_;
};

}  // namespace Vault
