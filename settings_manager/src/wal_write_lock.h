#pragma once

#include <string>

namespace settings_db {

// Whether some connection, in any process, holds the write lock of the file at `path` in
// WAL format: the lock byte at offset 120 of `<path>-shm`, held from a write
// transaction's first write until its commit is visible to readers. Read from the kernel's
// lock table (/proc/locks), so that a connection that may not take the lock can still
// tell whether a commit is in flight, without opening `-shm` itself (closing it would drop
// this process's own locks on it). False when there is no `-shm` or no table to read.
bool WalWriteLockHeld(std::string const& path);

}  // namespace settings_db
