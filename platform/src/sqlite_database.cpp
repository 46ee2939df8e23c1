#include "db_wrappers/sqlite/database.h"

#include <sqlite3.h>

#include <cstring>

#include "sqlite_like.h"

namespace db_wrappers::sqlite {

// The concrete connection. Named (not anonymous) because Query befriends it.
class SqliteDatabase final : public IDatabase {
 public:
  explicit SqliteDatabase(sqlite3* handle) noexcept : handle_(handle) {}
  SqliteDatabase(SqliteDatabase const&) = delete;
  SqliteDatabase& operator=(SqliteDatabase const&) = delete;

  // close_v2: a Query that outlives its connection still finalizes safely; the handle is
  // freed with the last statement.
  ~SqliteDatabase() override { sqlite3_close_v2(handle_); }

  // IMMEDIATE takes the write lock at once: two writers that each began deferred could
  // both hold read locks and then deadlock upgrading.
  Query Begin() override { return Run("BEGIN IMMEDIATE"); }
  Query Commit() override { return Run("COMMIT"); }
  Query Rollback() override { return Run("ROLLBACK"); }

  std::string LastError() const override { return sqlite3_errmsg(handle_); }
  sqlite3* Handle() const noexcept override { return handle_; }

 private:
  // A failed statement comes back as an empty Query: Statement() is null.
  Query Run(char const* sql) {
    Query query(handle_);
    if (fdn::Failed(query.Prepare(sql)) || fdn::Failed(query.Next())) return Query(handle_);
    return query;
  }

  sqlite3* handle_;
};

namespace {

int Exec(sqlite3* db, char const* sql) noexcept {
  return sqlite3_exec(db, sql, nullptr, nullptr, nullptr);
}

// The file's size in pages; 0 for a file that does not exist yet or is empty.
int PageCount(sqlite3* db, int& pages) noexcept {
  sqlite3_stmt* statement = nullptr;
  int rc = sqlite3_prepare_v2(db, "PRAGMA page_count", -1, &statement, nullptr);
  if (rc == SQLITE_OK && sqlite3_step(statement) == SQLITE_ROW)
    pages = sqlite3_column_int(statement, 0);
  else
    rc = sqlite3_extended_errcode(db);
  sqlite3_finalize(statement);
  return rc;
}

// Whether the connection commits by unlinking a rollback journal (journal_mode=DELETE).
int DeletesJournal(sqlite3* db, bool& deletes) noexcept {
  sqlite3_stmt* statement = nullptr;
  int rc = sqlite3_prepare_v2(db, "PRAGMA journal_mode", -1, &statement, nullptr);
  if (rc == SQLITE_OK && sqlite3_step(statement) == SQLITE_ROW) {
    auto const* mode = reinterpret_cast<char const*>(sqlite3_column_text(statement, 0));
    deletes = mode != nullptr && std::strcmp(mode, "delete") == 0;
  } else {
    rc = sqlite3_extended_errcode(db);
  }
  sqlite3_finalize(statement);
  return rc;
}

// Everything after the open call itself; SQLITE_OK or the extended code of the failure.
int Configure(sqlite3* db) noexcept {
  // Waits for another connection's lock (also during the pragmas below) instead of
  // failing at once with SQLITE_BUSY.
  sqlite3_busy_timeout(db, kBusyTimeoutMs);
  // WAL: a commit costs one fsync of the log, not of the database and a rollback journal.
  // Only a new file is switched: an existing one keeps its mode, so that opening never
  // rewrites a file that may yet be refused. A ":memory:" database cannot use WAL; we
  // accept the mode SQLite reports.
  int pages = 0;
  if (int rc = PageCount(db, pages); rc != SQLITE_OK) return rc;
  if (pages == 0) {
    if (int rc = Exec(db, "PRAGMA journal_mode=WAL"); rc != SQLITE_OK) return rc;
  }
  // FULL: in WAL mode a commit that returned survives a power cut (NORMAL may lose it),
  // for one fsync of the log. A file that keeps a DELETE-mode rollback journal commits
  // by unlinking the journal, and only a directory sync makes the unlink durable: without
  // it a power cut can bring the journal back and roll the commit back on restart. EXTRA
  // adds that sync; the power-cut tests of tests/reliability show both.
  bool deletesJournal = false;
  if (int rc = DeletesJournal(db, deletesJournal); rc != SQLITE_OK) return rc;
  char const* const sync = deletesJournal ? "PRAGMA synchronous=EXTRA" : "PRAGMA synchronous=FULL";
  if (int rc = Exec(db, sync); rc != SQLITE_OK) return rc;
  return like::Register(db);
}

}  // namespace

int Wrapper::Open(std::string const& path, std::unique_ptr<IDatabase>& out) {
  sqlite3* db = nullptr;
  // NOMUTEX: the library serialises every call on a connection under its own lock, so
  // SQLite's per-connection mutex would only cost time.
  int rc = sqlite3_open_v2(path.c_str(), &db,
                           SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                           nullptr);
  if (db == nullptr) return MakeError(SQLITE_NOMEM);
  // Extended codes tell e.g. a UNIQUE violation from other constraint failures.
  sqlite3_extended_result_codes(db, 1);
  rc = rc == SQLITE_OK ? Configure(db) : sqlite3_extended_errcode(db);
  if (rc != SQLITE_OK) {
    sqlite3_close_v2(db);
    return MakeError(rc);
  }
  out = std::make_unique<SqliteDatabase>(db);
  return 0;
}

}  // namespace db_wrappers::sqlite
