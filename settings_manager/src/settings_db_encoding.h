#pragma once

#include <memory>

#include "db_wrappers/sqlite/database.h"

namespace settings_db {

// Paths and keys are stored as UTF-8 text and read back byte for byte; a file of another
// text encoding would have SQLite convert them, so that keys that are not valid UTF-8 no
// longer read back as written. Throws 0x80000042 "[SMDB] Unsupported text encoding: ..."
// for such a file; a new file is always made UTF-8.
void VerifyEncoding(std::unique_ptr<db_wrappers::sqlite::IDatabase> const& db);

}  // namespace settings_db
