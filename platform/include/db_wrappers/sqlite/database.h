#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "fdn/result_codes.h"
#include "fdn/types.h"
#include "tern/rtl/timestamp.h"

struct sqlite3;
struct sqlite3_stmt;

namespace db_wrappers::sqlite {

// A value bound to a statement or read from a column.
using DbValue =
    std::variant<fdn::types::NullType, std::int8_t, std::int16_t, std::int32_t, std::int64_t,
                 double, std::string, tern::rtl::Timestamp, bool, std::vector<std::uint8_t>>;

// Alternative indices of DbValue.
namespace alt {
constexpr int kNull = 0;
constexpr int kInt8 = 1;
constexpr int kInt16 = 2;
constexpr int kInt32 = 3;
constexpr int kInt64 = 4;
constexpr int kDouble = 5;
constexpr int kText = 6;
constexpr int kTimestamp = 7;
constexpr int kBool = 8;
constexpr int kBlob = 9;
}  // namespace alt

// Codes of this wrapper. Its statuses and failures live in facility 0x2111: a failure is
// 0xA111 in the high half and SQLite's extended result code in the low half, so the
// SQLite code is recoverable with SqliteCode().
constexpr int kFacility = 0x2111;
constexpr int kRowReady = fdn::MakeCode(0x21110001u);  // Next(): a row is ready
constexpr int kDone = 0;                               // Next(): the statement is done

constexpr int MakeError(int sqliteCode) noexcept {
  return fdn::MakeCode(0xA1110000u | (static_cast<std::uint32_t>(sqliteCode) & 0xFFFFu));
}
constexpr bool IsWrapperError(int code) noexcept {
  return (static_cast<std::uint32_t>(code) & 0xFFFF0000u) == 0xA1110000u;
}
constexpr int SqliteCode(int code) noexcept {
  return static_cast<int>(static_cast<std::uint32_t>(code) & 0xFFFFu);
}

// How long a connection waits for another connection's lock before it fails with
// SQLITE_BUSY ("database is locked").
constexpr int kBusyTimeoutMs = 5000;

// The bound on the write-ahead log (<file>-wal): a commit that leaves the log holding
// kCheckpointPages pages or more folds it into the database file, and the next write
// starts the log over, cutting the file back to kLogLimitBytes. So the log stays within
// kLogLimitBytes plus the pages of one transaction, and on a 4 KiB page the three files
// need about the database's size plus 80 KiB of log and 32 KiB of index (<file>-shm).
// The cut-back size is what a cycle of small changes (up to 4 pages each) makes the log
// reach anyway, 16 to 19 pages with their headers: cut back below that, every cycle would
// truncate the file and grow it again, a journaled metadata change of the file system
// each time (about one fsync more per cycle).
constexpr int kCheckpointPages = 16;
constexpr int kLogLimitBytes = 80 * 1024;
// The database file grows in steps of this size, reserved before a commit (so that
// folding the log in never needs room the disk may no longer have).
constexpr int kFileChunkBytes = 4096;

// SQLite's own words for the last failure of a wrapper call on this thread ("database or
// disk is full", "database is locked by another connection for longer than ...",
// "unable to open database file: Permission denied"), and forgets them; empty when no
// call failed since the last Open or the last Query made. Callers that turn a failure
// into an error of their own take it to say why.
std::string TakeFailureReason();

class Query;
class SqliteDatabase;

// One open connection. Begin, Commit and Rollback each return the Query that ran the
// statement: its Statement() is non-null on success and null on failure.
class IDatabase {
 public:
  virtual ~IDatabase() = default;

  virtual Query Begin() = 0;
  virtual Query Commit() = 0;
  virtual Query Rollback() = 0;

  // After a change that the full disk refused and that has been rolled back: folds the
  // log into the file, so that the next transaction writes over room the log already
  // has. True when it did; false when the last failure was not a full disk.
  virtual bool ReclaimRoom() noexcept = 0;

  // SQLite's text for the connection's last error.
  virtual std::string LastError() const = 0;

  // The raw connection that queries run on; owned by the IDatabase.
  virtual sqlite3* Handle() const noexcept = 0;
};

// Opens database files. The connection it makes is configured for this store; see
// Wrapper::Open in the source for the settings and the reasons.
class Wrapper {
 public:
  virtual ~Wrapper() = default;

  // Opens (creating when missing) the database at `path`. On success fills `out` and
  // returns 0; on failure leaves `out` empty and returns a negative code.
  virtual int Open(std::string const& path, std::unique_ptr<IDatabase>& out);

  // Opens the existing database at `path` for reading: never creates the file (a missing
  // one fails with SQLITE_CANTOPEN) nor sets its encoding, journal mode or log bound. The
  // connection may write when this process may write the file, only so that, as the last
  // one to close, it removes the WAL files as every connection of the store does;
  // otherwise it is opened read-only as Open would. Same result convention.
  virtual int OpenExisting(std::string const& path, std::unique_ptr<IDatabase>& out);
};

// One prepared statement on a connection. Codes: 0 or a status on success, a negative
// code (MakeError) on failure. Not copyable; the statement is finalized on destruction.
class Query {
 public:
  explicit Query(std::unique_ptr<IDatabase> const& db) noexcept;
  Query(Query&& other) noexcept;
  Query& operator=(Query&& other) noexcept;
  Query(Query const&) = delete;
  Query& operator=(Query const&) = delete;
  ~Query();

  // Compiles `sql`, replacing any statement held before.
  int Prepare(std::string_view sql);

  // Binds `value` at `position`, counted from 1. Texts and blobs are copied by SQLite.
  int Bind(int position, DbValue const& value);

  // Steps the statement: kRowReady when a row is ready, kDone when finished.
  int Next();

  // The column's value as the given alternative when the column holds that kind of
  // value (integers for the integer alternatives, bool and timestamp; a real for double;
  // text for string; a blob for the byte vector). A column of another kind comes back as
  // what it holds (NullType, int64, double, string or byte vector), so that asking the
  // result for the expected alternative throws std::bad_variant_access.
  DbValue Value(int column, int alternative) const;

  // Rows changed by the connection's last INSERT, UPDATE or DELETE.
  int GetChangesCount() const noexcept;

  // Resets the statement so that it can be stepped again; bindings stay.
  int Flush() noexcept;

  int ClearBindings() noexcept;

  sqlite3_stmt* Statement() const noexcept { return statement_; }

 private:
  // The connection builds the Queries of Begin, Commit and Rollback from its own handle:
  // it has no unique_ptr to itself to pass to the public constructor. Those statements
  // are the connection's, kept prepared: such a Query shows one and never finalizes it.
  friend class SqliteDatabase;
  explicit Query(sqlite3* connection) noexcept : connection_(connection) {}
  Query(sqlite3* connection, sqlite3_stmt* lent) noexcept
      : connection_(connection), statement_(lent), owned_(false) {}
  void Release() noexcept;

  sqlite3* connection_ = nullptr;
  sqlite3_stmt* statement_ = nullptr;
  bool owned_ = true;
};

}  // namespace db_wrappers::sqlite
