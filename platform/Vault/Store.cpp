#include "Vault/Store.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "Quilt/Seam.h"

namespace Vault {
namespace {

constexpr int kSchemaVersion = 1;
constexpr int kBusyMilliseconds = 5000;
constexpr const char* kInMemory = ":memory:";

const char* remedyFor(int code) {
  switch (code & 0xff) {
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      return "another program holds it; end that program's transaction and try again";
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
      return "the file is damaged or no database; move it aside, the entities are then made anew";
    case SQLITE_CANTOPEN:
      return "check that the folder is there and that this user may write to it";
    case SQLITE_READONLY:
    case SQLITE_PERM:
    case SQLITE_AUTH:
      return "let this user write to the file and its folder";
    case SQLITE_FULL:
    case SQLITE_IOERR:
      return "make room on the file system, then try again";
    default:
      return "look at the file with the sqlite3 tool";
  }
}

}  // namespace

VaultError::~VaultError() = default;

void Store::Closer::operator()(sqlite3* database) const noexcept { sqlite3_close(database); }

// One prepared statement; texts are bound by their position, from 1.
class Store::Statement {
 public:
  Statement(const Store& store, const char* sql) : store_(store) {
    const int code = sqlite3_prepare_v2(store.database_.get(), sql, -1, &statement_, nullptr);
    if (code != SQLITE_OK) {
      store.fail(code, "cannot read the table \"entity\"");
    }
  }
  ~Statement() { sqlite3_finalize(statement_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  Statement& bind(int position, const Lumen::String& text) {
    const int code = sqlite3_bind_text64(statement_, position, text.data(), text.size(),
                                         SQLITE_STATIC, SQLITE_UTF8);
    if (code != SQLITE_OK) {
      store_.fail(code, "cannot pass a text on");
    }
    return *this;
  }
  // True: there is a row. False: done.
  bool step() {
    if (sqlite3_stmt_readonly(statement_) == 0) {
      Quilt::Seam::step();
    }
    const int code = sqlite3_step(statement_);
    if (code != SQLITE_ROW && code != SQLITE_DONE) {
      store_.fail(code, "cannot read or write");
    }
    return code == SQLITE_ROW;
  }
  [[nodiscard]] Lumen::String text(int column) const {
    const auto* bytes = reinterpret_cast<const char*>(sqlite3_column_text(statement_, column));
    const int size = sqlite3_column_bytes(statement_, column);
    return bytes == nullptr ? Lumen::String() : Lumen::String(bytes, static_cast<size_t>(size));
  }
  [[nodiscard]] int number(int column) const { return sqlite3_column_int(statement_, column); }

 private:
  const Store& store_;
  sqlite3_stmt* statement_ = nullptr;
};

// A write transaction: rolled back unless it is committed.
class Store::Transaction {
 public:
  explicit Transaction(const Store& store) : store_(store) { store.execute("BEGIN IMMEDIATE"); }
  ~Transaction() {
    if (!done_) {
      sqlite3_exec(store_.database_.get(), "ROLLBACK", nullptr, nullptr, nullptr);
    }
  }
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;

  void commit() {
    store_.execute("COMMIT");
    done_ = true;
  }

 private:
  const Store& store_;
  bool done_ = false;
};

Store::Store(Lumen::String file) : file_(std::move(file)) { open(); }
Store::~Store() = default;

void Store::open() {
  if (file_ != kInMemory) {
    // Made here and not by SQLite, for the mode; the files beside it take the same. A file that is
    // there is not opened: closing it again would drop the locks that SQLite holds for this
    // process.
    Quilt::Seam::step();
    const int made = ::open(file_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0640);
    if (made < 0 && errno != EEXIST) {
      throw VaultError(fmt::format("{}: cannot make the state database: {}; {}", file_,
                                   std::strerror(errno), remedyFor(SQLITE_CANTOPEN)));
    }
    if (made >= 0) {
      ::close(made);
    }
  }
  sqlite3* database = nullptr;
  const int code = sqlite3_open_v2(file_.c_str(), &database,
                                   SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
  database_.reset(database);
  if (code != SQLITE_OK) {
    fail(code, "cannot open");
  }
  sqlite3_busy_timeout(database, kBusyMilliseconds);
  writeAheadLogIs();
  execute("PRAGMA synchronous = FULL");
  if (schemaVersion() != kSchemaVersion) {
    Transaction transaction(*this);
    const int version = schemaVersion();
    if (version > kSchemaVersion) {
      throw VaultError(
          fmt::format("{}: the state database has layout {}, this program knows layout {}; use the "
                      "program that "
                      "wrote it, or move the file aside",
                      file_, version, kSchemaVersion));
    }
    execute(
        "CREATE TABLE IF NOT EXISTS entity (path TEXT PRIMARY KEY NOT NULL, type TEXT NOT NULL, "
        "value TEXT NOT NULL) WITHOUT ROWID");
    execute(fmt::format("PRAGMA user_version = {}", kSchemaVersion).c_str());
    transaction.commit();
  }
}

void Store::writeAheadLogIs() const {
  // The change of mode does not wait for other processes by itself, and two that start at once meet
  // here.
  constexpr useconds_t kPauseMicroseconds = 2000;
  for (int waited = 0;; waited += kPauseMicroseconds) {
    const int code =
        sqlite3_exec(database_.get(), "PRAGMA journal_mode = WAL", nullptr, nullptr, nullptr);
    if (code == SQLITE_OK) {
      return;
    }
    if ((code & 0xff) != SQLITE_BUSY || waited >= kBusyMilliseconds * 1000) {
      fail(code, "cannot turn the write-ahead log on");
    }
    ::usleep(kPauseMicroseconds);
  }
}

int Store::schemaVersion() const {
  Statement ask(*this, "PRAGMA user_version");
  return ask.step() ? ask.number(0) : 0;
}

void Store::execute(const char* sql) const {
  Quilt::Seam::step();
  const int code = sqlite3_exec(database_.get(), sql, nullptr, nullptr, nullptr);
  if (code != SQLITE_OK) {
    fail(code, fmt::format("cannot run \"{}\"", sql));
  }
}

void Store::fail(int code, const Lumen::String& what) const {
  throw VaultError(fmt::format("{}: state database: {}: {}; {}", file_, what,
                               database_ ? sqlite3_errmsg(database_.get()) : sqlite3_errstr(code),
                               remedyFor(code)));
}

std::optional<Store::Row> Store::row(const Lumen::String& path) const {
  const std::lock_guard lock(mutex_);
  Statement find(*this, "SELECT type, value FROM entity WHERE path = ?1");
  if (!find.bind(1, path).step()) {
    return std::nullopt;
  }
  return Row{find.text(0), find.text(1)};
}

Store::Row Store::rowAdd(const Lumen::String& path, const Row& row) {
  {
    const std::lock_guard lock(mutex_);
    Statement add(*this,
                  "INSERT INTO entity (path, type, value) VALUES (?1, ?2, ?3) "
                  "ON CONFLICT (path) DO NOTHING");
    add.bind(1, path).bind(2, row.type).bind(3, row.value).step();
  }
  // Another process may have taken it away again; what was asked for is then as good an answer.
  return this->row(path).value_or(row);
}

std::optional<Lumen::String> Store::valueChange(
    const Lumen::String& path, const std::function<Lumen::String(const Lumen::String&)>& change) {
  const std::lock_guard lock(mutex_);
  Transaction transaction(*this);
  Lumen::String value;
  {
    Statement find(*this, "SELECT value FROM entity WHERE path = ?1");
    if (!find.bind(1, path).step()) {
      return std::nullopt;
    }
    value = change(find.text(0));
  }
  {
    Statement update(*this, "UPDATE entity SET value = ?2 WHERE path = ?1");
    update.bind(1, path).bind(2, value).step();
  }
  transaction.commit();
  return value;
}

bool Store::rowDel(const Lumen::String& path) {
  const std::lock_guard lock(mutex_);
  Statement remove(*this, "DELETE FROM entity WHERE path = ?1");
  remove.bind(1, path).step();
  return sqlite3_changes(database_.get()) != 0;
}

std::vector<Lumen::String> Store::paths() const {
  const std::lock_guard lock(mutex_);
  Statement list(*this, "SELECT path FROM entity ORDER BY path");
  std::vector<Lumen::String> all;
  while (list.step()) {
    all.push_back(list.text(0));
  }
  return all;
}

}  // namespace Vault
