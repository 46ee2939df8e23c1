// The change log of the managers that share one file, and the transactions that keep it.

#include <sqlite3.h>
#include <sys/stat.h>

#include <fmt/format.h>

#include <algorithm>
#include <random>
#include <thread>

#include "settings_db.h"
#include "settings_db_exec.h"
#include "wal_write_lock.h"

namespace settings_db {

namespace sqlite = db_wrappers::sqlite;
namespace stmt = statements;

namespace {

// Enough for a manager that missed a few changes to take in only what they touched; one
// that missed more reloads everything.
constexpr std::uint64_t kKeptChanges = 1024;
constexpr std::uint64_t kPruneEvery = 256;
// Room above a first generation for more changes than a file will ever see.
constexpr std::uint64_t kGenerationBits = (std::uint64_t{1} << 62) - 1;

// A busy handler that retries in short steps until the deadline it is given.
int RetryUntil(void* deadline, int) {
  if (std::chrono::steady_clock::now() >=
      *static_cast<std::chrono::steady_clock::time_point*>(deadline))
    return 0;
  std::this_thread::sleep_for(std::chrono::microseconds(50));
  return 1;
}

bool StartsWith(std::string const& text, std::string const& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

}  // namespace

SettingsDB::Transaction::Transaction(SettingsDB const& db, std::string_view what)
    : db_(db), what_(what) {
  open_ = db.db_->Begin().Statement() != nullptr;
  Check(open_, fmt::format("{}: begin transaction", what_));
}

SettingsDB::Transaction::~Transaction() {
  if (!open_) return;
  try {
    db_.db_->Rollback();
  } catch (...) {
    // A failed roll-back ends the transaction too; a destructor reports nothing.
  }
}

void SettingsDB::Transaction::Commit(std::string const& path, std::uint64_t generation) {
  db_.Record(path, generation);
  // A failed commit leaves the transaction open: the destructor rolls it back.
  Check(db_.db_->Commit().Statement() != nullptr, fmt::format("{}: commit", what_));
  open_ = false;
  db_.changeLog_ = true;  // not before: a rolled-back change takes the table it made with it
  db_.KnowGeneration(generation);
}

SettingsDB::Snapshot::Snapshot(SettingsDB const& db, std::chrono::microseconds patience) : db_(db) {
  sqlite3* const handle = db.db_->Handle();
  auto deadline = std::chrono::steady_clock::now() + patience;
  if (sqlite3_db_readonly(handle, "main") == 1) {
    // A reader of a read-only file cannot take the write lock; it waits as long for the
    // writer to let go of it, since the writes that woke the watcher come before the
    // commit is visible.
    while (WalWriteLockHeld(db.path_)) {
      if (!RetryUntil(&deadline, 0)) {
        complete_ = false;
        return;
      }
    }
    return;
  }
  // Not the connection's long wait: a writer may hold the lock long (a whole table
  // rewritten). Without the lock the reads see what is committed.
  sqlite3_busy_handler(handle, &RetryUntil, &deadline);
  open_ = db.db_->Begin().Statement() != nullptr;
  int const code = sqlite3_errcode(handle);
  sqlite3_busy_timeout(handle, sqlite::kBusyTimeoutMs);
  complete_ = open_;
  Check(open_ || code == SQLITE_BUSY, "Refresh: begin transaction");
}

SettingsDB::Snapshot::~Snapshot() {
  if (!open_) return;
  try {
    db_.db_->Rollback();
  } catch (...) {
  }
}

void SettingsDB::CheckSameFile() const {
  if (inode_ == 0) return;  // not a file of its own (":memory:")
  struct stat file {};
  bool const same =
      ::stat(path_.c_str(), &file) == 0 && file.st_dev == device_ && file.st_ino == inode_;
  Check(same, "Database file replaced or deleted since it was opened", path_);
}

std::uint64_t SettingsDB::SingleNumber(Statement& statement) const {
  Using reset(statement.query);
  if (EmptySelect(Exec(statement))) return 0;
  auto const value = statement.query.Value(0, sqlite::alt::kInt64);
  auto const* number = std::get_if<sqlite::alt::kInt64>(&value);
  return number != nullptr && *number > 0 ? static_cast<std::uint64_t>(*number) : 0;  // NULL: none
}

bool SettingsDB::DataVersion(unsigned& version) const noexcept {
  return sqlite3_file_control(db_->Handle(), "main", SQLITE_FCNTL_DATA_VERSION, &version) ==
         SQLITE_OK;
}

void SettingsDB::KnowGeneration(std::uint64_t generation) const noexcept {
  generation_.known = DataVersion(generation_.version);
  generation_.number = generation;
}

std::uint64_t SettingsDB::Generation() const {
  // Inside a transaction the file's data version moves when another connection committed
  // since it was read: while it stands still the generation is the one known. (Outside,
  // the version is that of the last transaction, not of the file now.)
  bool const inTransaction = sqlite3_get_autocommit(db_->Handle()) == 0;
  unsigned version = 0;
  if (inTransaction && generation_.known && DataVersion(version) && version == generation_.version)
    return generation_.number;
  // Looked up again: another connection may have dropped the table by hand.
  changeLog_ = TableExists(stmt::kChangeLog);
  auto const generation = changeLog_ ? SingleNumber(lastGeneration_) : 0;
  if (inTransaction) KnowGeneration(generation);
  return generation;
}

std::uint64_t SettingsDB::NextGeneration(std::uint64_t last) {
  if (last != 0) return last + 1;
  // Counting from 1 again, a manager that last saw generation N would find N once more
  // after N changes, and take none of them in. No manager holds a random number.
  std::random_device random;
  std::uint64_t const bits = (std::uint64_t{random()} << 32) ^ random();
  return std::max<std::uint64_t>(bits & kGenerationBits, 1);
}

std::optional<std::vector<std::string>> SettingsDB::ChangedSince(std::uint64_t seen) const {
  auto const last = Generation();
  if (last < seen) return std::nullopt;  // the log was emptied or the file replaced
  std::vector<std::string> paths;
  if (last == seen) return paths;
  if (SingleNumber(firstGeneration_) > seen + 1) return std::nullopt;  // pruned
  Using reset(changedSince_.query);
  for (int step = Exec(changedSince_, static_cast<std::int64_t>(seen)); step == sqlite::kRowReady;
       step = changedSince_.query.Next()) {
    auto path = std::get<sqlite::alt::kText>(changedSince_.query.Value(0, sqlite::alt::kText));
    // In byte order a subtree's own changes follow it at once.
    if (!paths.empty() && StartsWith(path, paths.back())) continue;
    paths.push_back(std::move(path));
  }
  return paths;
}

void SettingsDB::Record(std::string const& path, std::uint64_t generation) const {
  if (!changeLog_) {
    // Made again, as it was, when dropped by hand.
    Query create(db_);
    Exec(create, stmt::kCreateChangeLog);
  }
  {
    // The number is given, not made by SQLite: no second statement to learn it.
    Using reset(insertChange_.query);
    Exec(insertChange_, static_cast<std::int64_t>(generation), path);
  }
  if (generation % kPruneEvery == 0 && generation > kKeptChanges) {
    Using reset(pruneChanges_.query);
    Exec(pruneChanges_, static_cast<std::int64_t>(generation - kKeptChanges));
  }
}

}  // namespace settings_db
