#include "db_wrappers/sqlite/backup.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "sqlite_failure.h"

namespace db_wrappers::sqlite {
namespace {

// A busy source (a writer in rollback-journal mode holds it) is retried this often.
constexpr int kBusyRetries = 50;
constexpr int kBusyPauseMs = 100;

struct CloseConnection {
  void operator()(sqlite3* db) const noexcept { sqlite3_close_v2(db); }
};
using Connection = std::unique_ptr<sqlite3, CloseConnection>;

std::string FolderOf(std::string const& file) {
  auto const slash = file.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? std::string("/") : file.substr(0, slash);
}

// Remembers the system's reason for a failed step on `file`; returns `rc`.
int SystemFailure(char const* step, std::string const& file, int rc) noexcept {
  try {
    failure::Record(std::string(step) + " '" + file + "': " + std::strerror(errno), rc);
  } catch (...) {
  }
  return rc;
}

// Makes the rename durable: without it a power cut may bring back the old directory entry.
int SyncFolder(std::string const& file) noexcept {
  auto const folder = FolderOf(file);
  int const fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return MakeError(SystemFailure("cannot open", folder, SQLITE_IOERR_DIR_FSYNC));
  int const synced = ::fsync(fd);
  if (synced != 0) SystemFailure("cannot sync", folder, SQLITE_IOERR_DIR_FSYNC);
  ::close(fd);
  return synced == 0 ? 0 : MakeError(SQLITE_IOERR_DIR_FSYNC);
}

// Remembers SQLite's reason for `rc`, a failure on `db`; returns it.
int Failed(sqlite3* db, int rc) noexcept {
  failure::Record(db, rc);
  return rc;
}

// Copies every page of `source` into the new file `partial`; SQLITE_OK or the failure,
// its reason remembered.
int CopyPages(sqlite3* source, std::string const& partial) noexcept {
  // Made here, not by SQLite, for the system's own reason when it cannot be: SQLite's
  // read-only retry would report that of its second attempt.
  int const fd = ::open(partial.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return SystemFailure("cannot create the copy", partial, SQLITE_CANTOPEN);
  ::close(fd);
  sqlite3* raw = nullptr;
  int rc =
      sqlite3_open_v2(partial.c_str(), &raw,
                      SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
  Connection target(raw);
  if (raw == nullptr) return SQLITE_NOMEM;
  sqlite3_extended_result_codes(raw, 1);
  if (rc != SQLITE_OK) {
    errno = sqlite3_system_errno(raw);
    return SystemFailure("cannot create the copy", partial, sqlite3_extended_errcode(raw));
  }
  // FULL: the copy is on disk when its transaction commits, before the rename.
  if (sqlite3_exec(raw, "PRAGMA synchronous=FULL", nullptr, nullptr, nullptr) != SQLITE_OK)
    return Failed(raw, sqlite3_extended_errcode(raw));

  sqlite3_backup* backup = sqlite3_backup_init(raw, "main", source, "main");
  if (backup == nullptr) return Failed(raw, sqlite3_extended_errcode(raw));
  // -1: all pages in one step, so the copy is taken inside one read transaction.
  for (int attempt = 0;; ++attempt) {
    rc = sqlite3_backup_step(backup, -1);
    bool const busy = rc == SQLITE_BUSY || rc == SQLITE_LOCKED;
    if (!busy || attempt == kBusyRetries) break;
    sqlite3_sleep(kBusyPauseMs);
  }
  int const finished = sqlite3_backup_finish(backup);
  // The step's failure stays on the destination once the backup is finished.
  if (rc != SQLITE_DONE) return Failed(raw, rc);
  if (finished != SQLITE_OK) return Failed(raw, sqlite3_extended_errcode(raw));
  return sqlite3_close(target.release());
}

}  // namespace

int CopyDatabase(IDatabase const& source, std::string const& destination) {
  failure::Clear();
  std::string const partial = destination + ".partial";
  // A copy left behind by an earlier, interrupted run is no use to anyone.
  std::remove(partial.c_str());
  std::remove((partial + "-journal").c_str());
  int rc = CopyPages(source.Handle(), partial);
  if (rc == SQLITE_OK && std::rename(partial.c_str(), destination.c_str()) != 0)
    rc = SystemFailure("cannot rename the copy to", destination, SQLITE_IOERR);
  if (rc != SQLITE_OK) {
    std::remove(partial.c_str());
    std::remove((partial + "-journal").c_str());
    return MakeError(rc);
  }
  return SyncFolder(destination);
}

}  // namespace db_wrappers::sqlite
