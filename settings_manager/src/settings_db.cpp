#include "settings_db.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <stdexcept>

#include "db_wrappers/sqlite/backup.h"
#include "db_wrappers/transaction_monitor.h"
#include "log.h"
#include "settings_db_check.h"
#include "settings_db_encoding.h"
#include "settings_db_exec.h"

namespace settings_db {

namespace sqlite = db_wrappers::sqlite;
namespace stmt = statements;
using settings_manager::impl::Bytes;
using settings_manager::impl::RawAttrib;
using settings_manager::log::kDbSource;
using settings_manager::log::LogLevel;

SettingsDB::SettingsDB(std::string const& path, Access access)
    : text_(std::in_place_index<sqlite::alt::kText>),
      blob_(std::in_place_index<sqlite::alt::kBlob>),
      path_(path),
      access_(access) {
  if (path.empty()) throw std::runtime_error("[SMDB] Empty DB path");
  auto const wrapper = std::make_unique<sqlite::Wrapper>();
  if (access == Access::kReadOnly) {
    int const opened = wrapper->OpenExisting(path, db_);
    Check(opened >= 0, "Could not open settings database", opened);
    VerifyEncoding(db_);
    Check(VerifySchema(), "Not a settings database");
    return;
  }
  int const opened = wrapper->Open(path, db_);
  Check(opened >= 0, "Could not create settings database", opened);
  VerifyEncoding(db_);
  // Remembered so that a change never goes to a file that no longer has this path.
  struct stat file {};
  if (::stat(path.c_str(), &file) == 0) {
    device_ = file.st_dev;
    inode_ = file.st_ino;
  }
  if (!VerifySchema()) {
    CreateSchema();
    Check(VerifySchema(), "Schema: Verify fails after Create");
  }
}

SettingsDB::~SettingsDB() = default;

void SettingsDB::ReopenIfImmutable() {
  if (sqlite3_uri_boolean(sqlite3_db_filename(db_->Handle(), "main"), "immutable", 0) == 0) return;
  CheckSameFile();
  std::unique_ptr<sqlite::IDatabase> fresh;
  sqlite::Wrapper wrapper;
  int const opened = access_ == Access::kReadOnly ? wrapper.OpenExisting(path_, fresh)
                                                  : wrapper.Open(path_, fresh);
  Check(opened >= 0, "Could not open settings database", opened);
  // The kept statements belong to the old connection: finalized before it closes.
  for (Statement* statement :
       {&tableExists_, &selectAll_, &selectSubtree_, &countAll_, &countSubtree_, &deleteAll_,
        &deleteSubtree_, &insertRow_, &updateAttrib_, &lastGeneration_, &firstGeneration_,
        &changedSince_, &insertChange_, &pruneChanges_})
    statement->query = Query(std::unique_ptr<sqlite::IDatabase>());
  db_ = std::move(fresh);
  changeLog_ = false;
  generation_ = {};
}

bool SettingsDB::EmptySelect(int code) noexcept { return code != sqlite::kRowReady; }

bool SettingsDB::TableExists(char const* name) const {
  Using reset(tableExists_.query);
  return !EmptySelect(Exec(tableExists_, std::string(name)));
}

bool SettingsDB::VerifySchema() const {
  settings_manager::log::Text(LogLevel::Info, kDbSource, __LINE__, "VerifySchema",
                              "[SMDB] VerifySchema...");
  bool data = TableExists("data");
  bool meta = TableExists("meta");
  if (data != meta) {
    // Another connection may have made both (in one transaction) between the two looks:
    // once one is seen, a second look sees both.
    data = TableExists("data");
    meta = TableExists("meta");
  }
  if (!data && !meta) return false;  // a fresh file
  Check(data && meta, "Inconsistent db state: data/meta", data, meta);

  Query query(db_);
  int const step = Exec(query, stmt::kSelectVersion, std::string(stmt::kVersionKey));
  Check(!EmptySelect(step), "No schema version");
  // There is no migration: any other version is refused.
  auto const version = std::get<sqlite::alt::kText>(query.Value(0, sqlite::alt::kText));
  Check(version == stmt::kVersion, "Unexpected schema version", version);
  settings_manager::log::Text(LogLevel::Info, kDbSource, __LINE__, "VerifySchema",
                              "[SMDB] VerifySchema...Ok");
  return true;
}

void SettingsDB::CreateSchema() const {
  settings_manager::log::Text(LogLevel::Info, kDbSource, __LINE__, "CreateSchema",
                              "[SMDB] CreateSchema...");
  // A half-made schema is rolled back when any step fails.
  db_wrappers::TransactionMonitor<sqlite::IDatabase> transaction(db_);
  Check(transaction.Begin(), "CreateSchema: begin transaction");
  // Another connection opening the new file at the same time may have made it first;
  // holding the write lock, this look is final.
  if (TableExists("data") || TableExists("meta")) return;
  Exec(stmt::kCreateData);
  Exec(stmt::kCreateMeta);
  Query insert(db_);
  Exec(insert, stmt::kInsertMeta, std::string(stmt::kVersionKey), std::string(stmt::kVersion));
  int const inserted = insert.GetChangesCount();
  Check(inserted == 1, "Wrong insert count (meta version)", inserted);
  Check(transaction.Commit(), "CreateSchema: commit");
  settings_manager::log::Text(LogLevel::Info, kDbSource, __LINE__, "CreateSchema",
                              "[SMDB] CreateSchema...Ok");
}

SettingsDB::RawItems SettingsDB::Get(std::string const& path) const {
  Reader reader(*this, path);
  RawItems items;
  settings_manager::impl::RawView row;
  while (reader.Next(row))
    items.emplace_back(Bytes(row.attrib.data, row.attrib.data + row.attrib.size),
                       Bytes(row.value.data, row.value.data + row.value.size),
                       std::string(row.path));
  return items;
}

namespace {

// Column `column` of the row holds the kind of value the schema gives it: text for the
// path, a blob for the records.
bool Holds(sqlite::Query const& query, int column, int type) noexcept {
  return sqlite3_column_type(query.Statement(), column) == type;
}

}  // namespace

SettingsDB::Reader::Reader(SettingsDB const& db, std::string path)
    : db_(db), path_(std::move(path)) {
  Statement& select = path_.empty() ? db_.selectAll_ : db_.selectSubtree_;
  try {
    int const step =
        path_.empty() ? db_.Exec(select) : db_.Exec(select, path_, stmt::SubtreeEnd(path_));
    if (EmptySelect(step)) {
      Finish();
      return;
    }
    // Sorted by text, the node's own row comes before every longer text that it prefixes.
    Query const& query = select.query;
    Check(std::get<sqlite::alt::kText>(query.Value(0, sqlite::alt::kText)) == path_,
          "Get: wrong head node");
  } catch (...) {
    select.query.Flush();
    throw;
  }
  empty_ = false;
  pending_ = true;
}

SettingsDB::Reader::~Reader() { Finish(); }

void SettingsDB::Reader::Finish() noexcept {
  (path_.empty() ? db_.selectAll_ : db_.selectSubtree_).query.Flush();
}

bool SettingsDB::Reader::Step() {
  if (empty_) return false;
  if (pending_) return true;
  Query& query = (path_.empty() ? db_.selectAll_ : db_.selectSubtree_).query;
  int const step = query.Next();
  if (step == sqlite::kRowReady) return pending_ = true;
  empty_ = true;  // nothing more to hand out
  Check(step == sqlite::kDone, "Get: incomplete node read", step);
  Finish();
  if (whenRead_) whenRead_();
  return false;
}

bool SettingsDB::Reader::Next(settings_manager::impl::RawView& row) {
  try {
    if (!Step()) return false;
    Query const& query = (path_.empty() ? db_.selectAll_ : db_.selectSubtree_).query;
    if (!Holds(query, 0, SQLITE_TEXT) || !Holds(query, 1, SQLITE_BLOB) ||
        !Holds(query, 2, SQLITE_BLOB)) {
      // A column of another kind fails as Get's reading of it always did.
      (void)std::get<sqlite::alt::kBlob>(query.Value(2, sqlite::alt::kBlob));
      (void)std::get<sqlite::alt::kBlob>(query.Value(1, sqlite::alt::kBlob));
      (void)std::get<sqlite::alt::kText>(query.Value(0, sqlite::alt::kText));
    }
    sqlite3_stmt* const statement = query.Statement();
    auto const blob = [statement](int column) {
      // Data before size, as for the text; a zero-length blob has no data pointer.
      auto const* data = static_cast<std::uint8_t const*>(sqlite3_column_blob(statement, column));
      return settings_manager::impl::ByteView{
          data, static_cast<std::size_t>(sqlite3_column_bytes(statement, column))};
    };
    auto const* text = reinterpret_cast<char const*>(sqlite3_column_text(statement, 0));
    row.path =
        text != nullptr
            ? std::string_view(text, static_cast<std::size_t>(sqlite3_column_bytes(statement, 0)))
            : std::string_view();
    row.value = blob(1);
    row.attrib = blob(2);
    pending_ = false;
    ++handed_;
    return true;
  } catch (...) {
    failed_ = true;
    throw;
  }
}

std::size_t SettingsDB::Reader::Total() {
  if (total_ != 0) return total_;
  try {
    Statement& count = path_.empty() ? db_.countAll_ : db_.countSubtree_;
    Using reset(count.query);
    // The select still reads: the count sees the same snapshot.
    int const step =
        path_.empty() ? db_.Exec(count) : db_.Exec(count, path_, stmt::SubtreeEnd(path_));
    Check(step == sqlite::kRowReady, "Get: incomplete node read", step);
    auto const value = count.query.Value(0, sqlite::alt::kInt64);
    auto const* rows = std::get_if<sqlite::alt::kInt64>(&value);
    Check(rows != nullptr && *rows > 0, "Get: incomplete node read", step);
    total_ = static_cast<std::size_t>(*rows);
    return total_;
  } catch (...) {
    failed_ = true;
    // Reading on meets the failure where reading every row first would have met it.
    settings_manager::impl::RawView row;
    while (Next(row)) {
    }
    throw;
  }
}

int SettingsDB::Set(RawItems const& items) const {
  Check(!items.empty(), "Set: empty raw setting");
  // Any failure below rolls back the delete too: the subtree is replaced whole or not.
  db_wrappers::TransactionMonitor<sqlite::IDatabase> transaction(db_);
  Check(transaction.Begin(), "Set: begin transaction");
  int const removed = Replace(items);
  Check(transaction.Commit(), "Set: commit");
  return removed;
}

int SettingsDB::Replace(RawItems const& items) const {
  Check(!items.empty(), "Set: empty raw setting");
  int const removed = Del(items.front().path);

  Statement& insert = insertRow_;
  Using reset(insert.query);
  int code = Prepare(insert);
  Check(code >= 0, "Set: prepare", code, insert.sql, *db_);
  for (auto const& item : items) {
    code = Bind(insert.query, item.path, item.value, item.attrib);
    Check(code >= 0, "Set: bind", code, *db_);
    code = insert.query.Next();
    Check(code >= 0, "Set: insert", code, *db_);
    code = insert.query.Flush();
    Check(code >= 0, "Set: flush", code, *db_);
    code = insert.query.ClearBindings();
    Check(code >= 0, "Set: clear bind", code, *db_);
  }
  return removed;
}

void SettingsDB::Backup(std::string const& destination) const {
  int const copied = sqlite::CopyDatabase(*db_, destination);
  Check(copied >= 0, "Backup", copied);
}

int SettingsDB::Upd(std::string const& path, RawAttrib const& attrib) const {
  Using reset(updateAttrib_.query);
  Exec(updateAttrib_, attrib.attrib, path);
  return updateAttrib_.query.GetChangesCount();
}

int SettingsDB::Del(std::string const& path) const {
  Statement& remove = path.empty() ? deleteAll_ : deleteSubtree_;
  Using reset(remove.query);
  if (path.empty())
    Exec(remove);
  else
    Exec(remove, path, stmt::SubtreeEnd(path));
  return remove.query.GetChangesCount();
}

SettingsDB::Query SettingsDB::Exec(std::string_view sql) const {
  Query query(db_);
  Exec(query, sql);
  return query;
}

int SettingsDB::BindOne(Query& query, int position, std::string const& text) const {
  std::get<sqlite::alt::kText>(text_).assign(text);
  return query.Bind(position, text_);
}

int SettingsDB::BindOne(Query& query, int position, Bytes const& blob) const {
  auto& holder = std::get<sqlite::alt::kBlob>(blob_);
  holder.assign(blob.begin(), blob.end());
  return query.Bind(position, blob_);
}

int SettingsDB::BindOne(Query& query, int position, std::int64_t number) const {
  return query.Bind(position, sqlite::DbValue(number));
}

}  // namespace settings_db
