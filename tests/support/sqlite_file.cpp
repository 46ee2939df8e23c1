#include "support/sqlite_file.h"

#include <sqlite3.h>

#include <memory>
#include <stdexcept>

namespace test_support {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Statement = std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)>;

Statement Prepare(sqlite3* db, std::string const& sql) {
  sqlite3_stmt* raw = nullptr;
  if (sqlite3_prepare_v2(db, sql.c_str(), -1, &raw, nullptr) != SQLITE_OK)
    throw std::runtime_error("prepare: " + std::string(sqlite3_errmsg(db)) + ": " + sql);
  return Statement(raw, &sqlite3_finalize);
}

// A column's bytes as `Out` (std::string or a byte vector); empty for NULL.
template <typename Out>
Out Column(sqlite3_stmt* st, int column) {
  auto const* data = static_cast<typename Out::value_type const*>(sqlite3_column_blob(st, column));
  return data ? Out(data, data + sqlite3_column_bytes(st, column)) : Out();
}

}  // namespace

SqliteFile::SqliteFile(std::string const& path) {
  if (sqlite3_open(path.c_str(), &db_) != SQLITE_OK) {
    std::string const error = db_ ? sqlite3_errmsg(db_) : "out of memory";
    sqlite3_close(db_);
    throw std::runtime_error("open " + path + ": " + error);
  }
  sqlite3_busy_timeout(db_, 5000);
}

SqliteFile::~SqliteFile() { sqlite3_close(db_); }

void SqliteFile::Exec(std::string const& sql) {
  char* error = nullptr;
  if (sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &error) != SQLITE_OK) {
    std::string const text = error ? error : "?";
    sqlite3_free(error);
    throw std::runtime_error("exec: " + text + ": " + sql);
  }
}

std::vector<SqliteFile::Row> SqliteFile::DataRows() {
  auto st = Prepare(db_, "SELECT path, value, attrib FROM data ORDER BY path");
  std::vector<Row> rows;
  while (sqlite3_step(st.get()) == SQLITE_ROW)
    rows.push_back(
        {Column<std::string>(st.get(), 0), Column<Bytes>(st.get(), 1), Column<Bytes>(st.get(), 2)});
  return rows;
}

void SqliteFile::InsertRow(Row const& row) {
  auto st = Prepare(db_, "INSERT INTO data VALUES (?, ?, ?)");
  sqlite3_bind_text(st.get(), 1, row.path.data(), int(row.path.size()), SQLITE_STATIC);
  sqlite3_bind_blob(st.get(), 2, row.value.data(), int(row.value.size()), SQLITE_STATIC);
  sqlite3_bind_blob(st.get(), 3, row.attrib.data(), int(row.attrib.size()), SQLITE_STATIC);
  if (sqlite3_step(st.get()) != SQLITE_DONE)
    throw std::runtime_error("insert: " + std::string(sqlite3_errmsg(db_)));
}

std::string SqliteFile::QueryText(std::string const& sql) {
  auto st = Prepare(db_, sql);
  if (sqlite3_step(st.get()) != SQLITE_ROW) return "<none>";
  return sqlite3_column_type(st.get(), 0) == SQLITE_NULL ? "<null>"
                                                         : Column<std::string>(st.get(), 0);
}

std::string Hex(std::vector<std::uint8_t> const& bytes) {
  static char const digits[] = "0123456789abcdef";
  std::string out;
  for (auto b : bytes) out += {digits[b >> 4], digits[b & 15]};
  return out;
}

}  // namespace test_support
