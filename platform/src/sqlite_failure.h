#pragma once

// The reason of the last failed wrapper call on this thread, in SQLite's own words.

#include <string>

struct sqlite3;

namespace db_wrappers::sqlite::failure {

// Remembers why `rc` (an extended SQLite code) came from a call on `db`.
void Record(sqlite3* db, int rc) noexcept;
// Remembers a reason of the wrapper's own, with the extended SQLite code it stands for.
void Record(std::string text, int rc = 0) noexcept;
// Forgets what was remembered: a new step of work begins.
void Clear() noexcept;
// The extended SQLite code of the failure remembered last; 0 for none or unknown.
int LastCode() noexcept;

// Puts back, when it ends, what was remembered when it began: for clean-up steps whose own
// failures must not hide the one that led to them.
class Kept {
 public:
  Kept() noexcept;
  ~Kept();
  Kept(Kept const&) = delete;
  Kept& operator=(Kept const&) = delete;

 private:
  std::string reason_;
  int code_;
};

}  // namespace db_wrappers::sqlite::failure
