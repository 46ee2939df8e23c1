#pragma once

// How a connection keeps its files within a small disk: the log is checkpointed often and
// cut back, the database file is grown before a commit needs it, and a statement that
// found the disk full gets the log's room back and one more try.

struct sqlite3;
struct sqlite3_stmt;

namespace db_wrappers::sqlite::space {

// The checkpoint and log-size settings, and growth of the database file in whole pages.
int Configure(sqlite3* db) noexcept;

// Grows the database file to the size the open transaction gives it, so that folding the
// log into the file later never needs room the disk may no longer have: a commit that
// would need it fails now, with nothing changed. One per connection: it keeps its query
// of the page count prepared.
class CommitReserve {
 public:
  explicit CommitReserve(sqlite3* db) noexcept : db_(db) {}
  ~CommitReserve();
  CommitReserve(CommitReserve const&) = delete;
  CommitReserve& operator=(CommitReserve const&) = delete;

  // Before a commit: SQLITE_OK, or SQLITE_FULL.
  int Reserve() noexcept;

 private:
  sqlite3* db_;
  sqlite3_stmt* pageCount_ = nullptr;
  long long pageSize_ = 0;
  long long reserved_ = 0;  // the bytes of the last reserve that succeeded
};

// Folds the whole log into the database file, so that the next transaction writes the
// log from its start, over room it already has. True when done.
bool ReclaimLog(sqlite3* db) noexcept;

// Whether `rc` says that the disk is full.
bool IsFull(int rc) noexcept;

}  // namespace db_wrappers::sqlite::space
