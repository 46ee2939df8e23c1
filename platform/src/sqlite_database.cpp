#include "db_wrappers/sqlite/database.h"

#include <sqlite3.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "sqlite_failure.h"
#include "sqlite_like.h"
#include "sqlite_open.h"
#include "sqlite_space.h"

namespace db_wrappers::sqlite {

// The concrete connection. Named (not anonymous) because Query befriends it.
class SqliteDatabase final : public IDatabase {
 public:
  explicit SqliteDatabase(sqlite3* handle) noexcept : handle_(handle) {}
  SqliteDatabase(SqliteDatabase const&) = delete;
  SqliteDatabase& operator=(SqliteDatabase const&) = delete;

  // close_v2: a Query that outlives its connection still finalizes safely; the handle is
  // freed with the last statement.
  ~SqliteDatabase() override {
    for (sqlite3_stmt* statement : {begin_, commit_, rollback_}) sqlite3_finalize(statement);
    sqlite3_close_v2(handle_);
  }

  // IMMEDIATE takes the write lock at once: two writers that each began deferred could
  // both hold read locks and then deadlock upgrading.
  Query Begin() override { return Run(begin_, "BEGIN IMMEDIATE"); }
  Query Commit() override {
    failure::Clear();
    if (int rc = reserve_.Reserve(); rc != SQLITE_OK) {
      failure::Record(sqlite3_errstr(rc), rc);
      return Query(handle_);
    }
    Query committed = Run(commit_, "COMMIT");
    // A commit the full disk refused is rolled back; the log's room is for the next try.
    if (committed.Statement() == nullptr && space::IsFull(sqlite3_extended_errcode(handle_)) &&
        sqlite3_get_autocommit(handle_) != 0)
      space::ReclaimLog(handle_);
    return committed;
  }
  // The reason of the failure that led to it stays the one remembered.
  Query Rollback() override {
    failure::Kept const kept;
    return Run(rollback_, "ROLLBACK", false);
  }

  bool ReclaimRoom() noexcept override {
    return space::IsFull(failure::LastCode()) && sqlite3_get_autocommit(handle_) != 0 &&
           space::ReclaimLog(handle_);
  }

  std::string LastError() const override { return sqlite3_errmsg(handle_); }
  sqlite3* Handle() const noexcept override { return handle_; }

 private:
  // Runs one of the transaction statements, prepared on first use and kept (every change
  // runs two of them). A failed statement comes back as an empty Query: Statement() is
  // null. Reset at once, so that none stays active.
  Query Run(sqlite3_stmt*& statement, char const* sql, bool newStep = true) {
    if (newStep) failure::Clear();
    int rc = statement != nullptr ? SQLITE_OK
                                  : sqlite3_prepare_v2(handle_, sql, -1, &statement, nullptr);
    if (rc == SQLITE_OK) rc = sqlite3_step(statement);
    if (rc != SQLITE_DONE) {
      failure::Record(handle_, rc);
      if (statement != nullptr) sqlite3_reset(statement);
      return Query(handle_);
    }
    sqlite3_reset(statement);
    return Query(handle_, statement);
  }

  sqlite3* handle_;
  sqlite3_stmt* begin_ = nullptr;
  sqlite3_stmt* commit_ = nullptr;
  sqlite3_stmt* rollback_ = nullptr;
  space::CommitReserve reserve_{handle_};  // finalized after the close: close_v2 waits
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

// Switches a new, empty file to WAL. Another connection making the same file at the same
// moment may hold its lock, and then the switch fails at once with SQLITE_BUSY (SQLite
// does not wait there): it is tried again until that connection has made the file (which
// then keeps the mode it was given) or the busy timeout has passed.
int SwitchNewFileToWal(sqlite3* db) noexcept {
  auto const deadline =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(kBusyTimeoutMs);
  for (;;) {
    int const rc = Exec(db, "PRAGMA journal_mode=WAL");
    if ((rc & 0xFF) != SQLITE_BUSY || std::chrono::steady_clock::now() >= deadline) return rc;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    int pages = 0;
    if (int const counted = PageCount(db, pages); counted != SQLITE_OK) return counted;
    if (pages != 0) return SQLITE_OK;
  }
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
int Configure(sqlite3* db, bool readOnly) noexcept {
  // Waits for another connection's lock (also during the pragmas below) instead of
  // failing at once with SQLITE_BUSY.
  sqlite3_busy_timeout(db, kBusyTimeoutMs);
  // WAL: a commit costs one fsync of the log, not of the database and a rollback journal.
  // Only a new file is switched: an existing one keeps its mode, so that opening never
  // rewrites a file that may yet be refused. A ":memory:" database cannot use WAL; we
  // accept the mode SQLite reports.
  int pages = 0;
  if (int rc = PageCount(db, pages); rc != SQLITE_OK) return rc;
  if (pages == 0 && !readOnly) {
    // Text goes in and out as UTF-8 bytes; a file of another encoding would convert it.
    if (int rc = Exec(db, "PRAGMA encoding='UTF-8'"); rc != SQLITE_OK) return rc;
    if (int rc = SwitchNewFileToWal(db); rc != SQLITE_OK) return rc;
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
  if (!readOnly)
    if (int rc = space::Configure(db); rc != SQLITE_OK) return rc;
  return like::Register(db);
}

// Opens `path` as `mode` allows and configures the connection.
int OpenAndConfigure(std::string const& path, open::Mode mode, sqlite3*& db) noexcept {
  int const rc = open::Open(path, mode, db);
  if (db == nullptr) return rc == SQLITE_OK ? SQLITE_NOMEM : rc;
  // Extended codes tell e.g. a UNIQUE violation from other constraint failures.
  sqlite3_extended_result_codes(db, 1);
  if (rc != SQLITE_OK) return sqlite3_extended_errcode(db);
  // A reader of an existing file sets nothing that would write it.
  return Configure(db, mode == open::Mode::kExisting || sqlite3_db_readonly(db, "main") == 1);
}

// Whether opening failed for want of room, as making the log or its index on a full disk.
bool NoRoom(sqlite3* db, int rc) noexcept {
  return space::IsFull(rc) ||
         ((rc & 0xFF) == SQLITE_IOERR && db != nullptr && sqlite3_system_errno(db) == ENOSPC);
}

}  // namespace

int Wrapper::OpenExisting(std::string const& path, std::unique_ptr<IDatabase>& out) {
  failure::Clear();
  sqlite3* db = nullptr;
  int const rc = OpenAndConfigure(path, open::Mode::kExisting, db);
  if (rc != SQLITE_OK) {
    if (db != nullptr) failure::Record(db, rc);
    sqlite3_close_v2(db);
    return MakeError(rc);
  }
  out = std::make_unique<SqliteDatabase>(db);
  return 0;
}

int Wrapper::Open(std::string const& path, std::unique_ptr<IDatabase>& out) {
  failure::Clear();
  sqlite3* db = nullptr;
  int rc = OpenAndConfigure(path, open::Mode::kChoose, db);
  if (rc != SQLITE_OK && NoRoom(db, rc) && open::HasContent(path)) {
    // A full disk still lets what is stored be read.
    sqlite3_close_v2(db);
    db = nullptr;
    rc = OpenAndConfigure(path, open::Mode::kReadOnly, db);
  }
  if (rc != SQLITE_OK) {
    if (db != nullptr) failure::Record(db, rc);
    sqlite3_close_v2(db);
    return MakeError(rc);
  }
  out = std::make_unique<SqliteDatabase>(db);
  return 0;
}

}  // namespace db_wrappers::sqlite
