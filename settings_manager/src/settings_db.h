#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "db_wrappers/sqlite/database.h"
#include "raw_setting.h"

namespace settings_db {

// The settings database file: table `data` holds one row per node (path text, value
// record, attribute record), table `meta` the schema version "1".
//
// Either fully built (file open, schema verified) or its constructor has thrown. Not
// thread-safe: its bind holders change on every call, so one thread at a time.
// Failures throw uvc::Error with a "[SMDB] " message; nothing is logged here but the
// schema progress.
class SettingsDB {
 public:
  using RawItems = std::vector<settings_manager::impl::RawItem>;

  enum class Access {
    kReadWrite,  // opens or creates the file; a file without the schema gets it
    kReadOnly,   // opens an existing file to read it; a file without the schema is refused
  };

  // Opens the file at `path` and verifies, or (read-write, in a new file) creates, the
  // schema. An empty path throws std::runtime_error and touches nothing.
  explicit SettingsDB(std::string const& path, Access access = Access::kReadWrite);
  ~SettingsDB();
  SettingsDB(SettingsDB const&) = delete;
  SettingsDB& operator=(SettingsDB const&) = delete;

  // Path texts are those of the id rules: every identifier followed by the separator,
  // the root empty. Get, Set (first record) and Del match them as raw byte prefixes, so a
  // text without its final separator ("a/b") would also take the siblings that begin
  // with it ("a/bc/").

  // The rows of the node at `path` and its descendants, in ascending byte order of path
  // text; empty when nothing is stored under `path`. Throws "Get: wrong head node" when
  // descendants are stored without the node's own row, and std::bad_variant_access when
  // a column holds another kind of value than the schema's (text path, blob records).
  RawItems Get(std::string const& path) const;

  // Replaces, in one transaction, the stored subtree of the first record by `items`:
  // all rows replaced or none. Returns how many rows the old subtree had.
  int Set(RawItems const& items) const;

  // Sets the attribute record of the row whose path text is exactly `path`; returns the
  // number of rows changed (0 or 1).
  int Upd(std::string const& path, settings_manager::impl::RawAttrib const& attrib) const;

  // Deletes the node at `path` and its descendants; returns the number of rows deleted.
  // The empty path deletes every row.
  int Del(std::string const& path) const;

  // Copies the whole file, as one committed state, to `destination` (SQLite's online
  // backup; see db_wrappers::sqlite::CopyDatabase).
  void Backup(std::string const& destination) const;

  // True unless `code` is the row-ready code: the query produced no row.
  static bool EmptySelect(int code) noexcept;

 private:
  using Query = db_wrappers::sqlite::Query;

  bool VerifySchema() const;
  void CreateSchema() const;
  bool TableExists(char const* name) const;

  // Prepares `sql` on `query`, binds the arguments from position 1 and takes the first
  // step; returns the step's code (row ready or done).
  template <typename... Args>
  int Exec(Query& query, std::string_view sql, Args const&... args) const;
  // Prepares and steps a statement without parameters on a Query of its own.
  Query Exec(std::string_view sql) const;

  // Binds every argument at positions 1, 2, 3 ... even after a failure; returns the code
  // of the last failed bind, or 0.
  template <typename... Args>
  int Bind(Query& query, Args const&... args) const;
  int BindOne(Query& query, int position, std::string const& text) const;
  int BindOne(Query& query, int position, settings_manager::impl::Bytes const& blob) const;

  mutable db_wrappers::sqlite::DbValue text_;  // reused to bind every text
  mutable db_wrappers::sqlite::DbValue blob_;  // reused to bind every blob
  std::unique_ptr<db_wrappers::sqlite::IDatabase> db_;
};

}  // namespace settings_db
