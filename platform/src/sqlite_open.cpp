#include "sqlite_open.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "sqlite_failure.h"

namespace db_wrappers::sqlite::open {
namespace {

constexpr int kHeaderSize = 100;
constexpr int kWriteVersionOffset = 18;  // 1: rollback journal, 2: WAL

// The size of the file at `path`, or -1 when there is none.
long long Size(std::string const& path) noexcept {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 ? static_cast<long long>(status.st_size) : -1;
}

bool MayWrite(std::string const& path, int mode = W_OK) noexcept {
  return ::faccessat(AT_FDCWD, path.c_str(), mode, AT_EACCESS) == 0;
}

std::string Folder(std::string const& path) {
  auto const slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

// The file as a URI that opens it read-only, without locks and without a log.
std::string ImmutableUri(std::string const& path) {
  std::string uri = "file:";
  for (unsigned char const c : path) {
    if (std::strchr("/-._~", c) != nullptr || (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') ||
        (c >= 'A' && c <= 'Z')) {
      uri += static_cast<char>(c);
    } else {
      char escaped[4];
      std::snprintf(escaped, sizeof escaped, "%%%02X", c);
      uri += escaped;
    }
  }
  return uri + "?immutable=1";
}

// Whether the open file is in WAL format, read from its header through SQLite's own file
// handle: opening the file a second time and closing it would drop the locks that other
// connections of this process hold on it.
bool WalFormat(sqlite3* db) noexcept {
  sqlite3_file* file = nullptr;
  if (sqlite3_file_control(db, "main", SQLITE_FCNTL_FILE_POINTER, &file) != SQLITE_OK ||
      file == nullptr || file->pMethods == nullptr)
    return false;
  unsigned char header[kHeaderSize] = {};
  if (file->pMethods->xRead(file, header, kHeaderSize, 0) != SQLITE_OK) return false;
  return header[kWriteVersionOffset] == 2;
}

int OpenWith(std::string const& name, int flags, sqlite3*& db) noexcept {
  // NOMUTEX: the library serialises every call on a connection under its own lock, so
  // SQLite's per-connection mutex would only cost time.
  return sqlite3_open_v2(name.c_str(), &db, flags | SQLITE_OPEN_NOMUTEX, nullptr);
}

}  // namespace

bool HasContent(std::string const& path) noexcept { return Size(path) > 0; }

int Open(std::string const& path, Mode mode, sqlite3*& db) noexcept {
  try {
    auto const log = Size(path + "-wal");
    bool const index = Size(path + "-shm") >= 0;
    bool const companions = log >= 0 && index;
    bool const exists = Size(path) >= 0;
    if (!exists && mode == Mode::kExisting) {
      failure::Record("no such file: " + path);
      return SQLITE_CANTOPEN;
    }
    if (mode != Mode::kReadOnly &&
        (!exists || (MayWrite(path) && (companions || MayWrite(Folder(path), W_OK | X_OK)))))
      return OpenWith(path,
                      SQLITE_OPEN_READWRITE | (mode == Mode::kChoose ? SQLITE_OPEN_CREATE : 0), db);

    int const rc = OpenWith(ImmutableUri(path), SQLITE_OPEN_READONLY | SQLITE_OPEN_URI, db);
    if (rc != SQLITE_OK) return rc;
    bool const wal = WalFormat(db);
    if (wal && log <= 0) return rc;  // read as it stands
    sqlite3_close_v2(db);
    db = nullptr;
    if (!wal || companions) return OpenWith(path, SQLITE_OPEN_READONLY, db);
    failure::Record("the log " + path +
                    "-wal holds changes without its index; a process that may write the "
                    "file must open it first");
    return SQLITE_CANTOPEN;
  } catch (...) {
    return SQLITE_NOMEM;
  }
}

}  // namespace db_wrappers::sqlite::open
