#include "settings_db.h"

#include <stdexcept>

#include "db_wrappers/sqlite/backup.h"
#include "db_wrappers/transaction_monitor.h"
#include "log.h"
#include "settings_db_check.h"
#include "settings_db_encoding.h"
#include "settings_db_statements.h"

namespace settings_db {

namespace sqlite = db_wrappers::sqlite;
namespace stmt = statements;
using settings_manager::impl::Bytes;
using settings_manager::impl::RawAttrib;
using settings_manager::log::kDbSource;
using settings_manager::log::LogLevel;

SettingsDB::SettingsDB(std::string const& path, Access access)
    : text_(std::in_place_index<sqlite::alt::kText>),
      blob_(std::in_place_index<sqlite::alt::kBlob>) {
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
  if (!VerifySchema()) {
    CreateSchema();
    Check(VerifySchema(), "Schema: Verify fails after Create");
  }
}

SettingsDB::~SettingsDB() = default;

bool SettingsDB::EmptySelect(int code) noexcept { return code != sqlite::kRowReady; }

bool SettingsDB::TableExists(char const* name) const {
  Query query(db_);
  return !EmptySelect(Exec(query, stmt::kTableExists, std::string(name)));
}

bool SettingsDB::VerifySchema() const {
  settings_manager::log::Text(LogLevel::Info, kDbSource, __LINE__, "VerifySchema",
                              "[SMDB] VerifySchema...");
  bool const data = TableExists("data");
  bool const meta = TableExists("meta");
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
  Query query(db_);
  int step = Exec(query, stmt::kSelectSubtree, path);
  if (EmptySelect(step)) return {};
  // Sorted by text, the node's own row comes before every longer text that it prefixes.
  Check(std::get<sqlite::alt::kText>(query.Value(0, sqlite::alt::kText)) == path,
        "Get: wrong head node");
  RawItems items;
  for (;;) {
    items.emplace_back(std::get<sqlite::alt::kBlob>(query.Value(2, sqlite::alt::kBlob)),
                       std::get<sqlite::alt::kBlob>(query.Value(1, sqlite::alt::kBlob)),
                       std::get<sqlite::alt::kText>(query.Value(0, sqlite::alt::kText)));
    step = query.Next();
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

  Query remove(db_);
  Exec(remove, stmt::kDeleteSubtree, items.front().path);
  int const removed = remove.GetChangesCount();

  Query insert(db_);
  int code = insert.Prepare(stmt::kInsertRow);
  Check(code >= 0, "Set: prepare", code, stmt::kInsertRow, *db_);
  for (auto const& item : items) {
    code = Bind(insert, item.path, item.value, item.attrib);
    Check(code >= 0, "Set: bind", code, *db_);
    code = insert.Next();
    Check(code >= 0, "Set: insert", code, *db_);
    code = insert.Flush();
    Check(code >= 0, "Set: flush", code, *db_);
    code = insert.ClearBindings();
    Check(code >= 0, "Set: clear bind", code, *db_);
  }
  Check(transaction.Commit(), "Set: commit");
  return removed;
}

void SettingsDB::Backup(std::string const& destination) const {
  int const copied = sqlite::CopyDatabase(*db_, destination);
  Check(copied >= 0, "Backup", copied);
}

int SettingsDB::Upd(std::string const& path, RawAttrib const& attrib) const {
  Query query(db_);
  Exec(query, stmt::kUpdateAttrib, attrib.attrib, path);
  return query.GetChangesCount();
}

int SettingsDB::Del(std::string const& path) const {
  Query query(db_);
  Exec(query, stmt::kDeleteSubtree, path);
  return query.GetChangesCount();
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

SettingsDB::Query SettingsDB::Exec(std::string_view sql) const {
  Query query(db_);
  Exec(query, sql);
  return query;
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

int SettingsDB::BindOne(Query& query, int position, std::string const& text) const {
  std::get<sqlite::alt::kText>(text_).assign(text);
  return query.Bind(position, text_);
}

int SettingsDB::BindOne(Query& query, int position, Bytes const& blob) const {
  auto& holder = std::get<sqlite::alt::kBlob>(blob_);
  holder.assign(blob.begin(), blob.end());
  return query.Bind(position, blob_);
}

}  // namespace settings_db
