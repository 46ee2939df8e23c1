#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "db_wrappers/sqlite/database.h"
#include "raw_setting.h"
#include "settings_db_statements.h"

namespace settings_db {

// The settings database file: table `data` holds one row per node (path text, value
// record, attribute record), table `meta` the schema version "1", and, once a manager has
// changed the file, table `changes` the log that keeps the managers sharing it coherent.
//
// Either fully built (file open, schema verified) or its constructor has thrown. Not
// thread-safe: its statements and bind holders are shared by every call, so one thread
// at a time. Statements are prepared on first use and kept for the connection's life.
// Failures throw uvc::Error with a "[SMDB] " message; nothing is logged here but the
// schema progress.
class SettingsDB {
 public:
  using RawItems = std::vector<settings_manager::impl::RawItem>;

  enum class Access {
    kReadWrite,  // opens or creates the file; a file without the schema gets it
    kReadOnly,   // opens an existing file to read it; a file without the schema is refused
  };

  // Opens the file at `path` and verifies, or (read-write, in a new file) creates, the
  // schema. An empty path throws std::runtime_error and touches nothing.
  explicit SettingsDB(std::string const& path, Access access = Access::kReadWrite);
  ~SettingsDB();
  SettingsDB(SettingsDB const&) = delete;
  SettingsDB& operator=(SettingsDB const&) = delete;

  // Path texts are those of the id rules: every identifier followed by the separator,
  // the root empty. Get, Set (first record) and Del take the rows whose text begins with
  // the given one, bytewise, so a text without its final separator ("a/b") would also
  // take the siblings that begin with it ("a/bc/").

  // The rows of the node at `path` and its descendants, in ascending byte order of path
  // text; empty when nothing is stored under `path`. Throws "Get: wrong head node" when
  // descendants are stored without the node's own row, and std::bad_variant_access when
  // a column holds another kind of value than the schema's (text path, blob records).
  RawItems Get(std::string const& path) const;

  // Get's rows one at a time, each read as it is asked for, with the same checks, failures
  // and order: for rebuilding a subtree without holding its rows. Holds the file's read
  // snapshot (and the select) until it has read the last row or ends; one at a time.
  class Reader final : public settings_manager::impl::RawSource {
   public:
    // Runs the select and checks its first row as Get does ("Get: wrong head node").
    Reader(SettingsDB const& db, std::string path);
    ~Reader() override;
    Reader(Reader const&) = delete;
    Reader& operator=(Reader const&) = delete;

    // Nothing is stored under the path.
    bool Empty() const noexcept { return empty_; }
    // `done` runs once, when the last row has been read without a failure.
    void WhenRead(std::function<void()> done) { whenRead_ = std::move(done); }

    bool Next(settings_manager::impl::RawView& row) override;
    // Counts the rows in the snapshot being read.
    std::size_t Total() override;
    std::size_t AtLeast() const noexcept override { return total_ != 0 ? total_ : handed_; }
    bool Failed() const noexcept override { return failed_; }

   private:
    bool Step();
    void Finish() noexcept;

    SettingsDB const& db_;
    std::string const path_;
    bool empty_ = true;
    bool pending_ = false;  // a row is stepped to and not yet handed out
    bool failed_ = false;
    std::size_t handed_ = 0;
    std::size_t total_ = 0;  // 0: not counted
    std::function<void()> whenRead_;
  };

  // Replaces, in one transaction, the stored subtree of the first record by `items`:
  // all rows replaced or none. Returns how many rows the old subtree had.
  int Set(RawItems const& items) const;

  // Set's replacement inside a transaction the caller has begun (a Transaction): the
  // same steps and messages, without its own begin and commit.
  int Replace(RawItems const& items) const;

  // Sets the attribute record of the row whose path text is exactly `path`; returns the
  // number of rows changed (0 or 1).
  int Upd(std::string const& path, settings_manager::impl::RawAttrib const& attrib) const;

  // Deletes the node at `path` and its descendants; returns the number of rows deleted.
  // The empty path deletes every row.
  int Del(std::string const& path) const;

  // Copies the whole file, as one committed state, to `destination` (SQLite's online
  // backup; see db_wrappers::sqlite::CopyDatabase).
  void Backup(std::string const& destination) const;

  // True unless `code` is the row-ready code: the query produced no row.
  static bool EmptySelect(int code) noexcept;

  // ---- Several managers on one file ----
  //
  // Each change a manager makes runs in one Transaction, which also records the key of
  // the subtree it changed in `changes`; the row's number is the file's new generation.
  // A manager that finds the generation moved since it last looked re-reads what the
  // log names. Edits made without a manager record nothing.

  // The write transaction of one change. Begun IMMEDIATE, so writers of every process
  // take turns; rolled back at scope end unless committed.
  class Transaction {
   public:
    // Begins. Throws "[SMDB] {what}: begin transaction" when it cannot (a lock held past
    // the busy timeout, a read-only file).
    Transaction(SettingsDB const& db, std::string_view what);
    ~Transaction();
    Transaction(Transaction const&) = delete;
    Transaction& operator=(Transaction const&) = delete;

    // Records the change of the subtree at `path` as `generation` (the file's generation,
    // read in this transaction, plus one) and commits. Throws "[SMDB] {what}: commit" when
    // the commit fails (nothing is then stored).
    void Commit(std::string const& path, std::uint64_t generation);

   private:
    SettingsDB const& db_;
    std::string_view what_;
    bool open_ = false;
  };

  // The file's generation: the number of the last change recorded; 0 when the log is
  // empty or missing (before the first change, or emptied or dropped by hand).
  std::uint64_t Generation() const;

