#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

struct sqlite3;

namespace test_support {

// Direct access to a database file through the sqlite3 C API, independent of the
// library's own wrapper: for reading back what the library wrote and for damaging files.
class SqliteFile {
 public:
  explicit SqliteFile(std::string const& path);
  ~SqliteFile();
  SqliteFile(SqliteFile const&) = delete;
  SqliteFile& operator=(SqliteFile const&) = delete;

  struct Row {
    std::string path;
    std::vector<std::uint8_t> value;
    std::vector<std::uint8_t> attrib;
    bool operator==(Row const& o) const {
      return path == o.path && value == o.value && attrib == o.attrib;
    }
  };

  // Runs one or more statements; throws std::runtime_error with SQLite's text on failure.
  void Exec(std::string const& sql);
  // Every row of `data` ordered by path (byte order).
  std::vector<Row> DataRows();
  void InsertRow(Row const& row);
  // The single text value of a one-column query, or "<none>" when it returns no row.
  std::string QueryText(std::string const& sql);
  std::int64_t QueryInt(std::string const& sql) { return std::stoll(QueryText(sql)); }

  sqlite3* Handle() const { return db_; }

 private:
  sqlite3* db_ = nullptr;
};

// Bytes as lower-case hex without blanks, as SQL's x'..' literals take them.
std::string Hex(std::vector<std::uint8_t> const& bytes);

// Rows print as text and hex in failure messages.
inline void PrintTo(SqliteFile::Row const& row, std::ostream* out) {
  *out << "{'" << row.path << "', " << Hex(row.value) << ", " << Hex(row.attrib) << "}";
}

}  // namespace test_support
