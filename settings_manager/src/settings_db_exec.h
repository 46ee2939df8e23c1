#pragma once

// How the store runs its statements; shared by the files that make up SettingsDB.

#include "settings_db.h"
#include "settings_db_check.h"

namespace settings_db {

// Resets a statement when the scope ends, whatever happened: a statement left stepped
// would keep its read open and hide what other connections commit.
class Using {
 public:
  explicit Using(db_wrappers::sqlite::Query& query) noexcept : query_(query) {}
  ~Using() { query_.Flush(); }
  Using(Using const&) = delete;
  Using& operator=(Using const&) = delete;

 private:
  db_wrappers::sqlite::Query& query_;
};

inline int SettingsDB::Prepare(Statement& statement) const {
  if (statement.query.Statement() != nullptr) return 0;
  statement.query = Query(db_);
  // A failure leaves it unprepared: the next use tries again.
  return statement.query.Prepare(statement.sql);
}

template <typename... Args>
int SettingsDB::Exec(Statement& statement, Args const&... args) const {
  int code = Prepare(statement);
  Check(code >= 0, "Exec.Prepare", code, statement.sql, *db_);
  code = Bind(statement.query, args...);
  Check(code >= 0, "Exec.Bind", code, statement.sql, *db_);
  code = statement.query.Next();
  Check(code >= 0, statement.sql, code, *db_);
  return code;
}

template <typename... Args>
int SettingsDB::Exec(Query& query, std::string_view sql, Args const&... args) const {
  int code = query.Prepare(sql);
  Check(code >= 0, "Exec.Prepare", code, sql, *db_);
  code = Bind(query, args...);
  Check(code >= 0, "Exec.Bind", code, sql, *db_);
  code = query.Next();
  Check(code >= 0, sql, code, *db_);
  return code;
}

template <typename... Args>
int SettingsDB::Bind(Query& query, Args const&... args) const {
  int failed = 0;
  int position = 0;
  // Every argument is bound, even after a failure; the last failure is reported.
  [[maybe_unused]] auto bindOne = [&](auto const& arg) {
    int const code = BindOne(query, ++position, arg);
    if (code < 0) failed = code;
  };
  (bindOne(args), ...);
  return failed;
}

}  // namespace settings_db
