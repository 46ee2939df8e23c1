#include "settings_db_encoding.h"

#include <fmt/format.h>

#include <string>

#include "settings_db_check.h"
#include "uvc/error.h"

namespace settings_db {

namespace sqlite = db_wrappers::sqlite;

void VerifyEncoding(std::unique_ptr<sqlite::IDatabase> const& db) {
  constexpr char kStatement[] = "PRAGMA encoding";
  sqlite::Query query(db);
  int code = query.Prepare(kStatement);
  Check(code >= 0, "Exec.Prepare", code, kStatement, *db);
  code = query.Next();
  Check(code == sqlite::kRowReady, kStatement, code, *db);
  auto const encoding = std::get<sqlite::alt::kText>(query.Value(0, sqlite::alt::kText));
  if (encoding != "UTF-8")
    throw uvc::Error(
        fdn::rc::kNotSupported,
        fmt::format("[SMDB] Unsupported text encoding: '{}', settings files are UTF-8", encoding));
}

}  // namespace settings_db
