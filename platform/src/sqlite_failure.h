#pragma once

// The reason of the last failed wrapper call on this thread, in SQLite's own words.

#include <string>

struct sqlite3;

namespace db_wrappers::sqlite::failure {

// Remembers why `rc` (an extended SQLite code) came from a call on `db`.
void Record(sqlite3* db, int rc) noexcept;
// Remembers a reason of the wrapper's own.
void Record(std::string text) noexcept;
// Forgets what was remembered: a new step of work begins.
void Clear() noexcept;

}  // namespace db_wrappers::sqlite::failure
