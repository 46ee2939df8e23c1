#include "sqlite_space.h"

#include <sqlite3.h>

#include <string>

#include "db_wrappers/sqlite/database.h"

namespace db_wrappers::sqlite::space {
namespace {

int Exec(sqlite3* db, std::string const& sql) noexcept {
  return sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr);
}

}  // namespace

int Configure(sqlite3* db) noexcept {
  // SQLite's defaults let the log reach 1000 pages and never shrink it again.
  if (int rc = Exec(db, "PRAGMA wal_autocheckpoint=" + std::to_string(kCheckpointPages));
      rc != SQLITE_OK)
    return rc;
  if (int rc = Exec(db, "PRAGMA journal_size_limit=" + std::to_string(kLogLimitBytes));
      rc != SQLITE_OK)
    return rc;
  // With a chunk size, a size hint allocates the blocks for real (CommitReserve).
  int chunk = kFileChunkBytes;
  int const rc = sqlite3_file_control(db, "main", SQLITE_FCNTL_CHUNK_SIZE, &chunk);
  return rc == SQLITE_NOTFOUND ? SQLITE_OK : rc;  // a database in memory has no file
}

CommitReserve::~CommitReserve() { sqlite3_finalize(pageCount_); }

int CommitReserve::Reserve() noexcept {
  if (pageSize_ == 0) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db_, "PRAGMA page_size", -1, &statement, nullptr) == SQLITE_OK &&
        sqlite3_step(statement) == SQLITE_ROW)
      pageSize_ = sqlite3_column_int64(statement, 0);
    sqlite3_finalize(statement);
    if (sqlite3_prepare_v2(db_, "PRAGMA page_count", -1, &pageCount_, nullptr) != SQLITE_OK)
      pageCount_ = nullptr;
  }
  sqlite3_int64 bytes = 0;
  if (pageCount_ != nullptr && sqlite3_step(pageCount_) == SQLITE_ROW)
    bytes = sqlite3_column_int64(pageCount_, 0) * pageSize_;
  sqlite3_reset(pageCount_);
  if (bytes == 0) return SQLITE_OK;  // nothing to reserve
  // The file still holds what the last commit reserved unless the database shrank since
  // (auto-vacuum, VACUUM), which moves the page count: the same count needs no new
  // reserve, which would cost a system call (fstat) in every commit.
  if (bytes == reserved_) return SQLITE_OK;
  int const rc = sqlite3_file_control(db_, "main", SQLITE_FCNTL_SIZE_HINT, &bytes);
  if (rc != SQLITE_OK && rc != SQLITE_NOTFOUND) return SQLITE_FULL;
  reserved_ = bytes;
  return SQLITE_OK;
}

bool ReclaimLog(sqlite3* db) noexcept {
  // RESTART rather than TRUNCATE: the log file keeps its size, room that the next
  // transaction writes over, and that nothing else on the disk can take in between.
  return sqlite3_wal_checkpoint_v2(db, "main", SQLITE_CHECKPOINT_RESTART, nullptr, nullptr) ==
         SQLITE_OK;
}

bool IsFull(int rc) noexcept { return (rc & 0xFF) == SQLITE_FULL; }

}  // namespace db_wrappers::sqlite::space
