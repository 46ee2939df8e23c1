#pragma once

// How a file is opened: read-write when this process may change it, read-only otherwise,
// never leaving behind files that would keep the file's owner from writing.

#include <string>

struct sqlite3;

namespace db_wrappers::sqlite::open {

enum class Mode {
  kChoose,    // read-write when possible
  kReadOnly,  // read-only whatever the permissions
  kExisting,  // as kChoose, but a missing file is refused instead of created
};

// Opens `path`. Read-write, creating the file when missing, when `mode` allows it and this
// process may write the file and make its log and index beside it (or they are there).
// Otherwise read-only, making nothing beside the file:
// - a file in rollback-journal format, or one whose log and index are both there, is
//   opened read-only and read through them as they are;
// - a file in WAL format whose log is missing or empty is read as it stands, without
//   locks (SQLite's immutable mode), since a read-only open would create the log and its
//   index owned by this process, and its owner could then no longer write;
// - a file whose log holds changes but whose index is gone is refused (SQLITE_CANTOPEN):
//   only a process that may write the file can recover them.
// Returns SQLite's extended code. `db` is set, also on failure (for its error text), unless
// the open was refused before a connection was made; a refusal remembers its reason.
int Open(std::string const& path, Mode mode, sqlite3*& db) noexcept;

// Whether `path` names a file that holds something.
bool HasContent(std::string const& path) noexcept;

}  // namespace db_wrappers::sqlite::open
