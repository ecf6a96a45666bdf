#include "agent/KeptIntents.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "agent/Say.h"

namespace Agent {
namespace {

constexpr int kLayout = 1;
// Nobody else writes; whoever holds the file for a while must not hold up the loop.
constexpr int kBusyMilliseconds = 50;
constexpr const char* kRemedy =
    "make room and let this user write there, or move the file aside, or start with --forget";

}  // namespace

void KeptIntents::Closer::operator()(sqlite3* database) const noexcept { sqlite3_close(database); }

// A prepared statement that may be run many times; values are bound by their position, from 1.
class KeptIntents::Statement {
 public:
  Statement(const KeptIntents& kept, const char* sql) : kept_(kept) {
    if (sqlite3_prepare_v2(kept.database_.get(), sql, -1, &statement_, nullptr) != SQLITE_OK) {
      kept.fail("cannot read");
    }
  }
  ~Statement() { sqlite3_finalize(statement_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  // The text must stay until the statement has run.
  Statement& bind(int position, std::string_view text) {
    sqlite3_bind_text64(statement_, position, text.data(), text.size(), SQLITE_STATIC, SQLITE_UTF8);
    return *this;
  }
  Statement& bind(int position, std::uint64_t number) {
    sqlite3_bind_int64(statement_, position, static_cast<sqlite3_int64>(number));
    return *this;
  }
  // True: there is a row. False: done.
  bool step() {
    const int code = sqlite3_step(statement_);
    if (code != SQLITE_ROW && code != SQLITE_DONE) {
      kept_.fail("cannot read or write");
    }
    return code == SQLITE_ROW;
  }
  void run() {
    (void)step();
    sqlite3_reset(statement_);
  }
  [[nodiscard]] std::uint64_t number(int column) const {
    return static_cast<std::uint64_t>(sqlite3_column_int64(statement_, column));
  }
  [[nodiscard]] std::string text(int column) const {
    const auto* bytes = reinterpret_cast<const char*>(sqlite3_column_text(statement_, column));
    const int size = sqlite3_column_bytes(statement_, column);
    return bytes == nullptr ? std::string() : std::string(bytes, static_cast<std::size_t>(size));
  }

 private:
  const KeptIntents& kept_;
  sqlite3_stmt* statement_ = nullptr;
};

KeptIntents::KeptIntents(std::string file, bool forget, bool removes)
    : file_(std::move(file)), removes_(removes) {
  if (forget) {
    for (const char* part : {"", "-wal", "-shm", "-journal"}) {
      unlink((file_ + part).c_str());
    }
  }
  open();
}

KeptIntents::~KeptIntents() = default;

void KeptIntents::open() {
  // Made here and not by SQLite, for the mode; the files beside it take the same.
  const int made = ::open(file_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0640);
  if (made < 0 && errno != EEXIST) {
    throw std::runtime_error(fmt::format("{}: cannot keep the intents of the socket: {}; {}", file_,
                                         std::strerror(errno), kRemedy));
  }
  if (made >= 0) {
    ::close(made);
  }
  sqlite3* database = nullptr;
  const int code = sqlite3_open_v2(file_.c_str(), &database, SQLITE_OPEN_READWRITE, nullptr);
  database_.reset(database);
  if (code != SQLITE_OK) {
    fail("cannot open");
  }
  sqlite3_busy_timeout(database, kBusyMilliseconds);
  execute("PRAGMA journal_mode = WAL");
  execute("PRAGMA synchronous = FULL");
  Statement layout(*this, "PRAGMA user_version");
  const std::uint64_t found = layout.step() ? layout.number(0) : 0;
  if (found > kLayout) {
    throw std::runtime_error(fmt::format(
        "{}: the kept intents have layout {}, this program knows layout {}; use the program that "
        "wrote them, move the file aside, or start with --forget",
        file_, found, kLayout));
  }
  layout.run();
  execute(
      "CREATE TABLE IF NOT EXISTS intent (place TEXT NOT NULL, unit INTEGER NOT NULL, key TEXT NOT "
      "NULL, number INTEGER NOT NULL, line TEXT NOT NULL, PRIMARY KEY (place, unit, key)) WITHOUT "
      "ROWID");
  execute(fmt::format("PRAGMA user_version = {}", kLayout).c_str());
  Statement last(*this, "SELECT max(number) FROM intent");
  earlier_ = last.step() ? last.number(0) : 0;
}

void KeptIntents::execute(const char* sql) const {
  if (sqlite3_exec(database_.get(), sql, nullptr, nullptr, nullptr) != SQLITE_OK) {
    fail("cannot read or write");
  }
}

void KeptIntents::fail(std::string_view what) const {
  throw std::runtime_error(fmt::format("{}: the kept intents of the socket: {}: {}; {}", file_,
                                       what, sqlite3_errmsg(database_.get()), kRemedy));
}

std::vector<std::string> KeptIntents::lines() const {
  Statement all(*this,
                "SELECT line FROM intent AS one WHERE number >= coalesce((SELECT number FROM "
                "intent AS whole WHERE whole.place = one.place AND whole.unit = one.unit AND "
                "whole.key = ''), 0) ORDER BY number");
  std::vector<std::string> lines;
  while (all.step()) {
    lines.push_back(all.text(0));
  }
  return lines;
}

void KeptIntents::add(std::uint64_t number, Common::IntentOp op, const Common::AnyTable& place,
                      const Common::AnyKey& key, std::string line) {
  Change& change = changes_.emplace_back(Change{
      op, earlier_ + number, std::string(place.name()), place.unit().value, {}, std::move(line)});
  if (op != Common::IntentOp::removeAll) {
    Common::appendKey(change.key, key);
  }
}

bool KeptIntents::flush() {
  if (changes_.empty()) {
    return true;
  }
  try {
    write();
  } catch (const std::exception& error) {
    rollBack();
    if (!std::exchange(failing_, true)) {
      say("{}; until then peers get no outcomes", error.what());
    }
    return false;
  }
  changes_.clear();
  if (std::exchange(failing_, false)) {
    say("{}: the intents of the socket are kept again", file_);
  }
  return true;
}

void KeptIntents::rollBack() const noexcept {
  sqlite3_exec(database_.get(), "ROLLBACK", nullptr, nullptr, nullptr);
}

// An intent may end before an older one of its key: a change counts only over lower numbers.
void KeptIntents::write() {
  execute("BEGIN IMMEDIATE");
  Statement put(*this,
                "INSERT INTO intent (place, unit, key, number, line) VALUES (?1, ?2, ?3, ?4, ?5) "
                "ON CONFLICT DO UPDATE SET number = ?4, line = ?5 WHERE number < ?4");
  Statement dropKey(
      *this, "DELETE FROM intent WHERE place = ?1 AND unit = ?2 AND key = ?3 AND number < ?4");
  Statement dropAll(*this, "DELETE FROM intent WHERE place = ?1 AND unit = ?2 AND number < ?3");
  for (const Change& change : changes_) {
    if (change.op == Common::IntentOp::removeAll) {
      dropAll.bind(1, change.place)
          .bind(2, std::uint64_t{change.unit})
          .bind(3, change.number)
          .run();
    }
    const bool stays = removes_ || change.op == Common::IntentOp::write;
    Statement& statement = stays ? put : dropKey;
    statement.bind(1, change.place)
        .bind(2, std::uint64_t{change.unit})
        .bind(3, change.key)
        .bind(4, change.number);
    if (stays) {
      statement.bind(5, change.line);
    }
    statement.run();
  }
  execute("COMMIT");
}

}  // namespace Agent
