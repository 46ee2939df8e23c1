#include "wal_write_lock.h"

#include <sys/stat.h>

#include <exception>
#include <fstream>
#include <sstream>

namespace settings_db {

namespace {
// SQLite's WAL_WRITE_LOCK: the first lock byte of the index file.
constexpr unsigned long long kWriteLockByte = 120;
}  // namespace

bool WalWriteLockHeld(std::string const& path) {
  struct stat index {};
  if (::stat((path + "-shm").c_str(), &index) != 0) return false;
  // "1: POSIX  ADVISORY  WRITE 1234 fe:00:10953973 120 120"; a waiting request has "->"
  // after the number. The inode alone names the file: on stacked file systems the
  // device the table shows need not be the one stat(2) gives.
  std::string const inode = ":" + std::to_string(index.st_ino);
  std::ifstream table("/proc/locks");
  for (std::string line; std::getline(table, line);) {
    std::istringstream fields(line);
    std::string number, kind, mode, type, pid, file, start, end;
    fields >> number >> kind >> mode >> type >> pid >> file >> start >> end;
    if (kind == "->" || type != "WRITE" || file.size() < inode.size() ||
        file.compare(file.size() - inode.size(), inode.size(), inode) != 0)
      continue;
    try {
      if (std::stoull(start) <= kWriteLockByte &&
          (end == "EOF" || std::stoull(end) >= kWriteLockByte))
        return true;
    } catch (std::exception const&) {
      // A line of another shape holds no lock of this file.
    }
  }
  return false;
}

}  // namespace settings_db
