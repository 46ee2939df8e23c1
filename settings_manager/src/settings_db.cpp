#include "settings_db.h"

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
      path_(path) {
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
  Statement& select = path.empty() ? selectAll_ : selectSubtree_;
  Using reset(select.query);
  int step = path.empty() ? Exec(select) : Exec(select, path, stmt::SubtreeEnd(path));
  if (EmptySelect(step)) return {};
  Query const& query = select.query;
  // Sorted by text, the node's own row comes before every longer text that it prefixes.
  Check(std::get<sqlite::alt::kText>(query.Value(0, sqlite::alt::kText)) == path,
        "Get: wrong head node");
  RawItems items;
  for (;;) {
    items.emplace_back(std::get<sqlite::alt::kBlob>(query.Value(2, sqlite::alt::kBlob)),
                       std::get<sqlite::alt::kBlob>(query.Value(1, sqlite::alt::kBlob)),
                       std::get<sqlite::alt::kText>(query.Value(0, sqlite::alt::kText)));
    step = select.query.Next();
    if (step == sqlite::kRowReady) continue;
    Check(step == sqlite::kDone, "Get: incomplete node read", step);
    return items;
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