  // The generation of the change that follows `last`. After 0 it is a random number
  // below 2^62: an emptied log must not give again a number a lagging manager holds.
  static std::uint64_t NextGeneration(std::uint64_t last);

  // The texts of the subtrees changed after generation `seen`, in ascending order and
  // without those inside another of them. Nothing when the log cannot tell: it no longer
  // reaches back to `seen`, or the file's generation is below `seen`.
  std::optional<std::vector<std::string>> ChangedSince(std::uint64_t seen) const;

  // A read of the current state, for a refresh. It takes the write lock if it comes
  // free within `patience`: holding it, no change of another process can be half
  // committed (its writes already seen by a watcher, its commit not yet visible). A
  // connection that may not write waits as long for the lock to come free, without
  // taking it. Rolled back at scope end.
  class Snapshot {
   public:
    Snapshot(SettingsDB const& db, std::chrono::microseconds patience);
    ~Snapshot();
    Snapshot(Snapshot const&) = delete;
    Snapshot& operator=(Snapshot const&) = delete;
    // False when another connection was writing: what it commits is not read here.
    bool Complete() const noexcept { return complete_; }

   private:
    SettingsDB const& db_;
    bool open_ = false;
    bool complete_ = true;
  };

  // Throws "[SMDB] Database file replaced or deleted since it was opened: '{path}'" when
  // the path no longer names the file opened. One stat(2): callers ask when a watcher saw
  // the file's name change.
  void CheckSameFile() const;

  // A connection that reads the file as it was opened, without locks and without its
  // log (a reader that may not write the file: SQLite's immutable=1), never sees a later
  // commit: opens the file again, as the constructor chose. Throws as CheckSameFile when
  // the path names another file, and as the constructor when the open fails (the old
  // connection then stays).
  void ReopenIfImmutable();

  // After a change the full disk refused (its transaction rolled back): gives the log's
  // room back for one more try. False when the failure was something else.
  bool ReclaimRoom() const noexcept { return db_->ReclaimRoom(); }

 private:
  using Query = db_wrappers::sqlite::Query;

  // A statement prepared on first use and kept; reset after every use, so that no read
  // stays open between calls.
  struct Statement {
    explicit Statement(std::string_view text) : sql(text) {}
    std::string_view sql;
    Query query{std::unique_ptr<db_wrappers::sqlite::IDatabase>()};  // unprepared
  };
  bool VerifySchema() const;
  void CreateSchema() const;
  bool TableExists(char const* name) const;
  void Record(std::string const& path, std::uint64_t generation) const;
  // The connection's data version: it moves whenever the file changed (SQLite's
  // SQLITE_FCNTL_DATA_VERSION). False when the file cannot tell.
  bool DataVersion(unsigned& version) const noexcept;
  // Remembers `generation` as the file's at the data version now.
  void KnowGeneration(std::uint64_t generation) const noexcept;
  std::uint64_t SingleNumber(Statement& statement) const;

  // Prepares `statement` unless it is, binds the arguments from position 1 and takes the
  // first step; returns the step's code (row ready or done).
  template <typename... Args>
  int Exec(Statement& statement, Args const&... args) const;
  // Prepares `sql` on `query`, binds and steps it: the statements run once per file.
  template <typename... Args>
  int Exec(Query& query, std::string_view sql, Args const&... args) const;
  // Prepares and steps a statement without parameters on a Query of its own.
  Query Exec(std::string_view sql) const;
  int Prepare(Statement& statement) const;

  // Binds every argument at positions 1, 2, 3 ... even after a failure; returns the code
  // of the last failed bind, or 0.
  template <typename... Args>
  int Bind(Query& query, Args const&... args) const;
  int BindOne(Query& query, int position, std::string const& text) const;
  int BindOne(Query& query, int position, settings_manager::impl::Bytes const& blob) const;
  int BindOne(Query& query, int position, std::int64_t number) const;

  mutable db_wrappers::sqlite::DbValue text_;  // reused to bind every text
  mutable db_wrappers::sqlite::DbValue blob_;  // reused to bind every blob
  std::unique_ptr<db_wrappers::sqlite::IDatabase> db_;
  std::string path_;
  Access access_;
  dev_t device_ = 0;  // the file opened: a path that names another one is refused
  ino_t inode_ = 0;
  // `changes` there, as last looked up or committed: looked up again whenever another
  // connection committed, since it may be dropped by hand.
  mutable bool changeLog_ = false;
  // The file's generation as last read or committed here, and the data version then.
  mutable struct {
    std::uint64_t number = 0;
    unsigned version = 0;
    bool known = false;
  } generation_;

  // Declared after db_: finalized before the connection closes.
  mutable Statement tableExists_{statements::kTableExists};
  mutable Statement selectAll_{statements::kSelectAll};
  mutable Statement selectSubtree_{statements::kSelectSubtree};
  mutable Statement countAll_{statements::kCountAll};
  mutable Statement countSubtree_{statements::kCountSubtree};
  mutable Statement deleteAll_{statements::kDeleteAll};
  mutable Statement deleteSubtree_{statements::kDeleteSubtree};
  mutable Statement insertRow_{statements::kInsertRow};
  mutable Statement updateAttrib_{statements::kUpdateAttrib};
  mutable Statement lastGeneration_{statements::kLastGeneration};
  mutable Statement firstGeneration_{statements::kFirstGeneration};
  mutable Statement changedSince_{statements::kChangedSince};
  mutable Statement insertChange_{statements::kInsertChange};
  mutable Statement pruneChanges_{statements::kPruneChanges};
};

}  // namespace settings_db
