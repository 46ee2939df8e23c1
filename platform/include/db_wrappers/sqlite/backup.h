#pragma once

#include <string>

#include "db_wrappers/sqlite/database.h"

namespace db_wrappers::sqlite {

// Copies the database open on `source` into the file `destination` with SQLite's online
// backup: the whole file in one step, inside one read transaction of `source`, so the
// copy is one committed state even while other connections keep writing. The copy is
// made in "<destination>.partial" and renamed over `destination` once complete and
// synced, so `destination` holds either its previous content or the whole copy. Returns
// 0, or a negative code (MakeError) with `destination` untouched.
int CopyDatabase(IDatabase const& source, std::string const& destination);

}  // namespace db_wrappers::sqlite
