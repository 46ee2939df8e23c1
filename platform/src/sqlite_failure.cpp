#include "sqlite_failure.h"

#include <sqlite3.h>

#include <cstring>
#include <string>

#include "db_wrappers/sqlite/database.h"

namespace db_wrappers::sqlite {
namespace {

thread_local std::string reason;  // empty: no failure since the last Clear
thread_local int code = 0;        // the extended code that reason stands for

}  // namespace

namespace failure {

void Record(sqlite3* db, int rc) noexcept {
  code = rc;
  try {
    reason = db != nullptr ? sqlite3_errmsg(db) : sqlite3_errstr(rc);
    switch (rc & 0xFF) {
      case SQLITE_BUSY:
        reason += " by another connection for longer than the busy timeout of " +
                  std::to_string(kBusyTimeoutMs) + " ms";
        break;
      case SQLITE_READONLY:
        if (db != nullptr && sqlite3_db_readonly(db, "main") == 1)
          reason +=
              ": the file is open read-only, as this process may not write it or its folder, "
              "or the disk was full when it was opened";
        break;
      case SQLITE_CANTOPEN:
      case SQLITE_IOERR:
      case SQLITE_PERM:
        // The system's reason: "Permission denied", "Read-only file system", ...
        if (int const error = db != nullptr ? sqlite3_system_errno(db) : 0; error != 0)
          reason += std::string(": ") + std::strerror(error);
        break;
      default:
        break;
    }
  } catch (...) {
    reason.clear();  // out of memory: no reason rather than a wrong one
  }
}

void Record(std::string text, int rc) noexcept {
  reason.swap(text);
  code = rc;
}

void Clear() noexcept {
  reason.clear();
  code = 0;
}

int LastCode() noexcept { return code; }

Kept::Kept() noexcept : reason_(std::move(reason)), code_(code) { reason.clear(); }

Kept::~Kept() {
  reason.swap(reason_);
  code = code_;
}

}  // namespace failure

std::string TakeFailureReason() {
  std::string taken;
  taken.swap(reason);
  return taken;
}

}  // namespace db_wrappers::sqlite
